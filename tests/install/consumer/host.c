/* host.c - a host built against an installed kest: loads the installed
 * decoders and the example plug-in, classifies one TCP SYN as a raw IPv4
 * packet and expects "TCP" on the result's stack. */
#include <kest.h>
#include <kest_host.h>

#include <stdio.h>
#include <string.h>

/* 192.0.2.1:40000 -> 198.51.100.7:80, SYN, with its header checksum. */
static const unsigned char kSyn[40] = {0x45, 0x00, 0x00, 0x28, 0x00, 0x00, 0x40, 0x00, 0x40, 0x06,
                                       0x4e, 0x94, 192,  0,    2,    1,    198,  51,   100,  7,
                                       0x9c, 0x40, 0x00, 0x50, 0x00, 0x00, 0x00, 0x01, 0,    0,
                                       0,    0,    0x50, 0x02, 0xff, 0xff, 0x00, 0x00, 0x00, 0x00};

static int on_result(kest_handle_t h, kest_result_t *r, int code, kest_conn_id_t id, void *user,
                     int error) {
  int *saw_tcp = user;
  char name[64];
  (void)code;
  (void)id;
  (void)error;
  for (kest_proto_first(h, r); kest_proto_valid(h, r); kest_proto_next(h, r)) {
    kest_proto_get_name(h, kest_proto_get_index(h, r), name, sizeof name);
    printf("%s ", name);
    if (strcmp(name, "TCP") == 0) {
      *saw_tcp = 1;
    }
  }
  printf("\n");
  return 0;
}

int main(void) {
  int saw_tcp = 0, ok;
  kest_handle_t h;

  kest_host_use_libc();
  h = kest_open(PLUGIN_DIR);
  if (h < 0 || kest_init(h) != 0) {
    fprintf(stderr, "cannot open %s: error %d\n", PLUGIN_DIR, kest_errno);
    return 1;
  }
  ok = kest_proto_find_index(h, "EXAMPLE") > 0;
  if (!ok) {
    fprintf(stderr, "the example plug-in did not load\n");
  }
  if (kest_classify(h, KEST_SELECTOR_IP, kSyn, sizeof kSyn, NULL, 0, on_result, &saw_tcp) != 0 ||
      !saw_tcp) {
    fprintf(stderr, "no TCP on the stack (error %d)\n", kest_errno);
    ok = 0;
  }
  kest_fini(h);
  kest_close(h);
  return ok ? 0 : 1;
}
