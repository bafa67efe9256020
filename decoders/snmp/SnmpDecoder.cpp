// SNMP over UDP, by its BER message on any port: a SEQUENCE that holds the
// version (0, 1 or 3, for v1, v2c and v3), then for v1 and v2c the community
// and a PDU whose first field is an INTEGER (an OBJECT IDENTIFIER for a v1
// trap), and for v3 the global data (message id, size, one byte of flags,
// security model), the security parameters and the scoped PDU, in clear or
// encrypted. Each message reports "snmp.version", "snmp.community" (v1,
// v2c) and "snmp.pdu" (the PDU's kind, or "encrypted").
#include <kest/kit/Decoder.h>
#include <kest/kit/Risks.h>

namespace {

using namespace oru::kit;

struct Snmp {
  static constexpr Spec kSpec{.plugin = "snmp",
                              .module = MODULE_SNMP,
                              .protocols = {"SNMP"},
                              .attributes = {"snmp.version", "snmp.community", "snmp.pdu"},
                              .borrowed = {kRiskAttribute},
                              .udp = true,
                              .udp_ports = {161, 162}};
  struct State {
    uint8_t raised;
  };

  // A v1 or v2c community is a password sent in clear; the two that every
  // agent ships with ("public", "private") are left out, as they guard
  // nothing, and so is an empty one.
  static bool SecretCommunity(const ByteReader &community) {
    const char *text = reinterpret_cast<const char *>(community.Here());
    const size_t n = community.Left();
    const auto is = [&](const char *word, size_t length) {
      return n == length && __builtin_memcmp(text, word, length) == 0;
    };
    return n != 0 && !is("public", 6) && !is("private", 7);
  }

  static constexpr const char *kPdus[] = {
      "get-request",      "get-next-request", "response",    "set-request", "trap",
      "get-bulk-request", "inform-request",   "snmpv2-trap", "report"};

  // A PDU ([0] to [8], constructed), its kind's name, or null.
  static const char *Pdu(ByteReader &r) {
    uint32_t tag = 0;
    ByteReader pdu = r.Ber(tag);
    const uint32_t first = pdu.Peek();
    if (!r.Ok() || tag < 0xa0 || tag > 0xa8 || first != (tag == 0xa4 ? 0x06 : 0x02)) {
      return nullptr;
    }
    return kPdus[tag - 0xa0];
  }

  static Verdict Feed(Session<Snmp> &s, ByteReader r) {
    ByteReader msg = r.BerTagged(0x30);
    const int64_t version = msg.BerInt();
    const char *pdu = nullptr;
    ByteReader community;
    if (version == 0 || version == 1) {
      community = msg.BerTagged(0x04);
      pdu = Pdu(msg);
    } else if (version == 3) {
      ByteReader global = msg.BerTagged(0x30);
      global.BerInt();
      global.BerInt();
      const bool flags = global.BerTagged(0x04).Left() == 1;
      global.BerInt();
      msg.BerTagged(0x04);
      uint32_t tag = 0;
      ByteReader scoped = msg.Ber(tag);
      if (tag == 0x30) {
        scoped.BerTagged(0x04);
        scoped.BerTagged(0x04);
        pdu = Pdu(scoped);
      } else if (tag == 0x04 && scoped.Left() != 0) {
        pdu = "encrypted";
      }
      pdu = flags && global.Ok() && global.Empty() ? pdu : nullptr;
    }
    if (pdu == nullptr || !msg.Ok() || !r.Ok() || !r.Empty()) {
      return s.named() ? Verdict::kNeedMore : Verdict::kNotMine;
    }
    s.Publish(0, version == 0 ? "1" : version == 1 ? "2c" : "3");
    if (version != 3) {
      s.Publish(1, reinterpret_cast<const char *>(community.Here()), community.Left());
      if (s.state().raised == 0 && SecretCommunity(community)) {
        s.state().raised = 1;
        Raise(s, Risk::kClearTextCredentials);
      }
    }
    s.Publish(2, pdu);
    return Verdict::kNamed;
  }
};

} // namespace

KEST_DECODER(Snmp)
