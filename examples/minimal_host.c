/*
 * minimal_host - the smallest complete kest host: fill the hooks, open an
 * instance on a plug-in directory, give this thread a context, print the
 * instance's configuration, and shut everything down again. Any failure is
 * reported with its error number and text.
 *
 * usage: minimal_host [plugin-dir]
 */
#include <kest.h>
#include <kest_host.h>

#include <stdio.h>
#include <string.h>

static int fail(const char *what) {
  int error = kest_errno;
  fprintf(stderr, "%s failed: error %d (%s)\n", what, error, strerror(error));
  return 1;
}

int main(int argc, char **argv) {
  const char *plugin_dir = argc > 1 ? argv[1] : "plugins";

  kest_host_use_libc();

  kest_handle_t handle = kest_open(plugin_dir);
  if (handle < 0) {
    return fail("kest_open");
  }
  printf("opened instance %d on %s\n", handle, plugin_dir);

  if (kest_init(handle) != 0) {
    int status = fail("kest_init");
    kest_fini(handle);
    kest_close(handle);
    return status;
  }
  printf("thread context ready\n");
  kest_idle(handle);

  printf("configuration:\n");
  fflush(stdout);
  if (kest_config_dump(handle) != 0) {
    return fail("kest_config_dump");
  }

  if (kest_fini(handle) != 0) {
    return fail("kest_fini");
  }
  if (kest_close(handle) != 0) {
    return fail("kest_close");
  }
  printf("closed\n");
  return 0;
}
