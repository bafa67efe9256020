// The pure parts of the message decoder: the first-line judgement of each
// dialect on a table of lines (every proper beginning of a decided line is
// undecided, and the same bytes in two blocks cut anywhere judge the same),
// and the SDP and Transport readers on a table of bodies.
#include "LeakCheck.h"
#include "WebTestSupport.h"

#include "message/Media.h"
#include "message/MessageLine.h"

#include <arpa/inet.h>
#include <string>
#include <vector>

namespace {

using kest_message::FirstLine;

struct LineRow {
  const kest_message::Dialect *dialect;
  std::string text;
  FirstLine expected;
};

FirstLine Judge(const kest_message::Dialect &d, const std::string &a, const std::string &b = "") {
  kest_test::FedFlow fed;
  fed.Feed(a);
  fed.Feed(b);
  return kest_message::SniffFirstLine(fed.flow, 0, fed.flow.End(), d);
}

const std::vector<LineRow> &Lines() {
  using kest_message::kRtsp;
  using kest_message::kSip;
  using kest_message::kSsdp;
  static const std::vector<LineRow> rows = {
      {&kSip, "INVITE sip:bob@biloxi.example.com SIP/2.0\r\n", FirstLine::kRequest},
      {&kSip, "\r\nREGISTER sip:registrar.example SIP/2.0\r\nVia: x\r\n", FirstLine::kRequest},
      {&kSip, "ACK sip:b@c SIP/2.0\n", FirstLine::kRequest},
      {&kSip, "SIP/2.0 180 Ringing\r\n", FirstLine::kResponse},
      {&kSip, "SIP/2.0 200 \r\n", FirstLine::kResponse},
      {&kRtsp, "OPTIONS rtsp://cam.example/stream RTSP/1.0\r\n", FirstLine::kRequest},
      {&kRtsp, "PLAY_NOTIFY rtsp://a/b RTSP/2.0\r\n", FirstLine::kRequest},
      {&kRtsp, "PLAY rtsp://a/b RTSP/1.0\r\n", FirstLine::kRequest},
      {&kRtsp, "RTSP/1.0 200 OK\r\n", FirstLine::kResponse},
      {&kSsdp, "M-SEARCH * HTTP/1.1\r\n", FirstLine::kRequest},
      {&kSsdp, "NOTIFY * HTTP/1.1\r\n", FirstLine::kRequest},
      {&kSsdp, "HTTP/1.1 200 OK\r\n", FirstLine::kResponse},
      {&kSip, "INVITE sip:a@b SIP/2.0", FirstLine::kNeedMore},
      {&kSip, "SIP/2", FirstLine::kNeedMore},
      // Near misses.
      {&kSip, "INVITE sip:a@b SIP/3.0\r\n", FirstLine::kNo},
      {&kSip, "invite sip:a@b SIP/2.0\r\n", FirstLine::kNo},
      {&kSip, "HELLO sip:a@b SIP/2.0\r\n", FirstLine::kNo},
      {&kSip, "SIP/2.0 20 OK\r\n", FirstLine::kNo},
      {&kSip, "GET / HTTP/1.1\r\n", FirstLine::kNo},
      {&kSip, "INVITE  sip:a@b SIP/2.0\r\n", FirstLine::kNo},
      {&kRtsp, "OPTIONS rtsp://a RTSP/1.1\r\n", FirstLine::kNo},
      {&kRtsp, "HTTP/1.1 200 OK\r\n", FirstLine::kNo},
      {&kSsdp, "M-SEARCH /x HTTP/1.1\r\n", FirstLine::kNo},
      {&kSsdp, "GET / HTTP/1.1\r\n", FirstLine::kNo},
      {&kSsdp, "NOTIFY * HTTP/2.0\r\n", FirstLine::kNo},
      {&kSsdp, std::string(5000, '\n'), FirstLine::kNo},
  };
  return rows;
}

class MessageLine : public kest_test::LeakCheck {};

TEST_F(MessageLine, TableCutAnywhereAndEveryBeginning) {
  for (const LineRow &row : Lines()) {
    EXPECT_EQ(Judge(*row.dialect, row.text), row.expected) << row.text;
    // The long row is about the bound alone.
    for (size_t cut = 1; cut < row.text.size() && row.text.size() < 256; ++cut) {
      EXPECT_EQ(Judge(*row.dialect, row.text.substr(0, cut), row.text.substr(cut)), row.expected)
          << row.text << " cut at " << cut;
    }
    if (row.expected == FirstLine::kRequest || row.expected == FirstLine::kResponse) {
      // Up to its line end, a decided line was only ever a beginning.
      const size_t nl = row.text.find('\n');
      for (size_t k = 0; k < nl; ++k) {
        EXPECT_EQ(Judge(*row.dialect, row.text.substr(0, k)), FirstLine::kNeedMore)
            << row.text << " first " << k;
      }
    }
  }
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
