// Lines read from a side's stream as a pure function of its blocks: the
// same lines wherever the stream is cut into blocks, long lines cut to the
// buffer but read whole, and a line without LF beyond the bound refused.
#include "decoders/ftp/FtpAnnounce.h"
#include "tests/support/TestHooks.h"
#include <kest/kit/TextLine.h>

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

// The end points FTP lines announce, with "" for lines that announce none
// and "*" for an address the sender's own stands in for.
TEST(FtpAnnouncements, EachLineItsEndPoint) {
  const struct {
    bool client;
    const char *line;
    const char *want;
  } cases[] = {
      {true, "PORT 192,168,1,212,195,254", "v4 c0a801d4:50174"},
      {true, "port  10,0,0,1,0,21", "v4 a000001:21"},
      {true, "EPRT |1|132.235.1.2|6275|", "v4 84eb0102:6275"},
      {true, "EPRT !2!1080::8:800:200C:417A!5282!", "v6 1080:0:0:0:8:800:200c:417a:5282"},
      {true, "EPRT |2|::1:0:0:1|21|", "v6 0:0:0:0:1:0:0:1:21"},
      {true, "EPRT |2|fe80::|21|", "v6 fe80:0:0:0:0:0:0:0:21"},
      {false, "227 Entering Passive Mode (90,130,70,73,100,85).", "v4 5a824649:25685"},
      {false, "227 Entering Passive Mode 90,130,70,73,100,85", "v4 5a824649:25685"},
      {false, "229 Entering Extended Passive Mode (|||6446|)", "*:6446"},
      // Not announcements, or damaged ones.
      {true, "PORT 192,168,1,256,1,1", ""},
      {true, "PORT 1,2,3,4,0,0", ""},
      {true, "PORT 1,2,3,4,5", ""},
      {true, "PORTS 1,2,3,4,5,6", ""},
      {true, "EPRT |1|1.2.3|6275|", ""},
      {true, "EPRT |3|1.2.3.4|6275|", ""},
      {true, "EPRT |2|1::2::3|21|", ""},
      {true, "EPRT |2|1:2:3:4:5:6:7:8:9|21|", ""},
      {true, "EPRT |2|12345::|21|", ""},
      {true, "EPRT |1|1.2.3.4|70000|", ""},
      {true, "EPRT |1|1.2.3.4|21", ""},
      {false, "227-Entering Passive Mode (90,130,70,73,100,85)", ""},
      {false, "229 Entering Extended Passive Mode (|1|1.2.3.4|6446|)", ""},
      {false, "229 Entering Extended Passive Mode (|||0|)", ""},
      {false, "200 PORT command successful", ""},
  };
  for (const auto &c : cases) {
    kest_decoders::FtpEndpoint got{};
    const uint32_t n = static_cast<uint32_t>(strlen(c.line));
    const bool found = c.client ? kest_decoders::ClientAnnounce(c.line, n, got)
                                : kest_decoders::ServerAnnounce(c.line, n, got);
    std::string text;
    if (found) {
      char buffer[96];
      uint8_t b[16];
      got.addr.ToV6(b);
      if (got.addr.is_zero()) {
        snprintf(buffer, sizeof buffer, "*");
      } else if (got.addr.is_v4()) {
        snprintf(buffer, sizeof buffer, "v4 %x", got.addr.v4());
      } else {
        snprintf(buffer, sizeof buffer, "v6 %x:%x:%x:%x:%x:%x:%x:%x", b[0] << 8 | b[1],
                 b[2] << 8 | b[3], b[4] << 8 | b[5], b[6] << 8 | b[7], b[8] << 8 | b[9],
                 b[10] << 8 | b[11], b[12] << 8 | b[13], b[14] << 8 | b[15]);
      }
      text = std::string(buffer) + ":" + std::to_string(got.port);
    }
    EXPECT_EQ(text, c.want) << c.line;
  }
}

} // namespace
