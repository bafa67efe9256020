// WireGuard over UDP on any port, by its messages: a type of 1 to 4, three
// zero bytes, and the exact size of the type (handshake initiation 148,
// response 92, cookie reply 64; transport data at least 32 and a multiple
// of 16). One datagram proves little, so a flow is named only by a pair:
// the answer to an initiation (a response or cookie reply from the other
// side naming the initiator's sender index as its receiver), or, for a
// flow seen after its handshake, transport data both ways, each side
// repeating its receiver index with a counter that grows. Reports
// "wireguard.sender_index", the initiator's and then the responder's
// (without a handshake: the first side's and then the other's, read from
// the receiver indices addressed to them), each the 32-bit little-endian
// number of the message as 8 hex digits. Everything behind the indices is
// encrypted and left alone.
#include <kest/kit/Decoder.h>

namespace {

using namespace oru::kit;

struct WireGuard {
  static constexpr Spec kSpec{.plugin = "wireguard",
                              .module = MODULE_WIREGUARD,
                              .protocols = {"WireGuard"},
                              .attributes = {"wireguard.sender_index"},
                              .udp = true,
                              .udp_ports = {51820},
                              .max_messages = 64};
  struct Side {
    uint8_t initiated; // an initiation was seen, with `sender`
    uint8_t data;      // transport data seen: how many
    uint32_t sender;
    uint32_t receiver; // of the first transport data
    uint64_t counter;  // of the last transport data
  };
  struct State {
    Side side[2];
  };

  static bool Opening(unsigned, ByteReader first) {
    const uint32_t type = first.Peek(0);
    return type >= 1 && type <= 4 && first.Peek(1) == 0 && first.Peek(2) == 0 && first.Peek(3) == 0;
  }

  static void PublishIndex(Session<WireGuard> &s, uint32_t index) {
    static constexpr char kHex[] = "0123456789abcdef";
    char text[8];
    for (int i = 0; i < 8; ++i) {
      text[i] = kHex[(index >> (28 - 4 * i)) & 0xf];
    }
    s.Publish(0, text, sizeof text);
  }

  static Verdict Feed(Session<WireGuard> &s, ByteReader r) {
    const size_t size = r.Left();
    const uint32_t type = r.U8();
    const uint32_t reserved = r.U24();
    const uint32_t first = r.U32Le();
    if (!r.Ok() || reserved != 0 || type < 1 || type > 4) {
      return s.named() ? Verdict::kDone : Verdict::kNotMine;
    }
    static constexpr size_t kSizes[] = {0, 148, 92, 64};
    if (type < 4 ? size != kSizes[type] : size < 32 || size % 16 != 0) {
      return s.named() ? Verdict::kDone : Verdict::kNotMine;
    }
    State &st = s.state();
    Side &me = st.side[s.side()];
    const Side &peer = st.side[s.side() ^ 1];
    if (type == 1) {
      me.initiated = 1;
      me.sender = first;
      return Verdict::kNeedMore;
    }
    if (type == 2 || type == 3) {
      // A response carries its own sender index, then the receiver; a
      // cookie reply the receiver alone.
      const uint32_t receiver = type == 2 ? r.U32Le() : first;
      if (peer.initiated == 0 || receiver != peer.sender) {
        return Verdict::kNeedMore;
      }
      if (!s.Name()) {
        return Verdict::kNotMine;
      }
      PublishIndex(s, peer.sender);
      if (type == 2) {
        PublishIndex(s, first);
      }
      return Verdict::kDone;
    }
    const uint64_t counter = r.U64Le();
    if (me.data != 0 && (first != me.receiver || counter <= me.counter)) {
      return Verdict::kNotMine;
    }
    if (me.data == 0) {
      me.receiver = first;
    }
    me.counter = counter;
    if (me.data < 2) {
      ++me.data;
    }
    if (me.data < 2 || peer.data < 2) {
      return Verdict::kNeedMore;
    }
    if (!s.Name()) {
      return Verdict::kNotMine;
    }
    // The first side's index is what the other side addresses its data to.
    const Side &zero = st.side[0];
    const Side &one = st.side[1];
    PublishIndex(s, one.receiver);
    PublishIndex(s, zero.receiver);
    return Verdict::kDone;
  }
};

} // namespace

KEST_DECODER(WireGuard)
