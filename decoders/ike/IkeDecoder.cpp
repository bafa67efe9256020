// IKE (ISAKMP) over UDP on any port, by its header and payload chain: a
// non-zero initiator SPI, the responder SPI, the first payload, version
// 0x10 (IKEv1) or 0x20 (IKEv2), an exchange type of that version, flags
// (reserved ones ignored, as receivers do), a message id and a length equal
// to the datagram's. The payloads must then chain to exactly that length,
// each of a known type (IKEv2's from 33 up; its encrypted payload, and the
// whole body of an IKEv1 message with its encryption flag, end the walk).
// NAT traversal's four zero bytes before the header (UDP 4500) are passed,
// and what else such a flow carries is ESP in UDP. Reports "ike.version"
// ("1" or "2", each once) and
// "ike.exchange" (the name of each new exchange type, up to the first 16
// messages).
//
// Once a flow is named, the two addresses it joins are taken as keyed: the
// ESP flows between them (one per SPI) are named IKE on their first packet
// (their stack ESP/IKE), and so is a UDP flow between them on port 4500
// that carries ESP without a word of IKE. A thread keeps the last 32
// pairs, and only under the future-flows policy.
#include <kest/kit/Decoder.h>

namespace {

using namespace oru::kit;

// The address pairs that IKE keyed on this thread, and the inspector that
// names the ESP flows between them.
class KeyedPairs final : public oru::Inspector {
public:
  static constexpr size_t kMaxPairs = 32;

  explicit KeyedPairs(uint32_t proto) : m_proto(proto) {}

  bool Holds(const oru::IpAddr &a, const oru::IpAddr &b) const {
    for (size_t i = 0; i < m_count; ++i) {
      if ((m_pairs[i].a == a && m_pairs[i].b == b) || (m_pairs[i].a == b && m_pairs[i].b == a)) {
        return true;
      }
    }
    return false;
  }

  // Keys the pair, the newest last; ESP flows reach this inspector through
  // a rule on the responder's address in the ESP table, one per address.
  void Key(const oru::IpAddr &a, const oru::IpAddr &b) {
    if (Holds(a, b) || a.is_zero() || b.is_zero()) {
      return;
    }
    oru::IpPortRuleStore *rules = Rules();
    if (m_count == kMaxPairs) {
      const oru::IpAddr oldest = m_pairs[0].b;
      for (size_t i = 1; i < m_count; ++i) {
        m_pairs[i - 1] = m_pairs[i];
      }
      --m_count;
      if (rules != nullptr && Users(oldest) == 0) {
        rules->RemoveRuleFast(kEsp, oru::InspectorCallback(this), 0, oldest, oldest);
      }
    }
    if (rules != nullptr && Users(b) == 0) {
      rules->AddRule(kEsp, oru::InspectorCallback(this), 0, b, b, 0,
                     oru::IpPortRuleStore::EXPIRY_LOCAL, true);
    }
    m_pairs[m_count++] = Pair{a, b};
  }

  void Withdraw() {
    oru::IpPortRuleStore *rules = Rules();
    while (m_count != 0) {
      const oru::IpAddr addr = m_pairs[--m_count].b;
      if (rules != nullptr && Users(addr) == 0) {
        rules->RemoveRuleFast(kEsp, oru::InspectorCallback(this), 0, addr, addr);
      }
    }
  }

  unsigned int Inspect(oru::ParentDpi * /*parent*/, oru::PktInfo & /*pkt*/, oru::Tuple &tuple,
                       oru::fdt::intrusive_ptr<oru::Conn> &conn) override {
    if (conn.get() != nullptr && tuple.protocol == kEsp && Holds(tuple.src, tuple.dst)) {
      conn->PushProtocol(m_proto);
    }
    return oru::INSPECT_FINISHED;
  }

private:
  static constexpr uint8_t kEsp = 50;
  struct Pair {
    oru::IpAddr a, b;
  };
  static oru::IpPortRuleStore *Rules() {
    oru::InterfaceBroker *broker = oru::InterfaceBroker::Peek();
    return broker == nullptr ? nullptr
                             : static_cast<oru::IpPortRuleStore *>(broker->GetInterface(
                                   MODULE_ESP, oru::INTERFACE_IPPORT_RULE_STORE));
  }
  // Pairs held whose rule is on `addr`.
  size_t Users(const oru::IpAddr &addr) const {
    size_t users = 0;
    for (size_t i = 0; i < m_count; ++i) {
      users += m_pairs[i].b == addr ? 1 : 0;
    }
    return users;
  }

  uint32_t m_proto;
  Pair m_pairs[kMaxPairs] = {};
  size_t m_count = 0;
};

struct Ike {
  static constexpr Spec kSpec{.plugin = "ike",
                              .module = MODULE_IKE,
                              .protocols = {"IKE"},
                              .attributes = {"ike.version", "ike.exchange"},
                              .udp = true,
                              .udp_ports = {500, 4500},
                              .max_messages = 16};
  struct State {
    // Exchange types published, by bit (see Exchange).
    uint32_t published;
    // Versions published: 1 and 2, by bit.
    uint32_t versions;
  };
  struct Thread {
    KeyedPairs *keyed = nullptr;
    Thread() = default;
    Thread(const Thread &) = delete;
    Thread &operator=(const Thread &) = delete;
    ~Thread() {
      if (keyed != nullptr) {
        keyed->Withdraw();
        keyed->release();
      }
    }
  };

  static constexpr uint32_t kNatPort = 4500;
  static constexpr uint32_t kHeader = 28;
  static constexpr int kMaxPayloads = 64;

  // The name of an exchange type of `version` (1 or 2), and its bit.
  static const char *Exchange(uint32_t version, uint32_t type, uint32_t &bit) {
    struct Known {
      uint8_t version, type;
      const char *name;
    };
    static constexpr Known kKnown[] = {{1, 1, "Base"},
                                       {1, 2, "Main"},
                                       {1, 3, "Authentication Only"},
                                       {1, 4, "Aggressive"},
                                       {1, 5, "Informational"},
                                       {1, 32, "Quick"},
                                       {1, 33, "New Group"},
                                       {2, 34, "IKE_SA_INIT"},
                                       {2, 35, "IKE_AUTH"},
                                       {2, 36, "CREATE_CHILD_SA"},
                                       {2, 37, "INFORMATIONAL"},
                                       {2, 43, "IKE_INTERMEDIATE"},
                                       {2, 44, "IKE_FOLLOWUP_KE"}};
    for (uint32_t i = 0; i < sizeof kKnown / sizeof kKnown[0]; ++i) {
      if (kKnown[i].version == version && kKnown[i].type == type) {
        bit = 1u << i;
        return kKnown[i].name;
      }
    }
    return nullptr;
  }

  // IKEv1's payload types; IKEv2's from 33 up, the unassigned and private
  // ones too (a receiver passes an unknown payload that is not critical).
  static bool PayloadType(uint32_t version, uint32_t type) {
    return version == 1
               ? (type >= 1 && type <= 13) || type == 20 || type == 21 || type == 130 || type == 131
               : type >= 33 && type <= 255;
  }

  static bool Opening(unsigned, ByteReader first) {
    const uint32_t at =
        first.Peek(0) == 0 && first.Peek(1) == 0 && first.Peek(2) == 0 && first.Peek(3) == 0 ? 4
                                                                                             : 0;
    const uint32_t version = first.Peek(at + 17);
    // NAT traversal flows may open with ESP or a keepalive: the thread's
    // keyed pairs decide those, so they pass too.
    return version == 0x10 || version == 0x20 || at == 0;
  }

  // Whether `r` is one IKE message; its version and exchange type.
  static bool Message(ByteReader r, uint32_t &version, uint32_t &exchange) {
    const size_t size = r.Left();
    const uint64_t initiator = r.U64();
    r.Skip(8);
    uint32_t next = r.U8();
    const uint32_t v = r.U8();
    exchange = r.U8();
    const uint32_t flags = r.U8();
    r.Skip(4);
    const uint32_t length = r.U32();
    version = v >> 4;
    uint32_t bit = 0;
    if (!r.Ok() || initiator == 0 || (v != 0x10 && v != 0x20) || length != size ||
        Exchange(version, exchange, bit) == nullptr) {
      return false;
    }
    if (version == 1 && (flags & 1) != 0) {
      // Encrypted behind the header: only its first payload's type is clear,
      // and the body comes in whole cipher blocks.
      return PayloadType(1, next) && r.Left() % 8 == 0;
    }
    for (int n = 0; next != 0; ++n) {
      if (n == kMaxPayloads || !PayloadType(version, next)) {
        return false;
      }
      const bool encrypted = next == 46;
      next = r.U8();
      r.Skip(1);
      const uint32_t payload = r.U16();
      if (!r.Ok() || payload < 4 || !r.Skip(payload - 4)) {
        return false;
      }
      if (encrypted) {
        // IKEv2's encrypted payload holds the rest; its next payload is
        // the first one inside.
        return r.Empty();
      }
    }
    return r.Ok() && r.Empty();
  }

  static Verdict Feed(Session<Ike> &s, ByteReader r) {
    const oru::Tuple &t = s.tuple();
    const bool nat = r.Peek(0) == 0 && r.Peek(1) == 0 && r.Peek(2) == 0 && r.Peek(3) == 0 &&
                     r.Left() >= 4 + kHeader;
    if (nat) {
      r.Skip(4);
    }
    uint32_t version = 0;
    uint32_t exchange = 0;
    if (!Message(r, version, exchange)) {
      if (s.named()) {
        // ESP in UDP, or a keepalive, on a NAT traversal flow.
        return Verdict::kNeedMore;
      }
      KeyedPairs *keyed = s.thread().keyed;
      const bool esp = !nat && r.Left() >= 16 && LoadBe32(r.Here()) != 0 &&
                       (t.src_port == kNatPort || t.dst_port == kNatPort);
      return esp && keyed != nullptr && keyed->Holds(t.src, t.dst) ? Verdict::kNamed
                                                                   : Verdict::kNotMine;
    }
    if (!s.Name()) {
      return Verdict::kNotMine;
    }
    State &st = s.state();
    if (st.published == 0) {
      Key(s);
    }
    // A flow may carry both versions (a peer trying IKEv2, then IKEv1).
    if ((st.versions & version) == 0) {
      st.versions |= version;
      s.Publish(0, version == 1 ? "1" : "2");
    }
    uint32_t bit = 0;
    const char *name = Exchange(version, exchange, bit);
    if ((st.published & bit) == 0) {
      st.published |= bit;
      s.Publish(1, name);
    }
    return Verdict::kNeedMore;
  }

  // Keys the flow's two addresses for their ESP flows.
  static void Key(Session<Ike> &s) {
    if (!ExpectedFlows::Allowed(s.conn())) {
      return;
    }
    Thread &thread = s.thread();
    if (thread.keyed == nullptr) {
      thread.keyed =
          oru::fdt::CreateObject<KeyedPairs>(oru::fdt::OBJECT_LOCAL, s.registration().Proto(0));
      if (thread.keyed == nullptr) {
        return;
      }
      thread.keyed->add_ref();
    }
    const oru::Tuple &t = s.tuple();
    // The side that spoke first (usually the initiator) keys the pair; the
    // rule goes on the other address.
    thread.keyed->Key(t.src, t.dst);
  }
};

} // namespace

KEST_DECODER(Ike)
