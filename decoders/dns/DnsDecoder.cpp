// The DNS decoder: names DNS, MDNS and LLMNR on UDP and TCP by the bytes of
// their messages, on any port, and reports every message of a connection
// ("dns.query", "dns.qtype", "dns.rcode", "dns.answers"). Over UDP a
// datagram is a message; over TCP each message has a two-byte length in
// front.
#include "dns/DnsMessage.h"
#include "dns/DnsRisks.h"

#include <kest/kit/Decoder.h>
#include <kest/kit/Risks.h>
#include <kest/kit/Services.h>

namespace {

using oru::kit::ByteReader;
using oru::kit::Verdict;

enum Flavor { kDns, kMdns, kLlmnr };
enum Attribute { kQuery, kQtype, kRcode, kAnswers };

// The multicast groups of mDNS and LLMNR.
constexpr oru::IpAddr kMdnsV4 = oru::IpAddr::FromV4(0xE00000FB);
constexpr oru::IpAddr kMdnsV6{0xFF02000000000000ull, 0xFBull};
constexpr oru::IpAddr kLlmnrV4 = oru::IpAddr::FromV4(0xE00000FC);
constexpr oru::IpAddr kLlmnrV6{0xFF02000000000000ull, 0x10003ull};

bool To(const oru::Tuple &t, const oru::IpAddr &v4, const oru::IpAddr &v6, uint16_t port) {
  return ((t.dst == v4 || t.dst == v6) && t.dst_port == port) ||
         ((t.src == v4 || t.src == v6) && t.src_port == port);
}

// Which of the three a connection of DNS messages is. The groups decide; the
// answers of mDNS and LLMNR go back by unicast from the protocol's port, so
// over UDP that port at either end counts as well. The bytes have already
// said DNS: the port only tells the kind.
Flavor FlavorOf(const oru::Tuple &t) {
  if (To(t, kMdnsV4, kMdnsV6, 5353)) {
    return kMdns;
  }
  if (To(t, kLlmnrV4, kLlmnrV6, 5355)) {
    return kLlmnr;
  }
  if (t.protocol == 17 && t.src_port != 53 && t.dst_port != 53) {
    if (t.src_port == 5353 || t.dst_port == 5353) {
      return kMdns;
    }
    if (t.src_port == 5355 || t.dst_port == 5355) {
      return kLlmnr;
    }
  }
  return kDns;
}

struct Dns {
  static constexpr oru::kit::Spec kSpec{
      .plugin = "dns",
      .module = oru::kit::MODULE_DNS,
      .protocols = {"DNS", "MDNS", "LLMNR"},
      .attributes = {"dns.query", "dns.qtype", "dns.rcode", "dns.answers"},
      .borrowed = {oru::kit::kRiskAttribute},
      .tcp = true,
      .tcp_ports = {53},
      .udp = true,
      .udp_ports = {53, 5353, 5355},
      .tcp_framing = oru::kit::Framing::kRecords,
      .records = {.offset = 0, .width = 2, .max = 0x10000 + 2, .min = 2 + kest_dns::kHeaderSize}};
  // The exchanges seen last: a message's id with a digest of its question
  // section. A response repeats its query's questions, a client that gets
  // no answer sends its query again, mDNS repeats its questions under id 0:
  // all of it one exchange, whose questions are reported once.
  static constexpr unsigned kExchanges = 8;
  struct Exchange {
    uint32_t digest;
    uint16_t id;
    uint8_t used;
  };
  struct State {
    // Risks raised, as bits of oru::kit::Risk; only plain DNS (not mDNS or
    // LLMNR, whose names are made by devices) is judged.
    uint32_t raised;
    uint8_t plain;
    // The ring of exchanges, the oldest overwritten first.
    uint8_t next_exchange;
    Exchange exchanges[kExchanges];
  };
  // The last message read, and the name of the question being reported;
  // too large for the stack of every host.
  struct Thread {
    kest_dns::Summary summary;
    char name[kest_dns::kNameText];
  };
  using Session = oru::kit::Session<Dns>;

  // A first message's header must hold: over TCP behind its length, as
  // far as the packet goes; over UDP the datagram is the message.
  static bool Opening(unsigned, ByteReader first, uint8_t transport) {
    if (transport != 6) {
      return kest_dns::PlausibleStart(first.Here(), first.Left(), first.Left());
    }
    if (first.Left() < 2) {
      return true;
    }
    const size_t length = first.U16();
    return kest_dns::PlausibleStart(first.Here(), first.Left(), length);
  }

  static Verdict Feed(Session &s, ByteReader message) {
    if (s.tuple().protocol == 6) {
      message.Skip(2);
    }
    kest_dns::Summary &m = s.thread().summary;
    const kest_dns::Verdict verdict = kest_dns::Parse(message.Here(), message.Left(), m);
    if (!s.named()) {
      // A first message decides alone, so it must hold whole; one cut short
      // by the server (TC) may end early.
      const bool dns = verdict == kest_dns::Verdict::kDns ||
                       (verdict == kest_dns::Verdict::kDnsDamaged && m.truncated);
      const Flavor flavor = FlavorOf(s.tuple());
      if (!dns || !s.Name(flavor)) {
        return Verdict::kNotMine;
      }
      s.state().plain = flavor == kDns ? 1 : 0;
      if (flavor == kDns && s.tuple().src_port != 53 && s.tuple().dst_port != 53) {
        oru::kit::RaiseOnce(s.state().raised, oru::kit::Risk::kDnsOtherPort);
      }
    }
    if (verdict != kest_dns::Verdict::kNotDns) {
      Report(s, m, message.Here(), message.Left());
    }
    return Verdict::kNeedMore;
  }

  // Before the first message is whole, its header must hold.
  static Verdict Early(Session &, ByteReader head) {
    const size_t length = head.U16();
    const size_t have = head.Left() < kest_dns::kHeaderSize ? head.Left() : kest_dns::kHeaderSize;
    return kest_dns::PlausibleStart(head.Here(), have, length) ? Verdict::kNeedMore
                                                               : Verdict::kNotMine;
  }

  // A question's name and type, on plain DNS.
  static void QuestionRisks(Session &s, const char *name, size_t length, uint16_t qtype) {
    if (s.state().plain == 0) {
      return;
    }
    if (kest_dns::GeneratedName(name, length)) {
      oru::kit::RaiseOnce(s.state().raised, oru::kit::Risk::kDnsGeneratedName);
    }
    if (kest_dns::TunnelName(name, length, qtype)) {
      oru::kit::RaiseOnce(s.state().raised, oru::kit::Risk::kDnsTunnel);
    }
  }

  // Whether the message's questions belong to an exchange already seen;
  // if not, the exchange is remembered.
  static bool SeenExchange(Session &s, const kest_dns::Summary &m, const uint8_t *data) {
    // FNV-1a over the question section as sent: a response copies it.
    uint32_t digest = 2166136261u;
    for (size_t i = kest_dns::kHeaderSize; i < m.question_end; ++i) {
      digest = (digest ^ data[i]) * 16777619u;
    }
    Dns::State &st = s.state();
    for (const Exchange &e : st.exchanges) {
      if (e.used != 0 && e.id == m.id && e.digest == digest) {
        return true;
      }
    }
    st.exchanges[st.next_exchange] = {digest, m.id, 1};
    st.next_exchange = static_cast<uint8_t>((st.next_exchange + 1) % kExchanges);
    return false;
  }

  // Every message reports what it has: each question with its type (mDNS
  // asks for a dozen names at once) unless its exchange reported them
  // already, the response code of a response, the answers worth naming.
  // `data` is the message the summary was read from.
  static void Report(Session &s, const kest_dns::Summary &m, const uint8_t *data, size_t length) {
    char word[16];
    const unsigned questions =
        m.question_count != 0 && !SeenExchange(s, m, data) ? m.question_count : 0;
    for (unsigned i = 0; i < questions; ++i) {
      const kest_dns::Question &q = m.questions[i];
      const char *name = m.query;
      size_t name_length = m.query_length;
      if (i != 0) {
        name = s.thread().name;
        name_length = kest_dns::QuestionName(data, length, q, s.thread().name, kest_dns::kNameText);
      }
      if (name_length == 0) {
        continue;
      }
      s.Publish(kQuery, name, name_length);
      s.Publish(kQtype, word, kest_dns::FormatType(q.qtype, word, sizeof word));
      QuestionRisks(s, name, name_length, q.qtype);
    }
    if (m.response) {
      s.Publish(kRcode, word, kest_dns::FormatRcode(m.rcode, word, sizeof word));
    }
    if (m.answers_length != 0) {
      s.Publish(kAnswers, m.answers, m.answers_length);
    }
    Services(m);
  }

  // The name asked for names the DNS flow's service; the addresses an
  // answer gives name the connections that follow to them.
  static void Services(const kest_dns::Summary &m) {
    if (!m.has_question) {
      return;
    }
    oru::kit::ReportServerName(m.query, m.query_length, oru::SERVICE_SOURCE_DNS);
    for (unsigned i = 0; m.response && m.rcode == 0 && i < m.address_count; ++i) {
      const kest_dns::AnswerAddress &a = m.addresses[i];
      oru::kit::ReportDnsAnswer(a.bytes, a.length, m.query, m.query_length, a.ttl);
    }
  }
};

} // namespace

KEST_DECODER(Dns)
