// RTP and RTCP (RFC 3550) on UDP, any port, by their headers alone: the
// media of a call whose signalling kest does not see (SIP over TLS, a
// capture that begins mid-call). Media that SIP or RTSP announced is named
// by those decoders on its first datagram; this one names what nobody
// announced.
//
// Media has no greeting, and a version of 2 in the first two bits is one
// datagram in four of random bytes, so a flow is judged over several
// datagrams before it is named:
// - RTP: version 2, a payload type that RFC 3551 assigns or a dynamic one,
//   a fixed header with its contributing sources, its extension and its
//   padding inside the datagram; per direction one SSRC,
//   one payload type (comfort noise, 13, and the dynamic types, 96 to 127,
//   which carry telephone events, may come between without counting),
//   sequence numbers that advance by 1 to kMaxGap (a lost datagram), and
//   timestamps that do not go back. A repeated or late datagram (a
//   sequence number at most kMaxGap behind) neither counts nor fails.
//   Named after kRtpSteps advances.
// - RTCP: version 2, a first packet of types 200 to 207 whose length lies
//   inside the datagram, one sender SSRC per direction. Named after
//   kRtcpDatagrams such datagrams on a flow that carried no RTP (RTCP
//   multiplexed with RTP, RFC 5761, passes while the RTP is judged).
// A datagram that is neither leaves the flow at once; once named, the
// decoder leaves it too: nothing more is reported. The state is 30 bytes
// per flow still judged, made only for flows whose first datagram begins
// as version 2 (first byte 0x80 to 0xBF): the transport's gate keeps other
// flows from the decoder.
#include <kest/kit/Decoder.h>

namespace {

using namespace oru::kit;

struct Rtp {
  static constexpr Spec kSpec{.plugin = "rtp",
                              .module = MODULE_RTP,
                              .protocols = {"RTP", "RTCP"},
                              .udp = true,
                              .max_messages = 32};

  // Sequence numbers a datagram may skip (lost ones) or lag (late ones).
  static constexpr uint32_t kMaxGap = 16;
  // How far a timestamp may advance between two datagrams: minutes of
  // silence at 90 kHz.
  static constexpr uint32_t kMaxTimestampStep = 1u << 24;
  static constexpr uint8_t kRtpSteps = 3;
  static constexpr uint8_t kRtcpDatagrams = 2;

  // What one direction's RTP said last.
  struct Direction {
    uint32_t ssrc;
    uint32_t timestamp;
    uint16_t sequence;
    uint8_t payload_type;
    uint8_t seen;
  };
  struct State {
    Direction rtp[2];
    uint32_t rtcp_ssrc[2];
    uint8_t rtcp_seen;
    uint8_t steps;
    bool any_rtp;
  };

  // The transport's gate offers the decoder only flows whose first datagram
  // begins with a version of 2.
  static bool DatagramFirstByte(unsigned /*side*/, uint8_t byte) { return byte >> 6 == 2; }
  // The payload types that RFC 3551 assigns (PCMU, GSM, ..., H.263) and the
  // dynamic ones; the reserved and unassigned ones are not media's. A DNS
  // message, whose flags byte reads as payload type 1, stops here.
  static constexpr bool Assigned(uint32_t payload_type) {
    return payload_type == 0 || (payload_type >= 3 && payload_type <= 18) || payload_type == 25 ||
           payload_type == 26 || payload_type == 28 || (payload_type >= 31 && payload_type <= 34) ||
           payload_type >= 96;
  }
  static bool Opening(unsigned /*side*/, ByteReader first) {
    const uint32_t second = first.Peek(1);
    return first.Left() >= 8 && DatagramFirstByte(0, static_cast<uint8_t>(first.Peek())) &&
           ((second >= 200 && second <= 207) || (first.Left() >= 12 && Assigned(second & 0x7f)));
  }

  // An RTCP packet's header at the datagram's start: its sender SSRC, or
  // false.
  static bool RtcpHead(ByteReader r, uint32_t &ssrc) {
    const size_t size = r.Left();
    const uint32_t first = r.U8();
    const uint32_t type = r.U8();
    const size_t length = (size_t{r.U16()} + 1) * 4;
    ssrc = r.U32();
    return r.Ok() && first >> 6 == 2 && type >= 200 && type <= 207 && length <= size;
  }

  // An RTP header that the datagram holds whole.
  static bool RtpHead(ByteReader r, Direction &d) {
    const size_t size = r.Left();
    const uint32_t first = r.U8();
    const uint32_t second = r.U8();
    d.payload_type = static_cast<uint8_t>(second & 0x7f);
    d.sequence = static_cast<uint16_t>(r.U16());
    d.timestamp = r.U32();
    d.ssrc = r.U32();
    size_t header = 12;
    if (!r.Skip(4 * (first & 0x0f))) {
      return false;
    }
    header += 4 * (first & 0x0f);
    if ((first & 0x10) != 0) {
      r.Skip(2);
      const size_t words = r.U16();
      if (!r.Skip(4 * words)) {
        return false;
      }
      header += 4 + 4 * words;
    }
    // Payload types 72 to 76, not assigned, would read as RTCP's 200 to 204
    // with the marker bit.
    if (!r.Ok() || first >> 6 != 2 || !Assigned(d.payload_type)) {
      return false;
    }
    if ((first & 0x20) != 0) {
      const ByteReader tail = r;
      const uint32_t padding = tail.Peek(tail.Left() - 1);
      return tail.Left() != 0 && padding != 0 && padding <= size - header;
    }
    return true;
  }

  static bool Interlude(uint8_t payload_type) { return payload_type == 13 || payload_type >= 96; }

  // One RTP datagram of a direction: false when it cannot follow the last.
  static bool Follow(State &st, unsigned side, const Direction &now) {
    Direction &last = st.rtp[side];
    if (last.seen == 0) {
      last = now;
      last.seen = 1;
      return true;
    }
    if (now.ssrc != last.ssrc) {
      return false;
    }
    const uint32_t step = static_cast<uint16_t>(now.sequence - last.sequence);
    if (step == 0 || step >= 0x10000 - kMaxGap) {
      return true;
    }
    const uint32_t advance = now.timestamp - last.timestamp;
    if (step > kMaxGap || advance > kMaxTimestampStep) {
      return false;
    }
    if (now.payload_type != last.payload_type && !Interlude(now.payload_type)) {
      return false;
    }
    if (now.payload_type == last.payload_type) {
      ++st.steps;
    }
    last.sequence = now.sequence;
    last.timestamp = now.timestamp;
    return true;
  }

  static Verdict Feed(Session<Rtp> &s, ByteReader r) {
    const oru::AppStack &stack = *s.conn().GetAppStack();
    const uint32_t app = stack.app;
    if (!stack.entries.empty() && app != stack.entries.front().proto &&
        app != s.registration().Proto(0) && app != s.registration().Proto(1)) {
      // Another decoder named the flow (STUN, DTLS and SRTP share WebRTC's).
      return Verdict::kNotMine;
    }
    State &st = s.state();
    const unsigned side = s.side();
    uint32_t ssrc = 0;
    if (RtcpHead(r, ssrc)) {
      if (st.any_rtp) {
        return Verdict::kNeedMore;
      }
      const uint8_t bit = static_cast<uint8_t>(1u << side);
      if ((st.rtcp_seen & bit) != 0 && st.rtcp_ssrc[side] != ssrc) {
        return Verdict::kNotMine;
      }
      st.rtcp_ssrc[side] = ssrc;
      st.rtcp_seen |= bit;
      if (++st.steps < kRtcpDatagrams) {
        return Verdict::kNeedMore;
      }
      return s.Name(1) ? Verdict::kDone : Verdict::kNotMine;
    }
    Direction now{};
    if (!RtpHead(r, now)) {
      return Verdict::kNotMine;
    }
    if (!st.any_rtp) {
      // RTCP seen first counted towards RTCP: RTP starts its own count.
      st.any_rtp = true;
      st.steps = 0;
    }
    if (!Follow(st, side, now)) {
      return Verdict::kNotMine;
    }
    if (st.steps < kRtpSteps) {
      return Verdict::kNeedMore;
    }
    return s.Name(0) ? Verdict::kDone : Verdict::kNotMine;
  }
};

} // namespace

KEST_DECODER(Rtp)
