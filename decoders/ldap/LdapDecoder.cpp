// LDAP on any port, by its BER messages: a SEQUENCE of a message id and one
// of the protocol's operations ([APPLICATION 0] to [APPLICATION 25]). Over
// TCP the first messages of each side are read from the start of their
// stream (a message's head is kept until its fields are in, the rest of it is
// passed over); over UDP (connectionless LDAP) a datagram is a message.
// Each message reports "ldap.op" (by name); a bind request its
// "ldap.bind_dn", a search request its "ldap.base_dn". An accepted StartTLS
// hands the connection on, under chameleon, for the TLS decoder.
#include <kest/kit/Decoder.h>

#include <string.h>

namespace {

using namespace oru::kit;

struct Ldap {
  static constexpr Spec kSpec{.plugin = "ldap",
                              .module = MODULE_LDAP,
                              .protocols = {"LDAP"},
                              .attributes = {"ldap.op", "ldap.bind_dn", "ldap.base_dn"},
                              .tcp = true,
                              .tcp_ports = {389, 3268},
                              .udp = true,
                              .udp_ports = {389}};
  static constexpr uint32_t kHead = 320;
  static constexpr uint32_t kMessages = 8;
  struct Side {
    uint8_t head[kHead];
    uint32_t have;     // bytes of the current message's head kept
    uint64_t skip;     // bytes of the current message still to pass over
    uint32_t messages; // messages read
  };
  struct State {
    Side side[2];
    bool start_tls; // a StartTLS request waits for its answer
  };

  static constexpr const char *kOps[] = {"bind-request",
                                         "bind-response",
                                         "unbind-request",
                                         "search-request",
                                         "search-entry",
                                         "search-done",
                                         "modify-request",
                                         "modify-response",
                                         "add-request",
                                         "add-response",
                                         "delete-request",
                                         "delete-response",
                                         "modify-dn-request",
                                         "modify-dn-response",
                                         "compare-request",
                                         "compare-response",
                                         "abandon-request",
                                         nullptr,
                                         nullptr,
                                         "search-reference",
                                         nullptr,
                                         nullptr,
                                         nullptr,
                                         "extended-request",
                                         "extended-response",
                                         "intermediate-response"};
  static constexpr char kStartTls[] = "1.3.6.1.4.1.1466.20037";

  // A BER head: tag, then the length the element declares (definite, at
  // most four bytes); `r` is left at the value, which may be cut short.
  static bool Head(ByteReader &r, uint32_t &tag, uint64_t &length) {
    tag = r.U8();
    length = r.U8();
    if (length > 0x80 && length <= 0x84) {
      length = r.Uint(static_cast<unsigned>(length & 0x7f));
    } else if (length >= 0x80) {
      return false;
    }
    return r.Ok() && (tag & 0x1f) != 0x1f;
  }

  // Judges the message whose head is `r` (`whole`: all of it); publishes.
  static Verdict Message(Session<Ldap> &s, ByteReader r, uint64_t &size) {
    uint32_t tag = 0, op = 0;
    uint64_t length = 0, op_length = 0;
    const size_t before = r.Left();
    if (!Head(r, tag, length) || tag != 0x30) {
      return Verdict::kNotMine;
    }
    size = before - r.Left() + length;
    const int64_t id = r.BerInt();
    if (!Head(r, op, op_length) || id < 0 || id > 0x7fffffff) {
      return Verdict::kNotMine;
    }
    const uint32_t number = op & 0x1f;
    const bool constructed = (op & 0x20) != 0;
    // Unbind, delete and abandon are primitive; the rest are constructed.
    const bool primitive_op = number == 2 || number == 10 || number == 16;
    if ((op & 0xc0) != 0x40 || number > 25 || kOps[number] == nullptr ||
        constructed == primitive_op) {
      return Verdict::kNotMine;
    }
    if (!s.Name()) {
      return Verdict::kNotMine;
    }
    s.Publish(0, kOps[number]);
    if (number == 0 || number == 3) { // the DN after a bind's version, or first
      if (number == 0) {
        r.BerInt();
      }
      ByteReader dn = r.BerTagged(0x04);
      if (dn.Left() != 0) {
        s.Publish(number == 0 ? 1 : 2, dn.Here(), dn.Left());
      }
    }
    State &st = s.state();
    if (number == 23) { // an extended request names its operation first
      ByteReader name = r.BerTagged(0x80);
      st.start_tls = name.Left() == sizeof kStartTls - 1 &&
                     memcmp(name.Here(), kStartTls, sizeof kStartTls - 1) == 0;
    } else if (number == 24 && st.start_tls) {
      uint32_t code_tag = 0;
      ByteReader code = r.Ber(code_tag);
      if (code_tag == 0x0a && code.Left() == 1 && code.Peek() == 0) {
        s.HandOn();
      }
      st.start_tls = false;
    }
    return Verdict::kNamed;
  }

  // A head too short to judge still shows foreign bytes: a message opens
  // with a SEQUENCE (0x30), a length and the message id's INTEGER (0x02).
  static bool MayOpen(const Side &side) {
    const uint32_t id_at = side.have > 1 && side.head[1] > 0x80 ? 2 + (side.head[1] & 0x7f) : 2;
    return side.head[0] == 0x30 && (side.have < 2 || side.head[1] <= 0x84) &&
           (side.have <= id_at || side.head[id_at] == 0x02);
  }

  // Every message is a SEQUENCE.
  static bool Opening(unsigned, ByteReader first) { return first.Peek() == 0x30; }

  static Verdict Feed(Session<Ldap> &s, ByteReader r) {
    uint64_t size = 0;
    if (s.tuple().protocol == 17) {
      const Verdict v = Message(s, r, size);
      return v == Verdict::kNotMine && s.named() ? Verdict::kNeedMore : v;
    }
    Side &side = s.state().side[s.side()];
    while (side.messages < kMessages) {
      if (side.skip != 0 && !r.Empty()) {
        const uint64_t n = side.skip < r.Left() ? side.skip : r.Left();
        r.Skip(static_cast<size_t>(n));
        side.skip -= n;
        continue;
      }
      const uint32_t room = kHead - side.have;
      const uint32_t take = static_cast<uint32_t>(r.Left() < room ? r.Left() : room);
      memcpy(side.head + side.have, r.Here(), take);
      side.have += take;
      r.Skip(take);
      if (side.skip != 0 || side.have == 0) {
        break;
      }
      // Judged once the message is in, or its head is full.
      ByteReader head(side.head, side.have);
      uint32_t tag = 0;
      uint64_t length = 0;
      const bool known = Head(head, tag, length);
      const uint64_t total = side.have - head.Left() + length;
      if (!MayOpen(side)) {
        return s.named() ? Verdict::kDone : Verdict::kNotMine;
      }
      if ((!known || total > side.have) && side.have < kHead) {
        break;
      }
      const uint32_t whole = static_cast<uint32_t>(total < side.have ? total : side.have);
      if (Message(s, ByteReader(side.head, whole), size) == Verdict::kNotMine) {
        return s.named() ? Verdict::kDone : Verdict::kNotMine;
      }
      // Bytes of the next message already kept move to the front.
      const uint32_t used = static_cast<uint32_t>(size < side.have ? size : side.have);
      memmove(side.head, side.head + used, side.have - used);
      side.have -= used;
      side.skip = size - used;
      ++side.messages;
    }
    return side.messages < kMessages ? Verdict::kNeedMore : Verdict::kDone;
  }
};

} // namespace

KEST_DECODER(Ldap)
