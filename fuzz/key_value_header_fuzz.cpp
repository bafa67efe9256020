// Header blocks parsed as they arrive in pieces: no crash, records within the
// data and in order, the read position only moving forward.
#include "FuzzFlow.h"

#include <kest/KeyValueHeader.h>
#include <kest_host.h>
#include <stdlib.h>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static const bool hooks = (kest_host_use_libc(), true);
  (void)hooks;
  kest_fuzz::FuzzInput in(data, size);
  kest_fuzz::FuzzFlow f;
  oru::KeyValueHeader header(in.Byte() % 2 ? ':' : '=');
  unsigned long long last = 0;
  while (f.Feed(in, 200)) {
    const bool done = header.Parse(f.flow);
    if (f.flow.m_read_pos < last || f.flow.m_read_pos > f.flow.End()) {
      abort();
    }
    last = f.flow.m_read_pos;
    if (done) {
      break;
    }
  }
  uint64_t previous = 0;
  for (const oru::KeyValueRecord &r : header.m_records) {
    if (r.key_start < previous || r.key_end < r.key_start || r.value_start < r.key_end ||
        r.value_end < r.value_start || r.value_end > f.flow.End()) {
      abort();
    }
    previous = r.value_end;
  }
  return 0;
}
