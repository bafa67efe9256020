// The pure parts of the message decoders: the first-line judgement of each
// dialect on the rows of firstlines.txt (whole, cut at every byte, a byte at
// a time, and every beginning of a line undecided or already what the whole
// is), and the SDP and Transport readers on a table of bodies.
#include "LeakCheck.h"
#include "WebTestSupport.h"
#include "tests/decoders/DataRows.h"

#include "message/Media.h"
#include "message/MessageLine.h"

#include <algorithm>
#include <arpa/inet.h>
#include <fstream>
#include <kest/WebLine.h>
#include <map>
#include <string.h>
#include <string>
#include <vector>

namespace {

using kest_message::FirstLine;
using kest_message::kHttp;

struct LineRow {
  const kest_message::Dialect *dialect;
  std::string text;
  FirstLine expected;
};

const std::vector<LineRow> &Lines() {
  static const std::vector<LineRow> rows = [] {
    const std::map<std::string, const kest_message::Dialect *> dialects = {
        {"http", &kHttp},
        {"sip", &kest_message::kSip},
        {"rtsp", &kest_message::kRtsp},
        {"ssdp", &kest_message::kSsdp}};
    const std::map<std::string, FirstLine> judgements = {{"request", FirstLine::kRequest},
                                                         {"response", FirstLine::kResponse},
                                                         {"need-more", FirstLine::kNeedMore},
                                                         {"no", FirstLine::kNo}};
    std::vector<LineRow> out;
    std::ifstream in(KEST_TEST_FIRST_LINES);
    std::string line;
    while (std::getline(in, line)) {
      if (line.empty() || line[0] == '#') {
        continue;
      }
      const size_t a = line.find(' '), b = line.find(' ', a + 1);
      out.push_back({dialects.at(line.substr(0, a)), kest_test::Unescape(line.substr(b + 1)),
                     judgements.at(line.substr(a + 1, b - a - 1))});
    }
    return out;
  }();
  return rows;
}

// The judgement of `text` fed in pieces that end at the given cuts.
FirstLine Judge(const kest_message::Dialect &d, const std::string &text,
                const std::vector<size_t> &cuts = {}) {
  kest_test::FedFlow fed;
  size_t from = 0;
  for (size_t cut : cuts) {
    fed.Feed(text.substr(from, cut - from));
    from = cut;
  }
  fed.Feed(text.substr(from));
  return kest_message::SniffFirstLine(fed.flow, 0, fed.flow.End(), d);
}

class MessageLine : public kest_test::LeakCheck {};

TEST_F(MessageLine, TableCutAnywhereAndEveryBeginning) {
  ASSERT_GT(Lines().size(), 50u);
  for (const LineRow &row : Lines()) {
    const kest_message::Dialect &d = *row.dialect;
    EXPECT_EQ(Judge(d, row.text), row.expected) << row.text;
    std::vector<size_t> every;
    for (size_t cut = 1; cut < row.text.size(); ++cut) {
      EXPECT_EQ(Judge(d, row.text, {cut}), row.expected) << row.text << " cut at " << cut;
      const FirstLine prefix = Judge(d, row.text.substr(0, cut));
      EXPECT_TRUE(prefix == FirstLine::kNeedMore || prefix == row.expected)
          << row.text << " first " << cut;
      every.push_back(cut);
    }
    EXPECT_EQ(Judge(d, row.text, every), row.expected) << row.text << " byte by byte";
    if (row.expected == FirstLine::kRequest || row.expected == FirstLine::kResponse) {
      // Up to its line end, a decided line was only ever a beginning.
      for (size_t k = 0; k < row.text.find('\n'); ++k) {
        EXPECT_EQ(Judge(d, row.text.substr(0, k)), FirstLine::kNeedMore)
            << row.text << " first " << k;
      }
    }
  }
}

// What the judgement decides, the message inspector's line reader reads the
// same way with the decoder's methods, so a connection named HTTP is read;
// a loose request line, the HTTP decoder reads before it, as a request
// ending with the line.
TEST_F(MessageLine, HttpAgreesWithTheLineReader) {
  oru::WebMethodTable methods;
  for (size_t i = 0; i < kHttp.method_count; ++i) {
    ASSERT_TRUE(methods.push_back(oru::WebMethod{kHttp.methods[i].text, kHttp.methods[i].length}));
  }
  for (const LineRow &row : Lines()) {
    if (row.dialect != &kHttp ||
        (row.expected != FirstLine::kRequest && row.expected != FirstLine::kResponse)) {
      continue;
    }
    kest_test::FedFlow fed;
    fed.Feed(row.text);
    oru::WebLine line(&methods, "HTTP");
    uint64_t next = 0;
    if (kest_message::ReadLooseRequest(fed.flow, 0, kHttp, methods, line, next) ==
        oru::kit::Match::kYes) {
      EXPECT_EQ(next, row.text.find('\n') + 1) << row.text;
    } else {
      unsigned long long pos = 0;
      ASSERT_TRUE(line.Parse(fed.flow, pos, true)) << row.text;
    }
    EXPECT_EQ(line.m_type, row.expected == FirstLine::kRequest ? oru::WebLine::LINE_REQUEST
                                                               : oru::WebLine::LINE_RESPONSE)
        << row.text;
  }
  methods.clear();
}

// The line reader stops at the first method a token begins with: no method
// may begin another.
TEST_F(MessageLine, NoHttpMethodBeginsAnother) {
  for (size_t i = 0; i < kHttp.method_count; ++i) {
    const kest_message::Word &a = kHttp.methods[i];
    EXPECT_EQ(strlen(a.text), a.length) << a.text;
    for (size_t j = 0; j < kHttp.method_count; ++j) {
      const kest_message::Word &b = kHttp.methods[j];
      if (i != j && a.length <= b.length) {
        EXPECT_NE(strncmp(a.text, b.text, a.length), 0) << a.text << " begins " << b.text;
      }
    }
  }
}

// A line is waited for up to the limit, blank lines before it included.
TEST_F(MessageLine, BoundedWait) {
  const std::string head = "GET /";
  const std::string tail = " HTTP/1.1\r\n";
  const size_t room = kHttp.max_first_line - head.size() - tail.size();
  EXPECT_EQ(Judge(kHttp, head + std::string(room, 'a') + tail), FirstLine::kRequest);
  EXPECT_EQ(Judge(kHttp, head + std::string(room + 1, 'a') + tail), FirstLine::kNo);
  EXPECT_EQ(Judge(kHttp, head + std::string(room + 100, 'a')), FirstLine::kNo);
  EXPECT_EQ(Judge(kHttp, std::string(kHttp.max_first_line, '\n')), FirstLine::kNo);
  EXPECT_EQ(Judge(kHttp, std::string(kHttp.max_first_line - 1, '\n')), FirstLine::kNeedMore);
  EXPECT_EQ(Judge(kest_message::kSsdp, std::string(5000, '\n')), FirstLine::kNo);
}

std::string Show(const kest_message::MediaList &media) {
  std::string out;
  for (size_t i = 0; i < media.count; ++i) {
    const kest_message::MediaPort &m = media.items[i];
    char addr[INET6_ADDRSTRLEN] = "-";
    if (m.addr.is_v4()) {
      const uint32_t v = htonl(m.addr.v4());
      inet_ntop(AF_INET, &v, addr, sizeof addr);
    } else if (!m.addr.is_zero()) {
      uint8_t bytes[16];
      m.addr.ToV6(bytes);
      inet_ntop(AF_INET6, bytes, addr, sizeof addr);
    }
    out += (out.empty() ? "" : " ") + std::string(addr) + ":" + std::to_string(m.port);
  }
  return out;
}

TEST(Media, Rows) {
  std::ifstream in(KEST_TEST_MEDIA);
  std::string row;
  int rows = 0;
  while (std::getline(in, row)) {
    rows += row.empty() || row[0] == '#' ? 0 : 1;
    const size_t a = row.find(' '), b = row.find(' ', a + 1);
    const std::string kind = row.substr(0, a), bytes = kest_test::Unescape(row.substr(b + 1));
    std::string want = row.substr(a + 1, b - a - 1);
    std::replace(want.begin(), want.end(), ',', ' ');
    kest_message::MediaList media;
    if (kind == "sdp") {
      kest_message::ParseSdp(bytes.data(), bytes.size(), media);
    } else if (kind == "transport") {
      kest_message::ParseTransport(bytes.data(), bytes.size(), oru::IpAddr::FromV4(0x0a000001),
                                   oru::IpAddr::FromV4(0x0a000002), media);
    } else if (kind == "rtp") {
      const kest_test::Bytes datagram = kest_test::HexBytes(bytes);
      EXPECT_EQ(kest_message::MediaInspector::Judge(datagram.data(), datagram.size()),
                std::stoi(want))
          << bytes;
      continue;
    } else {
      continue;
    }
    EXPECT_EQ(Show(media), want == "-" ? "" : want) << bytes;
  }
  EXPECT_EQ(rows, 18);
}

} // namespace
