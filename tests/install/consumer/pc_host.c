/* pc_host.c - built from `pkg-config --cflags --libs kest` alone: opens an
 * instance on the plug-in folder given as argument and closes it. */
#include <kest.h>
#include <kest_host.h>

#include <stdio.h>

int main(int argc, char **argv) {
  kest_handle_t h;
  if (argc != 2) {
    return 2;
  }
  kest_host_use_libc();
  h = kest_open(argv[1]);
  if (h < 0) {
    fprintf(stderr, "kest_open(%s): error %d\n", argv[1], kest_errno);
    return 1;
  }
  printf("opened instance %d on %s\n", h, argv[1]);
  return kest_close(h) == 0 ? 0 : 1;
}
