// SSH, SMTP, POP3, IMAP and FTP together through their packed plug-ins:
// each conversation, a list of (side, bytes) steps on a fresh connection,
// must end with the expected application and attributes. Side 0 is the
// client (the connection's first end point). Near misses end as TCP alone.
// The same conversations with every step cut in two at one byte, for every
// byte, must end the same: lines are read from the reassembled stream.
// With the TLS decoder beside them, a STARTTLS (or its kin) that the server
// accepts hands the rest to it when the chameleon policy allows.
#include "tests/support/LeakCheck.h"
#include "tests/support/PluginFolder.h"

#ifdef KEST_TEST_TLS_BESIDE
#include "tests/decoders/tls/HelloSamples.h"
#endif

#include <arpa/inet.h>
#include <map>
#include <string.h>
#include <string>
#include <utility>
#include <vector>

namespace {

using Steps = std::vector<std::pair<int, std::string>>;
using Attrs = std::map<std::string, std::string>;

const char *const kNames[] = {"ssh.client_banner", "ssh.server_banner", "smtp.helo",
                              "smtp.mail_from",    "ftp.user",
#ifdef KEST_TEST_TLS_BESIDE
                              "tls.server_name",   "tls.version"
#endif
};

struct Conversation {
  const char *what;
  uint16_t port;
  Steps steps;
  const char *app;
  Attrs attrs;
  // The connection's policy lets it change protocol.
  bool chameleon = true;
};

const std::string kClientSsh = "SSH-2.0-OpenSSH_9.6p1 Debian-4\r\n";
const std::string kServerSsh = "SSH-2.0-dropbear_2022.83\r\n";

#ifdef KEST_TEST_TLS_BESIDE
// A handshake message in one TLS record.
std::string TlsRecord(const char *hex) {
  std::string message;
  for (size_t i = 0; hex[i] != '\0' && hex[i + 1] != '\0'; i += 2) {
    message.push_back(static_cast<char>(std::stoi(std::string(hex + i, 2), nullptr, 16)));
  }
  const size_t n = message.size();
  return std::string("\x16\x03\x01", 3) + static_cast<char>(n >> 8) + static_cast<char>(n & 0xff) +
         message;
}

const std::string kClientHello = TlsRecord(tls_samples::kCurlClientHello);
const std::string kServerHello = TlsRecord(tls_samples::kServerHello12);
const Attrs kTlsAttrs = {{"tls.server_name", "www.ntop.org"}, {"tls.version", "1.2"}};

Attrs With(Attrs attrs, const Attrs &more) {
  attrs.insert(more.begin(), more.end());
  return attrs;
}
#endif

const std::vector<Conversation> &Table() {
  static const std::vector<Conversation> table = {
      {"ssh server first",
       2222,
       {{1, kServerSsh}, {0, kClientSsh}, {1, std::string("\0\0\x01\x0c\x0a\x14", 6)}},
       "SSH",
       {{"ssh.client_banner", "SSH-2.0-OpenSSH_9.6p1 Debian-4"},
        {"ssh.server_banner", "SSH-2.0-dropbear_2022.83"}}},
      {"ssh client alone, binary behind the line",
       22,
       {{0, kClientSsh + std::string("\0\0\x05\xdc\x04\x14", 6)}},
       "SSH",
       {{"ssh.client_banner", "SSH-2.0-OpenSSH_9.6p1 Debian-4"}}},
      {"ssh 1.99 server, LF only",
       80,
       {{1, "SSH-1.99-OpenSSH_3.9p1\n"}},
       "SSH",
       {{"ssh.server_banner", "SSH-1.99-OpenSSH_3.9p1"}}},
      {"ssh unknown version", 22, {{1, "SSH-3.0-future\r\n"}}, "TCP", {}},
      {"ssh empty software", 22, {{1, "SSH-2.0-\r\n"}, {0, kClientSsh}}, "TCP", {}},
      {"smtp greeting names esmtp",
       2525,
       {{1, "220 mx.example.org ESMTP Postfix\r\n"},
        {0, "EHLO client.example.net\r\n"},
        {1, "250-mx.example.org\r\n250-PIPELINING\r\n250 8BITMIME\r\n"},
        {0, "MAIL FROM:<alice@example.net> SIZE=100\r\n"},
        {1, "250 2.1.0 Ok\r\n"}},
       "SMTP",
       {{"smtp.helo", "client.example.net"}, {"smtp.mail_from", "alice@example.net"}}},
      {"smtp plain greeting, helo answered",
       25,
       {{1, "220 mail ready\r\n"}, {0, "HELO box\r\n"}, {1, "250 hi box\r\n"}},
       "SMTP",
       {{"smtp.helo", "box"}}},
      {"smtp client alone",
       9999,
       {{0, "ehlo [10.0.0.1]\r\n"}, {0, "mail from: <>\r\n"}},
       "SMTP",
       {{"smtp.helo", "[10.0.0.1]"}, {"smtp.mail_from", ""}}},
      {"ftp login",
       2121,
       {{1, "220 Service ready\r\n"},
        {0, "USER anonymous\r\n"},
        {1, "331 Password required.\r\n"},
        {0, "PASS guest\r\n"}},
       "FTP",
       {{"ftp.user", "anonymous"}}},
      {"ftp greeting names ftp, multi-line",
       21,
       {{1, "220-Welcome\r\n to the archive\r\n220 ProFTPD Server\r\n"}},
       "FTP",
       {}},
      {"ftp feat answered in many lines",
       21,
       {{1, "220 hello\r\n"},
        {0, "FEAT\r\n"},
        {1, "211-Features:\r\n EPSV\r\n211 End\r\n"},
        {0, "USER bob\r\n"}},
       "FTP",
       {{"ftp.user", "bob"}}},
      {"220 then an unknown command",
       21,
       {{1, "220 ok\r\n"}, {0, "HELLO there\r\n"}, {1, "500 what\r\n"}},
       "TCP",
       {}},
      {"220 then smtp words to ftp ears", 21, {{1, "220 ok\r\n"}, {0, "FOO bar\r\n"}}, "TCP", {}},
      {"pop3 login",
       1100,
       {{1, "+OK ready <1896.697170952@dbc.mtview.ca.us>\r\n"},
        {0, "USER mrose\r\n"},
        {1, "+OK\r\n"}},
       "POP3",
       {}},
      {"pop3 greeting names pop", 110, {{1, "+OK POP3 server ready\r\n"}}, "POP3", {}},
      {"pop3 capa list",
       110,
       {{1, "+OK hi\r\n"}, {0, "CAPA\r\n"}, {1, "+OK\r\nTOP\r\nUIDL\r\n.\r\n"}},
       "POP3",
       {}},
      {"+OK from another service",
       110,
       {{1, "+OK hello\r\n"}, {0, "PING\r\n"}, {1, "+OK pong\r\n"}},
       "TCP",
       {}},
      {"+OK and quit only",
       7000,
       {{1, "+OK hello\r\n"}, {0, "QUIT\r\n"}, {1, "+OK bye\r\n"}},
       "TCP",
       {}},
      {"imap greeting names imap",
       143,
       {{1, "* OK [CAPABILITY IMAP4rev1 STARTTLS] Dovecot ready.\r\n"}},
       "IMAP",
       {}},
      {"imap greeting then login",
       1430,
       {{1, "* OK ready\r\n"}, {0, "a001 LOGIN bob secret\r\n"}},
       "IMAP",
       {}},
      {"imap client alone", 5000, {{0, "A1 CAPABILITY\r\n"}, {0, "A2 LOGOUT\r\n"}}, "IMAP", {}},
      {"imap-like words, not imap", 5000, {{0, "bob login\r\n"}}, "TCP", {}},
      {"http",
       8080,
       {{0, "GET / HTTP/1.1\r\nHost: a\r\n\r\n"}, {1, "HTTP/1.1 200 OK\r\n\r\n"}},
       nullptr,
       {}},
      {"binary", 443, {{0, std::string("\x16\x03\x01\x00\x05hello", 10)}}, nullptr, {}},
#ifdef KEST_TEST_TLS_BESIDE
      {"smtp starttls",
       25,
       {{1, "220 mx.example.org ESMTP\r\n"},
        {0, "EHLO client.example.net\r\n"},
        {1, "250-mx.example.org\r\n250 STARTTLS\r\n"},
        {0, "STARTTLS\r\n"},
        {1, "220 2.0.0 Ready to start TLS\r\n"},
        {0, kClientHello},
        {1, kServerHello}},
       "SMTP/TLS",
       With({{"smtp.helo", "client.example.net"}}, kTlsAttrs)},
      {"smtp starttls refused, then plain mail",
       2525,
       {{1, "220 mx ESMTP\r\n"},
        {0, "EHLO c\r\n"},
        {1, "250 mx\r\n"},
        {0, "STARTTLS\r\n"},
        {1, "454 4.7.0 TLS not available\r\n"},
        {0, "MAIL FROM:<a@b>\r\n"},
        {1, "250 ok\r\n"}},
       "SMTP",
       {{"smtp.helo", "c"}, {"smtp.mail_from", "a@b"}}},
      {"imap starttls",
       143,
       {{1, "* OK [CAPABILITY IMAP4rev1 STARTTLS LOGINDISABLED] ready\r\n"},
        {0, "a1 CAPABILITY\r\n"},
        {1, "* CAPABILITY IMAP4rev1 STARTTLS\r\na1 OK done\r\n"},
        {0, "a2 STARTTLS\r\n"},
        {1, "a2 OK Begin TLS negotiation now\r\n"},
        {0, kClientHello},
        {1, kServerHello}},
       "IMAP/TLS",
       kTlsAttrs},
      {"imap starttls answered by another tag first",
       1143,
       {{0, "x NOOP\r\n"},
        {0, "y STARTTLS\r\n"},
        {1, "x OK\r\n"},
        {1, "y OK go\r\n"},
        {0, kClientHello}},
       "IMAP/TLS",
       {{"tls.server_name", "www.ntop.org"}}},
      {"pop3 stls",
       110,
       {{1, "+OK POP3 ready\r\n"},
        {0, "AUTH\r\n"},
        {1, "-ERR Unrecognized command.\r\n"},
        {0, "CAPA\r\n"},
        {1, "+OK\r\nSTLS\r\nUIDL\r\n.\r\n"},
        {0, "STLS\r\n"},
        {1, "+OK Begin TLS\r\n"},
        {0, kClientHello},
        {1, kServerHello}},
       "POP3/TLS",
       kTlsAttrs},
      {"pop3 stls after login is not looked for",
       110,
       {{1, "+OK POP3 ready\r\n"},
        {0, "AUTH\r\n"},
        {1, "-ERR\r\n"},
        {0, "USER a\r\nPASS b\r\n"},
        {1, "+OK\r\n+OK\r\n"},
        {0, "STAT\r\n"},
        {1, "+OK 0 0\r\n"},
        {0, "STLS\r\n"},
        {1, "+OK\r\n"},
        {0, kClientHello}},
       "POP3",
       {}},
      {"ftp auth tls",
       21,
       {{1, "220 (vsFTPd 3.0.3)\r\n"},
        {0, "AUTH TLS\r\n"},
        {1, "234 Proceed with negotiation.\r\n"},
        {0, kClientHello},
        {1, kServerHello}},
       "FTP/TLS",
       kTlsAttrs},
      {"ftp acceptance and the server's hello in one segment",
       2100,
       {{1, "220 FTP ready\r\n"},
        {0, "AUTH TLS\r\n"},
        {1, "234 go\r\n" + kServerHello},
        {0, kClientHello}},
       "FTP/TLS",
       kTlsAttrs},
      {"ftp auth ssl, greeting without a name",
       2121,
       {{1, "220 ready\r\n"}, {0, "AUTH SSL\r\n"}, {1, "234 AUTH SSL ok\r\n"}, {0, kClientHello}},
       "FTP/TLS",
       {{"tls.server_name", "www.ntop.org"}}},
      {"smtp starttls without the chameleon policy",
       25,
       {{1, "220 mx.example.org ESMTP\r\n"},
        {0, "EHLO client.example.net\r\n"},
        {1, "250 STARTTLS\r\n"},
        {0, "STARTTLS\r\n"},
        {1, "220 go ahead\r\n"},
        {0, kClientHello},
        {1, kServerHello}},
       "SMTP",
       {{"smtp.helo", "client.example.net"}},
       false},
      {"pop3 stls without the chameleon policy",
       110,
       {{1, "+OK ready\r\n"}, {0, "STLS\r\n"}, {1, "+OK\r\n"}, {0, kClientHello}},
       "POP3",
       {},
       false},
#endif
  };
  return table;
}

Attrs g_attrs;
std::map<int, std::string> g_keys;

int Listen(kest_handle_t, kest_conn_id_t, int key, int length, const void *value, int, void *) {
  g_attrs[g_keys[key]].append(static_cast<const char *>(value), static_cast<size_t>(length));
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

class BannerConversations : public kest_test::PluginFolderFixture {
protected:
  void SetUp() override {
    PluginFolderFixture::SetUp();
    h = kest_open(Folder({KEST_TEST_BANNER_PLGS}).c_str());
    ASSERT_GT(h, 0);
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

  // Runs the steps on a new connection, each step cut before byte `cut`
  // (none when 0 or beyond it); the stack of the last result.
  std::string Run(const Conversation &c, size_t cut) {
    g_attrs.clear();
    if (c.chameleon != chameleon) {
      // New connections take the setting from the next idle pass on.
      chameleon = c.chameleon;
      EXPECT_EQ(kest_config_set(h, "conn.default_policy.chameleon", chameleon ? "1" : "0"), 0);
      kest_idle(h);
    }
    kest_endpoint_t client{KEST_FAMILY_IPV4, htons(40000), {10, 0, 0, 1}};
    kest_endpoint_t server{KEST_FAMILY_IPV4, htons(c.port), {10, 0, 0, 2}};
    kest_conn_t conn = nullptr;
    EXPECT_EQ(kest_conn_create(h, &client, &server, 6, &conn), 0);
    std::string stack;
    for (const auto &[side, bytes] : c.steps) {
      std::vector<std::string> pieces{bytes};
      if (cut != 0 && cut < bytes.size()) {
        pieces = {bytes.substr(0, cut), bytes.substr(cut)};
      }
      for (const std::string &piece : pieces) {
        kest_classify(h, KEST_SELECTOR_CONN, piece.data(), static_cast<uint16_t>(piece.size()),
                      conn, side, Record, &stack);
      }
    }
    EXPECT_EQ(kest_conn_destroy(h, conn), 0);
    return stack;
  }

  static std::string Expected(const Conversation &c) {
    return c.app == nullptr
               ? ""
               : std::string("TCP") + (c.app == std::string("TCP") ? "" : "/" + std::string(c.app));
  }

  kest_handle_t h = -1;
  bool chameleon = true;
};

TEST_F(BannerConversations, EachEndsWithItsProtocolAndAttributes) {
  for (const Conversation &c : Table()) {
    const std::string stack = Run(c, 0);
    if (c.app == nullptr) {
      // Not one of these protocols; what else names it is not ours to say.
      for (const char *mine : {"SSH", "SMTP", "POP3", "IMAP", "FTP"}) {
        EXPECT_EQ(stack.find(mine), std::string::npos) << c.what << ": " << stack;
      }
#ifdef KEST_TEST_HTTP_BESIDE
      // The message decoder still names its own, with these on the chain.
      if (c.port == 8080) {
        EXPECT_EQ(stack, "TCP/HTTP") << c.what;
      }
#endif
    } else {
      EXPECT_EQ(stack, Expected(c)) << c.what;
    }
    EXPECT_EQ(g_attrs, c.attrs) << c.what;
  }
}

TEST_F(BannerConversations, SameResultWhereverTheStepsAreCut) {
  for (const Conversation &c : Table()) {
    const std::string whole = Run(c, 0);
    const Attrs attrs = g_attrs;
    size_t longest = 0;
    for (const auto &step : c.steps) {
      longest = std::max(longest, step.second.size());
    }
    for (size_t cut = 1; cut < longest; ++cut) {
      EXPECT_EQ(Run(c, cut), whole) << c.what << " cut at " << cut;
      EXPECT_EQ(g_attrs, attrs) << c.what << " cut at " << cut;
    }
  }
}

// The data connections an FTP control connection announces are named
// FTP_DATA when they start, once each, at the announced address and at the
// announcing side's own (behind address translation they differ), and
// only while the policy allows future flows.
TEST_F(BannerConversations, FtpDataConnectionsAreExpected) {
  const Conversation control = {"ftp with transfers",
                                21,
                                {{1, "220 FTP server ready\r\n"},
                                 {0, "USER anonymous\r\n"},
                                 {1, "331 Password please\r\n"},
                                 {0, "PASV\r\n"},
                                 {1, "227 Entering Passive Mode (192,0,2,9,100,85).\r\n"},
                                 {0, "EPRT |2|2001:db8::5|6001|\r\n"},
                                 {1, "200 EPRT command successful\r\n"},
                                 {0, "EPSV\r\n"},
                                 {1, "229 Entering Extended Passive Mode (|||6446|)\r\n"},
                                 {0, "PORT 10,0,0,1,19,137\r\n"},
                                 {1, "200 PORT command successful\r\n"}},
                                "FTP",
                                {{"ftp.user", "anonymous"}}};
  const auto data = [&](const kest_endpoint_t &a, const kest_endpoint_t &b) {
    kest_conn_t conn = nullptr;
    EXPECT_EQ(kest_conn_create(h, &a, &b, 6, &conn), 0);
    std::string stack;
    const std::string bytes = "-rw-r--r-- 1 ftp ftp 1205 readme\r\n";
    kest_classify(h, KEST_SELECTOR_CONN, bytes.data(), static_cast<uint16_t>(bytes.size()), conn, 1,
                  Record, &stack);
    EXPECT_EQ(kest_conn_destroy(h, conn), 0);
    return stack;
  };
  const auto v4 = [](uint8_t last, uint16_t port) {
    return kest_endpoint_t{KEST_FAMILY_IPV4, htons(port), {10, 0, 0, last}};
  };
  kest_endpoint_t v6{KEST_FAMILY_IPV6, htons(6001), {}};
  const uint8_t v6_bytes[16] = {0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 5};
  memcpy(v6.address, v6_bytes, sizeof v6_bytes);
  kest_endpoint_t v6_server = v6;
  v6_server.port = htons(20);
  v6_server.address[15] = 9;
  const kest_endpoint_t translated{KEST_FAMILY_IPV4, htons(25685), {192, 0, 2, 9}};
  for (bool follow : {true, false}) {
    ASSERT_EQ(kest_config_set(h, "conn.default_policy.futureflows", follow ? "1" : "0"), 0);
    kest_idle(h);
    EXPECT_EQ(Run(control, 0), "TCP/FTP") << follow;
    EXPECT_EQ(g_attrs, control.attrs);
    const std::string named = follow ? "TCP/FTP_DATA" : "TCP";
    EXPECT_EQ(data(v4(1, 41000), v4(2, 25685)), named) << "PASV, the server's own address";
    EXPECT_EQ(data(v4(1, 41001), v4(2, 25685)), "TCP") << "PASV, once only";
    EXPECT_EQ(data(v4(1, 41002), translated), named) << "PASV, the announced address";
    EXPECT_EQ(data(v6_server, v6), named) << "EPRT";
    EXPECT_EQ(data(v4(1, 41003), v4(2, 6446)), named) << "EPSV";
    EXPECT_EQ(data(v4(2, 20), v4(1, 5001)), named) << "PORT";
    EXPECT_EQ(data(v4(1, 41004), v4(2, 7777)), "TCP") << "not announced";
  }
}

// Expectations are bounded: past the bound the oldest ones go, from the
// rule store too, and the newest still name their connections.
TEST_F(BannerConversations, FtpExpectationsStayBounded) {
  Conversation control = {
      "ftp with many transfers",
      21,
      {{1, "220 FTP server ready\r\n"}, {0, "USER anonymous\r\n"}, {1, "331 Password please\r\n"}},
      "FTP",
      {{"ftp.user", "anonymous"}}};
  const int announced = 80;
  for (int i = 0; i < announced; ++i) {
    const int port = 30000 + i;
    control.steps.push_back({0, "PASV\r\n"});
    control.steps.push_back({1, "227 Entering Passive Mode (10,0,0,2," + std::to_string(port >> 8) +
                                    "," + std::to_string(port & 0xff) + ")\r\n"});
  }
  ASSERT_EQ(kest_config_set(h, "conn.default_policy.futureflows", "1"), 0);
  kest_idle(h);
  EXPECT_EQ(Run(control, 0), "TCP/FTP");
  const auto data = [&](uint16_t port) {
    const kest_endpoint_t a{KEST_FAMILY_IPV4, htons(41000), {10, 0, 0, 1}};
    const kest_endpoint_t b{KEST_FAMILY_IPV4, htons(port), {10, 0, 0, 2}};
    kest_conn_t conn = nullptr;
    EXPECT_EQ(kest_conn_create(h, &a, &b, 6, &conn), 0);
    std::string stack;
    kest_classify(h, KEST_SELECTOR_CONN, "x\r\n", 3, conn, 1, Record, &stack);
    EXPECT_EQ(kest_conn_destroy(h, conn), 0);
    return stack;
  };
  EXPECT_EQ(data(30000), "TCP") << "the oldest went";
  EXPECT_EQ(data(30000 + announced - 1), "TCP/FTP_DATA") << "the newest stays";
}

} // namespace
