// The HTTP decoder's first-line judgement on bytes fed in pieces the input
// chooses: no read outside the data, the same answer as for the same bytes
// in one block, and a decided line that the HTTP inspector reads the same
// way (a loose request line by the decoder's own reader, any other by the
// message inspector's line reader).
#include "FuzzFlow.h"

#include "message/MessageLine.h"

#include <kest/WebLine.h>
#include <kest_host.h>
#include <stdlib.h>
#include <string.h>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static const bool hooks = (kest_host_use_libc(), true);
  (void)hooks;
  static oru::WebMethodTable *methods = [] {
    auto *table = new oru::WebMethodTable;
    const kest_message::Dialect &http = kest_message::kHttp;
    for (size_t i = 0; i < http.method_count; ++i) {
      table->push_back(oru::WebMethod{http.methods[i].text, http.methods[i].length});
    }
    return table;
  }();
  kest_fuzz::FuzzInput in(data, size);
  kest_fuzz::FuzzFlow pieces;
  while (pieces.Feed(in, 64)) {
  }
  const uint64_t end = pieces.flow.End();
  if (end == 0) {
    return 0;
  }
  const kest_message::FirstLine got =
      kest_message::SniffFirstLine(pieces.flow, 0, end, kest_message::kHttp);

  char *whole_bytes = static_cast<char *>(malloc(end));
  for (uint64_t p = 0; p < end; ++p) {
    whole_bytes[p] = pieces.flow.At(p);
  }
  {
    oru::FlowBuffer whole;
    whole.AddBlock(0, whole_bytes, static_cast<uint16_t>(end), false);
    whole.m_last_start = 0;
    whole.m_next_pos = end;
    if (kest_message::SniffFirstLine(whole, 0, end, kest_message::kHttp) != got) {
      abort();
    }
    whole.Reset();
  }
  free(whole_bytes);

  if (got == kest_message::FirstLine::kRequest || got == kest_message::FirstLine::kResponse) {
    oru::WebLine line(methods, "HTTP");
    uint64_t next = 0;
    if (got == kest_message::FirstLine::kRequest &&
        kest_message::ReadLooseRequest(pieces.flow, 0, kest_message::kHttp, *methods, line, next) ==
            oru::kit::Match::kYes) {
      return 0;
    }
    unsigned long long pos = 0;
    const int32_t want = got == kest_message::FirstLine::kRequest ? oru::WebLine::LINE_REQUEST
                                                                  : oru::WebLine::LINE_RESPONSE;
    if (!line.Parse(pieces.flow, pos, true) || line.m_type != want) {
      abort();
    }
  }
  return 0;
}
