// kestcap's own heap: jemalloc where it was found at build time, else the
// C library's, which these settings leave alone.
#ifndef KESTCAP_HEAPSETTINGS_H
#define KESTCAP_HEAPSETTINGS_H

namespace kestcap {

// On the calling thread, before it classifies: makes its heap grow a huge
// page at a time (see HeapSettings.cpp). Does nothing without jemalloc.
void TuneThreadHeap();

} // namespace kestcap

#endif
