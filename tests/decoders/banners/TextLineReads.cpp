// Lines read from a side's stream as a pure function of its blocks: the
// same lines wherever the stream is cut into blocks, long lines cut to the
// buffer but read whole, and a line without LF beyond the bound refused; and
// the end points FTP lines announce.
#include "decoders/ftp/FtpAnnounce.h"
#include "tests/support/TestHooks.h"
#include <kest/kit/TextLine.h>

#include <fstream>
#include <gtest/gtest.h>
#include <stdio.h>
#include <string.h>
#include <string>
#include <vector>

namespace {

using oru::kit::LineRead;
using oru::kit::TextLine;

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
    const LineRead read = oru::kit::ReadLine(flow, pos, bound, line);
    if (read != oru::kit::LINE_READY) {
      out.push_back(read == oru::kit::LINE_WAIT ? "<wait>" : "<overlong>");
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
  EXPECT_EQ(oru::kit::ReadLine(flow, pos, 100, line), oru::kit::LINE_LOST);
  pos = 100;
  EXPECT_EQ(oru::kit::ReadLine(flow, pos, 100, line), oru::kit::LINE_READY);
  EXPECT_EQ(pos, 108u);
  flow.Reset();
}

// The end points FTP lines announce, on the rows of announcements.txt.
TEST(FtpAnnouncements, EachLineItsEndPoint) {
  std::ifstream in(KEST_TEST_FTP_ANNOUNCEMENTS);
  std::string row;
  int rows = 0;
  while (std::getline(in, row)) {
    if (row.empty() || row[0] == '#') {
      continue;
    }
    ++rows;
    const size_t a = row.find(' '), b = row.find(' ', a + 1);
    const std::string line = row.substr(b + 1);
    kest_decoders::FtpEndpoint got{};
    const uint32_t n = static_cast<uint32_t>(line.size());
    const bool found = row.substr(0, a) == "client"
                           ? kest_decoders::ClientAnnounce(line.data(), n, got)
                           : kest_decoders::ServerAnnounce(line.data(), n, got);
    char text[96] = "-";
    uint8_t v[16];
    got.addr.ToV6(v);
    if (found && got.addr.is_zero()) {
      snprintf(text, sizeof text, "*:%u", got.port);
    } else if (found && got.addr.is_v4()) {
      snprintf(text, sizeof text, "v4/%x:%u", got.addr.v4(), got.port);
    } else if (found) {
      snprintf(text, sizeof text, "v6/%x:%x:%x:%x:%x:%x:%x:%x:%u", v[0] << 8 | v[1],
               v[2] << 8 | v[3], v[4] << 8 | v[5], v[6] << 8 | v[7], v[8] << 8 | v[9],
               v[10] << 8 | v[11], v[12] << 8 | v[13], v[14] << 8 | v[15], got.port);
    }
    EXPECT_EQ(text, row.substr(a + 1, b - a - 1)) << line;
  }
  EXPECT_GT(rows, 20);
}

} // namespace
