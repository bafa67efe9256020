// First lines read as they arrive: no crash; a decided request or response
// has three tokens inside the data and the position behind its newline.
#include "FuzzFlow.h"

#include <initializer_list>
#include <kest/WebLine.h>
#include <kest_host.h>
#include <stdlib.h>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static const bool hooks = (kest_host_use_libc(), true);
  (void)hooks;
  static oru::WebMethodTable *methods = [] {
    auto *table = new oru::WebMethodTable;
    for (const char *m : {"GET", "GETX", "POST", "PUT", "OPTIONS", "G"}) {
      table->push_back(oru::WebMethod{m, static_cast<uint16_t>(strlen(m))});
    }
    return table;
  }();
  kest_fuzz::FuzzInput in(data, size);
  const bool check = in.Byte() % 2 != 0;
  kest_fuzz::FuzzFlow f;
  while (f.Feed(in, 64)) {
    oru::WebLine line(methods, "HTTP");
    unsigned long long pos = 0;
    if (!line.Parse(f.flow, pos, check)) {
      continue;
    }
    if (line.m_type == oru::WebLine::LINE_REQUEST || line.m_type == oru::WebLine::LINE_RESPONSE) {
      if (pos == 0 || pos > f.flow.End() || f.flow.At(pos - 1) != '\n' ||
          line.m_third.pos + line.m_third.length > pos) {
        abort();
      }
    }
    break;
  }
  return 0;
}
