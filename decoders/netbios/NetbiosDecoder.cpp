// NetBIOS over TCP/IP, on any port: the name service (queries, registrations,
// releases and their answers, in the DNS layout), the datagram service
// (datagrams and name queries) over UDP, and the session service's requests
// over TCP. A NetBIOS name travels as 32 letters 'A' to 'P', two per byte of
// a 16-byte name whose last byte is its type. A message reports its name as
// "netbios.name" (without its padding) and "netbios.type" ("<20>", say),
// unless it is the name reported last on the connection.
#include <kest/kit/Decoder.h>

namespace {

using namespace oru::kit;

struct Netbios {
  static constexpr Spec kSpec{.plugin = "netbios",
                              .module = MODULE_NETBIOS,
                              .protocols = {"NetBIOS"},
                              .attributes = {"netbios.name", "netbios.type"},
                              .tcp = true,
                              .tcp_ports = {139},
                              .udp = true,
                              .udp_ports = {137, 138},
                              .tcp_framing = Framing::kRecords,
                              .records = {.offset = 2, .width = 2, .max = 4 + 1024, .min = 4}};
  // Hosts repeat their names: a connection reports a name when it differs
  // from the one before, and at most kMaxNames of them.
  static constexpr uint32_t kMaxNames = 8;
  struct State {
    uint32_t last;
    uint32_t reported;
  };

  struct Name {
    char text[16];
    uint32_t length = 0;
    uint32_t type = 0;
  };

  // An encoded name and its scope (labels up to a zero byte), or a pointer
  // back to one (two bytes: the name is then the question's, already read).
  static bool ReadName(ByteReader &r, Name &name, bool pointer_ok) {
    if (pointer_ok && r.Peek() >= 0xc0) {
      return r.Skip(2);
    }
    ByteReader letters = r.Prefixed(1);
    if (letters.Left() != 32) {
      return false;
    }
    uint8_t raw[16];
    for (uint8_t &b : raw) {
      const uint32_t hi = letters.U8() - 'A', lo = letters.U8() - 'A';
      if (hi > 15 || lo > 15) {
        return false;
      }
      b = static_cast<uint8_t>(hi << 4 | lo);
    }
    for (uint32_t label = r.U8(); r.Ok() && label != 0; label = r.U8()) {
      r.Skip(label);
    }
    name.length = 15;
    while (name.length > 0 && (raw[name.length - 1] == ' ' || raw[name.length - 1] == 0)) {
      --name.length;
    }
    for (uint32_t i = 0; i < name.length; ++i) {
      name.text[i] = static_cast<char>(raw[i]);
    }
    name.type = raw[15];
    return r.Ok();
  }

  // The name service: one question (a request) or one answer record.
  static bool NameService(ByteReader r, Name &name) {
    r.U16();
    const uint32_t flags = r.U16(), qd = r.U16(), an = r.U16(), ns = r.U16(), ar = r.U16();
    const uint32_t opcode = flags >> 11 & 15;
    const bool response = (flags & 0x8000) != 0;
    const bool shape = response ? qd == 0 && an + ns + ar >= 1 : qd == 1 && an == 0 && ar <= 1;
    if (!shape || (opcode != 0 && (opcode < 5 || opcode > 8)) || !ReadName(r, name, false)) {
      return false;
    }
    const uint32_t type = r.U16();
    return (type == 0x20 || type == 0x21 || (response && type == 0x0a)) && r.U16() == 1 && r.Ok();
  }

  // The datagram service: a datagram's source name, or a query's name.
  static bool DatagramService(ByteReader r, Name &name) {
    const uint32_t type = r.U8();
    r.Skip(9);
    if (type >= 0x10 && type <= 0x12) {
      r.Skip(4);
      Name destination;
      return ReadName(r, name, false) && ReadName(r, destination, false);
    }
    return type >= 0x14 && type <= 0x16 && ReadName(r, name, false);
  }

  static bool Opening(unsigned, ByteReader first, uint8_t transport) {
    return transport != 6 || first.Peek() == 0x81;
  }

  // TCP: only a session request names the service. Its head must read so
  // far: type 0x81, flags, a length for two names, the first name's
  // letters; anything else leaves before the record is whole.
  static Verdict Early(Session<Netbios> &, ByteReader head) {
    const size_t n = head.Left();
    const uint32_t length = n >= 4 ? head.Peek(2) << 8 | head.Peek(3) : 68;
    bool ok = head.Peek(0) == 0x81 && (n < 2 || head.Peek(1) <= 1) && length >= 68 &&
              length <= 1024 && (n < 5 || head.Peek(4) == 0x20);
    for (size_t i = 5; ok && i < n && i < 37; ++i) {
      ok = head.Peek(i) >= 'A' && head.Peek(i) <= 'P';
    }
    return ok ? Verdict::kNeedMore : Verdict::kNotMine;
  }

  static Verdict Feed(Session<Netbios> &s, ByteReader r) {
    Name name;
    bool mine = false;
    if (s.tuple().protocol == 17) {
      mine = NameService(r, name) || DatagramService(r, name);
    } else { // a session request: the called name, then the calling name
      Name calling;
      mine = r.U8() == 0x81 && r.Skip(3) && ReadName(r, name, false) &&
             ReadName(r, calling, false) && r.Empty();
    }
    if (!mine || !s.Name()) {
      return s.named() ? Verdict::kNeedMore : Verdict::kNotMine;
    }
    uint32_t hash = 2166136261u ^ name.type;
    for (uint32_t i = 0; i < name.length; ++i) {
      hash = (hash ^ static_cast<uint8_t>(name.text[i])) * 16777619u;
    }
    State &st = s.state();
    if ((st.reported != 0 && hash == st.last) || st.reported == kMaxNames) {
      return Verdict::kNamed;
    }
    st.last = hash;
    ++st.reported;
    static const char kHex[] = "0123456789ABCDEF";
    const char type[] = {'<', kHex[name.type >> 4], kHex[name.type & 15], '>'};
    s.Publish(0, name.text, name.length);
    s.Publish(1, type, sizeof type);
    return s.tuple().protocol == 17 ? Verdict::kNamed : Verdict::kDone;
  }
};

} // namespace

KEST_DECODER(Netbios)
