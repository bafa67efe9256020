// The host header on its own, as C++.
#include <kest.h>

int kest_header_cxx_probe() { return KEST_EINVAL + static_cast<int>(sizeof(kest_endpoint_t)); }
