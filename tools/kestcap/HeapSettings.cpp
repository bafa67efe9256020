// jemalloc's settings, read by jemalloc from this symbol when the process's
// first allocation initialises it (built in, so that no environment is
// needed). Its extents and its own bookkeeping go on transparent huge pages:
// kestcap keeps every open connection's records, the library's connection
// objects and the decoders' state alive at once, and faulting that in one
// 4 KiB page at a time cost more than the allocations themselves. On a
// kernel whose huge pages are off, the setting changes nothing.
extern "C" {
__attribute__((visibility("default"))) const char *malloc_conf = "thp:always,metadata_thp:always";
}
