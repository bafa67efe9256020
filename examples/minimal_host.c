/*
 * minimal_host - the smallest complete kest host: fill the hooks, open an
 * instance on a plug-in directory, give this thread a context, idle a few
 * times, and shut everything down again, reporting each step.
 *
 * usage: minimal_host [plugin-dir]
 */
#include <kest.h>
#include <kest_host.h>

#include <stdio.h>

int main(int argc, char **argv) {
  const char *plugin_dir = argc > 1 ? argv[1] : "plugins";

  kest_host_use_libc();

  kest_handle_t handle = kest_open(plugin_dir);
  if (handle < 0) {
    fprintf(stderr, "kest_open(%s) failed: error %d\n", plugin_dir, kest_errno);
    return 1;
  }
  printf("opened instance %d on %s\n", handle, plugin_dir);

  if (kest_init(handle) != 0) {
    fprintf(stderr, "kest_init failed: error %d\n", kest_errno);
    kest_fini(handle);
    kest_close(handle);
    return 1;
  }
  printf("thread context ready\n");

  for (int i = 0; i < 3; ++i) {
    kest_idle(handle);
  }
  printf("idle passes done\n");

  if (kest_fini(handle) != 0 || kest_close(handle) != 0) {
    fprintf(stderr, "shutdown failed: error %d\n", kest_errno);
    return 1;
  }
  printf("closed\n");
  return 0;
}
