// DNP3 on any port, over TCP or UDP, by its link frames: 0x05 0x64, a
// length of at least 5 (control, addresses and user data, without the
// CRCs), control, destination and source, and a CRC over those eight bytes;
// then the user data in blocks of up to 16 bytes, each followed by its CRC.
// A frame is taken when its header CRC and its first block's CRC hold: with
// the start bytes that is more than 48 bits of proof, from whichever side
// speaks first. Reports "dnp3.function", the application function of the
// first frame that carries the first fragment of an application message (a
// name for the public codes, otherwise the number); frames of the link
// layer alone are passed by their length. Objects are left alone.
#include <kest/kit/Decoder.h>
#include <kest/kit/TextLine.h>

namespace {

using namespace oru::kit;

struct Dnp3 {
  static constexpr Spec kSpec{.plugin = "dnp3",
                              .module = MODULE_DNP3,
                              .protocols = {"DNP3"},
                              .attributes = {"dnp3.function"},
                              .tcp = true,
                              .tcp_ports = {20000},
                              .udp = true,
                              .udp_ports = {20000},
                              .max_messages = 32};
  // The header (10 bytes) and the first block with its CRC (18).
  static constexpr uint32_t kHead = 28;
  // Frames read, by either side, before giving up on finding a function.
  static constexpr uint32_t kMaxFrames = 8;
  struct State {
    uint8_t head[kHead];
    uint8_t have;
    uint8_t frames;
    // Bytes of the current frame still to pass, per side (TCP).
    uint16_t skip;
    uint8_t side; // 1 + the side whose frame is being read
  };

  static uint16_t Crc(const uint8_t *p, size_t n) {
    uint16_t crc = 0;
    for (size_t i = 0; i < n; ++i) {
      crc ^= p[i];
      for (int b = 0; b < 8; ++b) {
        crc = (crc & 1) != 0 ? static_cast<uint16_t>((crc >> 1) ^ 0xA6BC)
                             : static_cast<uint16_t>(crc >> 1);
      }
    }
    return static_cast<uint16_t>(~crc);
  }
  static bool CrcHolds(const uint8_t *p, size_t n) {
    const uint16_t crc = Crc(p, n);
    return p[n] == (crc & 0xff) && p[n + 1] == (crc >> 8);
  }

  static const char *FunctionName(uint32_t f) {
    static constexpr const char *kRequests[] = {"confirm",
                                                "read",
                                                "write",
                                                "select",
                                                "operate",
                                                "direct-operate",
                                                "direct-operate-nr",
                                                "immediate-freeze",
                                                "immediate-freeze-nr",
                                                "freeze-clear",
                                                "freeze-clear-nr",
                                                "freeze-at-time",
                                                "freeze-at-time-nr",
                                                "cold-restart",
                                                "warm-restart",
                                                "initialize-data",
                                                "initialize-application",
                                                "start-application",
                                                "stop-application",
                                                "save-configuration",
                                                "enable-unsolicited",
                                                "disable-unsolicited",
                                                "assign-class",
                                                "delay-measure",
                                                "record-current-time",
                                                "open-file",
                                                "close-file",
                                                "delete-file",
                                                "get-file-info",
                                                "authenticate-file",
                                                "abort-file",
                                                "activate-config",
                                                "authenticate-req",
                                                "authenticate-err"};
    if (f < sizeof kRequests / sizeof kRequests[0]) {
      return kRequests[f];
    }
    return f == 129   ? "response"
           : f == 130 ? "unsolicited-response"
           : f == 131 ? "authenticate-response"
                      : nullptr;
  }

  static bool Opening(unsigned, ByteReader first) {
    return first.Peek(0) == 0x05 && (first.Left() < 2 || first.Peek(1) == 0x64);
  }

  // User data bytes of a frame of length field `length`, and its whole size.
  static uint32_t FrameSize(uint32_t length) {
    const uint32_t user = length - 5;
    return 10 + user + 2 * ((user + 15) / 16);
  }

  // Bytes of a frame's start the state needs: the header, then as much of
  // the first block as the length gives, with its CRC.
  static uint32_t Wanted(const State &st) {
    if (st.have < 10 || st.head[2] <= 5) {
      return 10;
    }
    const uint32_t user = st.head[2] - 5u;
    return 10 + (user < 16 ? user : 16) + 2;
  }

  // Whether the frame whose start is in the state holds; its application
  // function in `function` when it opens an application message (-1 when
  // not).
  static bool Judge(const State &st, int &function) {
    const uint8_t *h = st.head;
    function = -1;
    if (h[0] != 0x05 || h[1] != 0x64 || h[2] < 5 || !CrcHolds(h, 8)) {
      return false;
    }
    const uint32_t block = st.have - 12u;
    if (h[2] == 5) {
      return true;
    }
    if (!CrcHolds(h + 10, block)) {
      return false;
    }
    // The transport header's FIR bit opens an application message: its
    // control byte, then the function.
    if ((h[10] & 0x40) != 0 && block >= 3) {
      function = h[12];
    }
    return true;
  }

  static Verdict Feed(Session<Dnp3> &s, ByteReader r) {
    State &st = s.state();
    const unsigned side = s.side();
    const bool datagram = s.tuple().protocol != 6;
    if (datagram || st.side != side + 1) {
      // A datagram opens a frame; on TCP, so does the other side's turn.
      st.have = 0;
      st.skip = 0;
    }
    st.side = static_cast<uint8_t>(side + 1);
    while (!r.Empty()) {
      if (st.skip != 0) {
        const size_t n = st.skip < r.Left() ? st.skip : r.Left();
        r.Skip(n);
        st.skip = static_cast<uint16_t>(st.skip - n);
        continue;
      }
      st.head[st.have++] = static_cast<uint8_t>(r.U8());
      if (st.have == 2 && st.head[1] != 0x64) {
        return s.named() ? Verdict::kDone : Verdict::kNotMine;
      }
      if (st.have < Wanted(st)) {
        continue;
      }
      int function = -1;
      if (!Judge(st, function)) {
        return s.named() ? Verdict::kDone : Verdict::kNotMine;
      }
      if (!s.Name()) {
        return Verdict::kNotMine;
      }
      if (function >= 0) {
        const char *name = FunctionName(static_cast<uint32_t>(function));
        char digits[12];
        s.Publish(0, name != nullptr ? name : digits,
                  name != nullptr ? TextLength(name)
                                  : FormatDecimal(static_cast<uint32_t>(function), digits));
        return Verdict::kDone;
      }
      if (++st.frames >= kMaxFrames) {
        return Verdict::kDone;
      }
      st.skip = static_cast<uint16_t>(FrameSize(st.head[2]) - st.have);
      st.have = 0;
    }
    if (datagram && st.have != 0) {
      // A datagram that ends inside a frame.
      return s.named() ? Verdict::kDone : Verdict::kNotMine;
    }
    return Verdict::kNeedMore;
  }
};

} // namespace

KEST_DECODER(Dnp3)
