// SIP, RTSP and SSDP through their packed plug-ins: each conversation, a
// list of (side, bytes) steps on a fresh TCP connection or UDP flow, must
// end with the expected stack and attributes (values of one name joined by
// ","). Side 0 is the client. Near misses end as the transport alone. TCP
// conversations cut in two at every byte of every step must end the same.
// Then an INVITE whose SDP announces a port, and datagrams to it.
#include "tests/support/LeakCheck.h"
#include "tests/support/PluginFolder.h"

#include <arpa/inet.h>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace {

using Steps = std::vector<std::pair<int, std::string>>;
using Attrs = std::map<std::string, std::string>;

const char *const kNames[] = {"sip.request.method",      "sip.request.uri",
                              "sip.request.header.from", "sip.response.code",
                              "sip.request.body",        "rtsp.request.method",
                              "rtsp.response.code",      "ssdp.request.method",
                              "ssdp.request.header.st",  "ssdp.response.header.usn"};

struct Conversation {
  const char *what;
  uint8_t ip_protocol;
  uint16_t port;
  Steps steps;
  const char *stack;
  Attrs attrs;
};

const std::string kSdp = "v=0\r\no=- 1 1 IN IP4 10.0.0.1\r\ns=-\r\nc=IN IP4 10.0.0.1\r\n"
                         "t=0 0\r\nm=audio 49170 RTP/AVP 0\r\n";

std::string Invite(const std::string &extra) {
  return "INVITE sip:bob@example.com SIP/2.0\r\nVia: SIP/2.0/UDP 10.0.0.1\r\n"
         "From: <sip:alice@example.com>;tag=1\r\nTo: <sip:bob@example.com>\r\n"
         "Call-ID: a1\r\nCSeq: 1 INVITE\r\n" +
         extra;
}

const std::string kInviteSdp =
    Invite("Content-Type: application/sdp\r\nContent-Length: " + std::to_string(kSdp.size()) +
           "\r\n\r\n" + kSdp);

const std::vector<Conversation> &Table() {
  static const std::vector<Conversation> table = {
      {"sip over udp, call set up",
       17,
       5060,
       {{0, Invite("Content-Length: 0\r\n\r\n")},
        {1, "SIP/2.0 100 Trying\r\nCSeq: 1 INVITE\r\n\r\n"},
        {1, "SIP/2.0 200 OK\r\nCSeq: 1 INVITE\r\nContent-Length: 0\r\n\r\n"},
        {0, "ACK sip:bob@example.com SIP/2.0\r\nCSeq: 1 ACK\r\n\r\n"}},
       "UDP/SIP",
       {{"sip.request.method", "INVITE,ACK"},
        {"sip.request.uri", "sip:bob@example.com,sip:bob@example.com"},
        {"sip.request.header.from", "<sip:alice@example.com>;tag=1"},
        {"sip.response.code", "100,200"}}},
      {"sip over udp on another port, body without a length, answer first",
       17,
       40000,
       {{1, "SIP/2.0 200 OK\r\nl: 0\r\n\r\n"}, {0, Invite("\r\nhello")}},
       "UDP/SIP",
       {{"sip.request.method", "INVITE"},
        {"sip.request.uri", "sip:bob@example.com"},
        {"sip.request.header.from", "<sip:alice@example.com>;tag=1"},
        {"sip.response.code", "200"},
        {"sip.request.body", "hello"}}},
      {"sip over tcp with a body",
       6,
       5080,
       {{0, kInviteSdp}, {1, "SIP/2.0 486 Busy Here\r\nContent-Length: 0\r\n\r\n"}},
       "TCP/SIP",
       {{"sip.request.method", "INVITE"},
        {"sip.request.uri", "sip:bob@example.com"},
        {"sip.request.header.from", "<sip:alice@example.com>;tag=1"},
        {"sip.response.code", "486"},
        {"sip.request.body", kSdp}}},
      {"rtsp setup",
       6,
       8554,
       {{0, "OPTIONS rtsp://cam.example/live RTSP/1.0\r\nCSeq: 1\r\n\r\n"},
        {1, "RTSP/1.0 200 OK\r\nCSeq: 1\r\nPublic: DESCRIBE, SETUP\r\n\r\n"},
        {0, "SETUP rtsp://cam.example/live/track1 RTSP/1.0\r\nCSeq: 2\r\n"
            "Transport: RTP/AVP;unicast;client_port=4588-4589\r\n\r\n"},
        {1, "RTSP/1.0 200 OK\r\nCSeq: 2\r\n"
            "Transport: RTP/AVP;unicast;client_port=4588-4589;server_port=6256-6257\r\n\r\n"}},
       "TCP/RTSP",
       {{"rtsp.request.method", "OPTIONS,SETUP"}, {"rtsp.response.code", "200,200"}}},
      {"rtsp answer alone",
       6,
       9000,
       {{1, "RTSP/1.0 200 OK\r\nCSeq: 3\r\nContent-Length: 4\r\n\r\nv=0\n"}},
       "TCP/RTSP",
       {{"rtsp.response.code", "200"}}},
      {"ssdp search and answer",
       17,
       1900,
       {{0, "M-SEARCH * HTTP/1.1\r\nHOST: 239.255.255.250:1900\r\nMAN: \"ssdp:discover\"\r\n"
            "MX: 1\r\nST: ssdp:all\r\n\r\n"},
        {1, "HTTP/1.1 200 OK\r\nST: upnp:rootdevice\r\nUSN: uuid:1::upnp:rootdevice\r\n\r\n"}},
       "UDP/SSDP",
       {{"ssdp.request.method", "M-SEARCH"},
        {"ssdp.request.header.st", "ssdp:all"},
        {"ssdp.response.header.usn", "uuid:1::upnp:rootdevice"}}},
      {"ssdp answer alone",
       17,
       50000,
       {{1, "HTTP/1.1 200 OK\r\nCACHE-CONTROL: max-age=100\r\nUSN: uuid:2\r\n\r\n"}},
       "UDP/SSDP",
       {{"ssdp.response.header.usn", "uuid:2"}}},
      {"ssdp notify",
       17,
       1900,
       {{0, "NOTIFY * HTTP/1.1\r\nNTS: ssdp:alive\r\n\r\n"}},
       "UDP/SSDP",
       {{"ssdp.request.method", "NOTIFY"}}},
      // Near misses.
      {"http over udp, no search headers", 17, 1900, {{1, "HTTP/1.1 200 OK\r\n\r\n"}}, "UDP", {}},
      {"ssdp words with a path", 17, 1900, {{0, "M-SEARCH /x HTTP/1.1\r\n\r\n"}}, "UDP", {}},
      {"sip version 3", 17, 5060, {{0, "INVITE sip:a@b SIP/3.0\r\n\r\n"}}, "UDP", {}},
      {"sip method unknown", 6, 5060, {{0, "HELLO sip:a@b SIP/2.0\r\n\r\n"}}, "TCP", {}},
      {"sip line cut in a datagram", 17, 5060, {{0, "INVITE sip:a@b SIP/2.0"}}, "UDP", {}},
      {"rtsp on udp is not ours", 17, 554, {{0, "OPTIONS rtsp://a RTSP/1.0\r\n\r\n"}}, "UDP", {}},
      {"http to sip ears", 6, 5060, {{0, "GET / HTTP/1.1\r\nHost: a\r\n\r\n"}}, "TCP", {}},
      {"binary", 17, 5060, {{0, std::string("\x80\x00\x01\x02\0\0\0\0abcd", 12)}}, "UDP", {}},
  };
  return table;
}

Attrs g_attrs;
std::map<int, std::string> g_keys;
std::map<int, bool> g_open;

int Listen(kest_handle_t, kest_conn_id_t, int key, int length, const void *value, int packed,
           void *) {
  std::string &v = g_attrs[g_keys[key]];
  if (!g_open[key] && !v.empty()) {
    v += ",";
  }
  v.append(static_cast<const char *>(value), static_cast<size_t>(length));
  g_open[key] = (packed & 1) != 0;
  return 0;
}

int Record(kest_handle_t h, kest_result_t *result, int, kest_conn_id_t, void *user, int) {
  std::string names;
  for (kest_proto_first(h, result); kest_proto_valid(h, result) != 0; kest_proto_next(h, result)) {
    char name[32];
    const char *got = kest_proto_get_name(h, kest_proto_get_index(h, result), name, sizeof name);
    names += (names.empty() ? "" : "/") + std::string(got != nullptr ? got : "?");
  }
  *static_cast<std::string *>(user) = names;
  return 0;
}

class MessageConversations : public kest_test::PluginFolderFixture {
protected:
  void SetUp() override {
    PluginFolderFixture::SetUp();
    h = kest_open(Folder({KEST_TEST_SIP_PLGS}).c_str());
    ASSERT_GT(h, 0);
    ASSERT_EQ(kest_config_set(h, "conn.default_policy.futureflows", "1"), 0);
    ASSERT_EQ(kest_init(h), 0);
    for (const char *name : kNames) {
      ASSERT_EQ(kest_attr_callback_set(h, name, Listen), 0) << name;
    }
    kest_idle(h);
    for (const char *name : kNames) {
      g_keys[kest_attr_key_get(h, name)] = name;
    }
  }
  void TearDown() override {
    EXPECT_EQ(kest_fini(h), 0);
    EXPECT_EQ(kest_close(h), 0);
    EXPECT_EQ(kest_test::LiveBlocks(kest_test::Heap::Local), 0);
    PluginFolderFixture::TearDown();
  }

  kest_conn_t Open(uint8_t ip_protocol, uint8_t client_last, uint16_t client_port,
                   uint8_t server_last, uint16_t server_port) {
    kest_endpoint_t client{KEST_FAMILY_IPV4, htons(client_port), {10, 0, 0, client_last}};
    kest_endpoint_t server{KEST_FAMILY_IPV4, htons(server_port), {10, 0, 0, server_last}};
    kest_conn_t conn = nullptr;
    EXPECT_EQ(kest_conn_create(h, &client, &server, ip_protocol, &conn), 0);
    return conn;
  }

  std::string Send(kest_conn_t conn, int side, const std::string &bytes) {
    std::string stack;
    kest_classify(h, KEST_SELECTOR_CONN, bytes.data(), static_cast<uint16_t>(bytes.size()), conn,
                  side, Record, &stack);
    return stack;
  }

  // Runs the steps on a new connection, each step cut before byte `cut`
  // (none when 0 or beyond it); the stack of the last result.
  std::string Run(const Conversation &c, size_t cut) {
    g_attrs.clear();
    g_open.clear();
    kest_conn_t conn = Open(c.ip_protocol, 1, 40000, 2, c.port);
    std::string stack;
    for (const auto &[side, bytes] : c.steps) {
      if (cut != 0 && cut < bytes.size()) {
        Send(conn, side, bytes.substr(0, cut));
        stack = Send(conn, side, bytes.substr(cut));
      } else {
        stack = Send(conn, side, bytes);
      }
    }
    EXPECT_EQ(kest_conn_destroy(h, conn), 0);
    return stack;
  }

  kest_handle_t h = -1;
};

TEST_F(MessageConversations, EachEndsWithItsStackAndAttributes) {
  for (const Conversation &c : Table()) {
    EXPECT_EQ(Run(c, 0), c.stack) << c.what;
    EXPECT_EQ(g_attrs, c.attrs) << c.what;
  }
}

TEST_F(MessageConversations, TcpTheSameWhereverTheStepsAreCut) {
  for (const Conversation &c : Table()) {
    if (c.ip_protocol != 6) {
      continue;
    }
    for (const auto &step : c.steps) {
      for (size_t cut = 1; cut < step.second.size(); ++cut) {
        EXPECT_EQ(Run(c, cut), c.stack) << c.what << " cut at " << cut;
        EXPECT_EQ(g_attrs, c.attrs) << c.what << " cut at " << cut;
      }
    }
  }
}

TEST_F(MessageConversations, SdpAnnouncesRtpAndRtcp) {
  const std::string rtp("\x80\x00\x00\x01\0\0\0\x10\x12\x34\x56\x78payload", 19);
  const std::string rtcp("\x80\xc8\x00\x01\x12\x34\x56\x78", 8);
  const std::string rtp_v1("\x40\x00\x00\x01\0\0\0\x10\x12\x34\x56\x78payload", 19);
  for (uint8_t ip_protocol : {uint8_t{17}, uint8_t{6}}) {
    // The INVITE's SDP says 10.0.0.1 takes audio on 49170; the call runs
    // on 5060 between 10.0.0.1 and 10.0.0.2.
    kest_conn_t sip = Open(ip_protocol, 1, 5060, 2, 5060);
    EXPECT_EQ(Send(sip, 0, kInviteSdp), ip_protocol == 17 ? "UDP/SIP" : "TCP/SIP");
    const struct {
      uint16_t to_port;
      uint8_t to_last;
      const std::string *bytes;
      const char *stack;
    } flows[] = {
        {49170, 1, &rtp, "UDP/RTP"}, {49171, 1, &rtcp, "UDP/RTCP"}, {49172, 1, &rtp, "UDP"},
        {49170, 3, &rtp, "UDP"},     {49170, 1, &rtp_v1, "UDP"},
    };
    uint16_t from_port = 30000;
    for (const auto &f : flows) {
      kest_conn_t media = Open(17, 2, from_port++, f.to_last, f.to_port);
      EXPECT_EQ(Send(media, 0, *f.bytes), f.stack)
          << int(ip_protocol) << " to port " << f.to_port << " of ." << int(f.to_last);
      EXPECT_EQ(kest_conn_destroy(h, media), 0);
    }
    EXPECT_EQ(kest_conn_destroy(h, sip), 0);
  }
}

} // namespace
