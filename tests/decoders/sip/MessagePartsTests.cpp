// The pure parts of the message decoders: the first-line judgement of each
// dialect on the rows of firstlines.txt (whole, cut at every byte, a byte at
// a time, and every beginning of a line undecided or already what the whole
// is), and the SDP and Transport readers on a table of bodies.
#include "LeakCheck.h"
#include "WebTestSupport.h"
#include "tests/decoders/DataRows.h"

#include "message/Media.h"
#include "message/MessageLine.h"

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
// same way with the decoder's methods, so a connection named HTTP is read.
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
    unsigned long long pos = 0;
    ASSERT_TRUE(line.Parse(fed.flow, pos, true)) << row.text;
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

TEST(Media, SdpBodies) {
  const struct {
    std::string body;
    std::string expected;
  } rows[] = {
      {"v=0\r\no=- 1 1 IN IP4 10.0.0.1\r\nc=IN IP4 10.0.0.1\r\nt=0 0\r\n"
       "m=audio 49170 RTP/AVP 0 8\r\n",
       "10.0.0.1:49170"},
      // A media-level address wins; a second stream takes the session's.
      {"c=IN IP4 192.0.2.1\nm=audio 5004 RTP/AVP 0\nc=IN IP4 192.0.2.9/127\n"
       "m=video 5006/2 RTP/SAVPF 96\n",
       "192.0.2.9:5004 192.0.2.1:5006"},
      {"c=IN IP6 2001:db8::1\r\nm=audio 7078 RTP/AVP 0\r\nc=IN IP6 ff15::101/3\r\n",
       "ff15::101:7078"},
      // Not RTP, turned off, no address, a damaged address, damaged lines.
      {"c=IN IP4 10.0.0.1\r\nm=image 12345 udptl t38\r\nm=audio 0 RTP/AVP 0\r\n", ""},
      {"m=audio 7078 RTP/AVP 0\r\n", "-:7078"},
      {"c=IN IP6 2001:db8::1::2\r\nm=audio 7078 RTP/AVP 0\r\n", "-:7078"},
      {"c=IN IP4 10.0.0.256\r\nm=audio 99999 RTP/AVP 0\r\nm=audio x RTP/AVP\r\nm=", ""},
  };
  for (const auto &row : rows) {
    kest_message::MediaList media;
    kest_message::ParseSdp(row.body.data(), row.body.size(), media);
    EXPECT_EQ(Show(media), row.expected) << row.body;
  }
}

TEST(Media, TransportHeaders) {
  const oru::IpAddr client = oru::IpAddr::FromV4(0x0a000001);
  const oru::IpAddr server = oru::IpAddr::FromV4(0x0a000002);
  const struct {
    std::string value;
    std::string expected;
  } rows[] = {
      {"RTP/AVP;unicast;client_port=4588-4589;server_port=6256-6257",
       "10.0.0.1:4588 10.0.0.2:6256"},
      {"RTP/AVP;unicast;client_port=4588-4589", "10.0.0.1:4588"},
      {"RTP/AVP;multicast;destination=224.2.0.1;client_port=3456-3457, RTP/AVP/TCP;interleaved=0-1",
       "224.2.0.1:3456"},
      {"RTP/AVP/TCP;unicast;interleaved=0-1", ""},
      {"RTP/AVP;client_port=70000-70001;server_port=;source=1.2.3", ""},
  };
  for (const auto &row : rows) {
    kest_message::MediaList media;
    kest_message::ParseTransport(row.value.data(), row.value.size(), client, server, media);
    EXPECT_EQ(Show(media), row.expected) << row.value;
  }
}

TEST(Media, RtpJudgement) {
  const uint8_t rtp[12] = {0x80, 0x00, 0x12, 0x34, 0, 0, 0, 1, 0xde, 0xad, 0xbe, 0xef};
  const uint8_t rtcp[8] = {0x80, 200, 0x00, 0x01, 0xde, 0xad, 0xbe, 0xef};
  const uint8_t old[12] = {0x40, 0x00, 0x12, 0x34, 0, 0, 0, 1, 0xde, 0xad, 0xbe, 0xef};
  const uint8_t csrc[12] = {0x83, 0x00, 0x12, 0x34, 0, 0, 0, 1, 0xde, 0xad, 0xbe, 0xef};
  EXPECT_EQ(kest_message::MediaInspector::Judge(rtp, sizeof rtp), 1);
  EXPECT_EQ(kest_message::MediaInspector::Judge(rtcp, sizeof rtcp), 2);
  EXPECT_EQ(kest_message::MediaInspector::Judge(rtcp, 7), 0);
  EXPECT_EQ(kest_message::MediaInspector::Judge(old, sizeof old), 0);
  EXPECT_EQ(kest_message::MediaInspector::Judge(csrc, sizeof csrc), 0);
  EXPECT_EQ(kest_message::MediaInspector::Judge(rtp, 11), 0);
}

} // namespace
