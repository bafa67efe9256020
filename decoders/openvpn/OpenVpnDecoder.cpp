// OpenVPN on any port, over UDP or TCP (where each packet has a two-byte
// length in front), by the reset pair that opens a session: the client's
// P_CONTROL_HARD_RESET_CLIENT (V1, V2 or V3) with key id 0 and its session
// id, then the server's P_CONTROL_HARD_RESET_SERVER with key id 0. The
// server's reset proves the pair when it carries the client's session id
// back (in plain and tls-auth sessions the acknowledgement names it,
// behind the HMAC and packet id of tls-auth, whatever their sizes); with
// tls-crypt that part is encrypted, and the client's next control packet
// or acknowledgement, under the same session id, proves it instead. The
// client speaks first; a flow seen after its resets is not named. Reports
// "openvpn.opcode", the name of the client's reset. The TLS records inside
// the control channel and the data channel are left alone.
#include <kest/kit/Decoder.h>

namespace {

using namespace oru::kit;

struct OpenVpn {
  static constexpr Spec kSpec{.plugin = "openvpn",
                              .module = MODULE_OPENVPN,
                              .protocols = {"OpenVPN"},
                              .attributes = {"openvpn.opcode"},
                              .tcp = true,
                              .tcp_ports = {1194},
                              .udp = true,
                              .udp_ports = {1194},
                              .tcp_framing = Framing::kRecords,
                              .records = {.offset = 0, .width = 2, .max = 2 + 4096, .min = 2 + 9},
                              .max_messages = 16};
  enum : uint8_t {
    kResetClientV1 = 1,
    kResetServerV1 = 2,
    kControl = 4,
    kAck = 5,
    kResetClientV2 = 7,
    kResetServerV2 = 8,
    kResetClientV3 = 10,
    kControlWkc = 11,
  };
  // The shortest control packet: opcode, session id, an empty ack array
  // and a packet id.
  static constexpr size_t kMinControl = 1 + 8 + 1 + 4;
  // How far into the server's reset the client's session id is looked for:
  // past the longest HMAC (SHA-512), packet id, time and a few acks.
  static constexpr size_t kEchoWithin = 1 + 8 + 64 + 8 + 1 + 4 * 8 + 8;
  struct State {
    uint8_t client_op; // 0 before the client's reset
    uint8_t server_op; // 0 before the server's reset
    uint8_t client[8];
    uint8_t server[8];
  };

  static bool ClientReset(uint32_t b) {
    const uint32_t op = b >> 3;
    return (b & 7) == 0 && (op == kResetClientV1 || op == kResetClientV2 || op == kResetClientV3);
  }

  static bool Opening(unsigned, ByteReader first) {
    // A datagram opens with the reset; a TCP stream with its length first.
    return ClientReset(first.Peek(0)) ||
           (first.Peek(0) < 0x10 && (first.Left() < 3 || ClientReset(first.Peek(2))));
  }

  static Verdict Early(Session<OpenVpn> &, ByteReader head) {
    const uint32_t op = head.Peek(2) >> 3;
    return head.Left() < 3 || (op >= 1 && op <= 11) ? Verdict::kNeedMore : Verdict::kNotMine;
  }

  static bool Same(const uint8_t *a, const uint8_t *b) {
    for (int i = 0; i < 8; ++i) {
      if (a[i] != b[i]) {
        return false;
      }
    }
    return true;
  }

  // Whether `r` holds the 8 bytes of `id` within its first `within` bytes.
  static bool Holds(ByteReader r, const uint8_t *id, size_t within) {
    const size_t n = r.Left() < within ? r.Left() : within;
    for (size_t at = 0; at + 8 <= n; ++at) {
      if (Same(r.Here() + at, id)) {
        return true;
      }
    }
    return false;
  }

  static Verdict Named(Session<OpenVpn> &s) {
    if (!s.Name()) {
      return Verdict::kNotMine;
    }
    static constexpr const char *kResets[] = {nullptr,
                                              "P_CONTROL_HARD_RESET_CLIENT_V1",
                                              nullptr,
                                              nullptr,
                                              nullptr,
                                              nullptr,
                                              nullptr,
                                              "P_CONTROL_HARD_RESET_CLIENT_V2",
                                              nullptr,
                                              nullptr,
                                              "P_CONTROL_HARD_RESET_CLIENT_V3"};
    s.Publish(0, kResets[s.state().client_op]);
    return Verdict::kDone;
  }

  static Verdict Feed(Session<OpenVpn> &s, ByteReader r) {
    if (s.tuple().protocol == 6) {
      r.Skip(2);
    }
    State &st = s.state();
    const size_t size = r.Left();
    const uint32_t b = r.U8();
    const uint32_t op = b >> 3;
    uint8_t session[8];
    for (uint8_t &byte : session) {
      byte = static_cast<uint8_t>(r.U8());
    }
    if (!r.Ok() || size < kMinControl || (b & 7) != 0) {
      return Verdict::kNotMine;
    }
    const bool client = s.side() == 0;
    if (st.client_op == 0) {
      if (!client || !ClientReset(b)) {
        return Verdict::kNotMine;
      }
      st.client_op = static_cast<uint8_t>(op);
      for (int i = 0; i < 8; ++i) {
        st.client[i] = session[i];
      }
      return Verdict::kNeedMore;
    }
    if (client) {
      // The client's reset again (a retransmission), or, once the server
      // answered, its next control packet: under its session id alike.
      if (!Same(session, st.client)) {
        return Verdict::kNotMine;
      }
      if (op == st.client_op) {
        return Verdict::kNeedMore;
      }
      if (st.server_op != 0 && (op == kControl || op == kAck || op == kControlWkc)) {
        return Named(s);
      }
      return Verdict::kNotMine;
    }
    if (st.server_op != 0 && Same(session, st.server) && (op == kControl || op == kAck)) {
      return Verdict::kNeedMore;
    }
    const uint32_t answer = st.client_op == kResetClientV1 ? kResetServerV1 : kResetServerV2;
    if (op != answer || (st.server_op != 0 && !Same(session, st.server))) {
      return Verdict::kNotMine;
    }
    st.server_op = static_cast<uint8_t>(op);
    for (int i = 0; i < 8; ++i) {
      st.server[i] = session[i];
    }
    return Holds(r, st.client, kEchoWithin) ? Named(s) : Verdict::kNeedMore;
  }
};

} // namespace

KEST_DECODER(OpenVpn)
