/*
 * classify_host - the main job of a kest host. It opens an instance on the
 * folder of decoder plug-ins, makes a TCP connection, hands over the payload
 * of both sides of a short exchange and prints, for every result, the stack
 * of protocols that the library reports. Then it prints the plug-in manager's
 * report, shuts down, and shows the memory still held, by memory tag. Every
 * connection that goes away is reported through the "conn.expired" attribute.
 *
 * usage: classify_host [plugin-dir]   (default: the build's plug-in folder)
 */
#include <kest.h>
#include <kest_host.h>

#include <arpa/inet.h>
#include <stdio.h>
#include <string.h>

#ifndef KEST_EXAMPLE_PLUGIN_DIR
#define KEST_EXAMPLE_PLUGIN_DIR "plugins"
#endif

static int fail(const char *what) {
  int error = kest_errno;
  fprintf(stderr, "%s failed: error %d (%s)\n", what, error, strerror(error));
  return 1;
}

/* Called on this thread, inside kest_classify, once per result. */
static int on_result(kest_handle_t handle, kest_result_t *result, int code, kest_conn_id_t conn_id,
                     void *user, int error) {
  char name[64];
  int app = kest_app_get(handle, result, NULL);
  printf("  %s: connection %llu, code %d, error %d, stack:", (const char *)user,
         (unsigned long long)conn_id, code, error);
  for (kest_proto_first(handle, result); kest_proto_valid(handle, result);
       kest_proto_next(handle, result)) {
    int index = kest_proto_get_index(handle, result);
    printf(" %s", kest_proto_get_name(handle, index, name, sizeof name) ? name : "?");
  }
  printf(", application: %s\n", kest_proto_get_name(handle, app, name, sizeof name) ? name : "?");
  return 0; /* keep the connection; non-zero has it destroyed */
}

/* Listener of "conn.expired": the value is the dying connection's number. */
static int on_expired(kest_handle_t handle, kest_conn_id_t conn_id, int key, int length,
                      const void *value, int packed, void *user) {
  unsigned long long number = 0;
  (void)handle, (void)conn_id, (void)key, (void)packed, (void)user;
  if (length == (int)sizeof number) {
    memcpy(&number, value, sizeof number);
  }
  printf("  connection %llu expired\n", number);
  return 0;
}

int main(int argc, char **argv) {
  static const struct {
    int side; /* 0: client to server, 1: server to client */
    const char *label;
    const char *payload;
  } exchange[] = {
      {0, "request", "GET / HTTP/1.1\r\nHost: example.com\r\n\r\n"},
      {1, "response", "HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\n"},
      {1, "body", "hello"},
  };
  const char *plugin_dir = argc > 1 ? argv[1] : KEST_EXAMPLE_PLUGIN_DIR;
  kest_endpoint_t client = {KEST_FAMILY_IPV4, 0, {192, 0, 2, 1}};
  kest_endpoint_t server = {KEST_FAMILY_IPV4, 0, {198, 51, 100, 7}};
  kest_conn_t conn;
  kest_handle_t handle;
  size_t i;

  kest_host_use_libc();           /* the 43 hooks from the C library ... */
  kest_host_use_tag_accounting(); /* ... with allocations counted by memory tag */

  handle = kest_open(plugin_dir);
  if (handle < 0) {
    return fail("kest_open");
  }
  printf("opened instance %d on %s\n", handle, plugin_dir);
  if (kest_init(handle) != 0) { /* fails with 71 without the TCP and UDP plug-ins */
    int status = fail("kest_init");
    kest_close(handle);
    return status;
  }

  /* A listener reaches each thread at its next idle pass. */
  if (kest_attr_callback_set(handle, "conn.expired", on_expired) != 0) {
    fail("kest_attr_callback_set");
  }
  kest_idle(handle);

  client.port = htons(49152);
  server.port = htons(80);
  if (kest_conn_create(handle, &client, &server, 6, &conn) != 0) {
    int status = fail("kest_conn_create");
    kest_fini(handle);
    kest_close(handle);
    return status;
  }
  printf("classifying:\n");
  for (i = 0; i < sizeof exchange / sizeof exchange[0]; ++i) {
    if (kest_classify(handle, KEST_SELECTOR_CONN, exchange[i].payload,
                      (uint16_t)strlen(exchange[i].payload), conn, exchange[i].side, on_result,
                      (void *)exchange[i].label) != 0) {
      fail("kest_classify");
    }
  }
  kest_conn_destroy(handle, conn);

  fflush(stdout);
  kest_diag(handle, "SYSTEM", NULL);

  kest_fini(handle);
  printf("memory held by the instance after kest_fini:\n");
  kest_host_print_memory(handle);
  if (kest_close(handle) != 0) {
    return fail("kest_close");
  }
  printf("closed\n");
  return 0;
}
