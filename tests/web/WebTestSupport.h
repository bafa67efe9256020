// A flow buffer fed the way a transport feeds it: text appended as borrowed
// blocks of the test's own memory, in pieces of chosen sizes.
#ifndef KEST_TESTS_WEBTESTSUPPORT_H
#define KEST_TESTS_WEBTESTSUPPORT_H

#include <kest/FlowBuffer.h>

#include <deque>
#include <string>

namespace kest_test {

class FedFlow {
public:
  // Appends `bytes` as one more block.
  void Feed(const std::string &bytes) {
    if (bytes.empty()) {
      return;
    }
    m_pieces.push_back(bytes);
    const uint64_t at = flow.m_next_pos;
    flow.AddBlock(at, m_pieces.back().data(), static_cast<uint16_t>(bytes.size()), false);
    flow.m_last_start = at;
    flow.m_next_pos = at + bytes.size();
  }
  std::string Text(uint64_t from, uint64_t to) const {
    std::string out;
    for (uint64_t p = from; p < to; ++p) {
      out += flow.At(p);
    }
    return out;
  }

  oru::FlowBuffer flow;

private:
  std::deque<std::string> m_pieces; // stable addresses for the blocks
};

} // namespace kest_test

#endif
