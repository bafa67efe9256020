// Lines read from a side's stream as a pure function of its blocks: the
// same lines wherever the stream is cut into blocks, long lines cut to the
// buffer but read whole, and a line without LF beyond the bound refused.
#include "decoders/common/TextLine.h"
#include "tests/support/TestHooks.h"

#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace {

using kest_decoders::LineRead;
using kest_decoders::TextLine;

// The stream in blocks cut at `cuts`, read to its end: each line, "<wait>"
// or "<overlong>" for the last answer.
std::vector<std::string> Lines(const std::string &stream, std::vector<size_t> cuts,
                               uint32_t bound) {
  oru::FlowBuffer flow;
  cuts.push_back(stream.size());
  size_t from = 0;
  for (size_t cut : cuts) {
    if (cut > from) {
      flow.AddBlock(from, stream.data() + from, static_cast<uint16_t>(cut - from), false);
      flow.m_last_start = from;
      flow.m_next_pos = cut;
      from = cut;
    }
  }
  std::vector<std::string> out;
  uint64_t pos = 0;
  for (;;) {
    TextLine line;
    const LineRead read = kest_decoders::ReadLine(flow, pos, bound, line);
    if (read != kest_decoders::LINE_READY) {
      out.push_back(read == kest_decoders::LINE_WAIT ? "<wait>" : "<overlong>");
      break;
    }
    out.push_back(std::string(line.text, line.length) + "/" + std::to_string(line.full));
  }
  flow.Reset();
  return out;
}

TEST(TextLineReads, SameLinesWhereverTheStreamIsCut) {
  kest_test::InstallHooks();
  const std::string longest(600, 'x');
  const struct {
    std::string stream;
    uint32_t bound;
    std::vector<std::string> lines;
  } cases[] = {
      {"220 ready\r\nEHLO a\nrest", 100, {"220 ready/9", "EHLO a/6", "<wait>"}},
      {"\r\n\n", 100, {"/0", "/0", "<wait>"}},
      {"a\rb\r\n", 100, {"a\rb/3", "<wait>"}},
      {longest + "\r\n", 700, {std::string(512, 'x') + "/600", "<wait>"}},
      {longest + "\r\n", 600, {"<overlong>"}},
      {longest, 600, {"<wait>"}},
      {longest + "y", 600, {"<overlong>"}},
  };
  for (const auto &c : cases) {
    EXPECT_EQ(Lines(c.stream, {}, c.bound), c.lines) << c.stream.substr(0, 20);
    for (size_t cut = 1; cut < c.stream.size(); ++cut) {
      EXPECT_EQ(Lines(c.stream, {cut}, c.bound), c.lines) << c.stream.substr(0, 20) << " " << cut;
    }
  }
}

TEST(TextLineReads, PlaceBeforeTheKeptBytesIsLost) {
  kest_test::InstallHooks();
  oru::FlowBuffer flow;
  const char bytes[] = "USER x\r\n";
  flow.AddBlock(100, bytes, 8, false);
  flow.m_last_start = 100;
  flow.m_next_pos = 108;
  TextLine line;
  uint64_t pos = 50;
  EXPECT_EQ(kest_decoders::ReadLine(flow, pos, 100, line), kest_decoders::LINE_LOST);
  pos = 100;
  EXPECT_EQ(kest_decoders::ReadLine(flow, pos, 100, line), kest_decoders::LINE_READY);
  EXPECT_EQ(pos, 108u);
  flow.Reset();
}

} // namespace
