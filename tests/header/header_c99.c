/* The host header on its own, as strict C99. */
#include <kest.h>

int kest_header_c99_probe(void) { return KEST_EINVAL + (int)sizeof(kest_endpoint_t); }
