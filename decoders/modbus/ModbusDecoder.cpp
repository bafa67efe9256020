// Modbus/TCP on any port, by a request and the answer that echoes it. Each
// message is an MBAP header (transaction id, protocol id 0, a length
// counting the unit id and the PDU, the unit id) and a PDU that opens with
// its function code. A header proves little on its own, so a connection is
// named only when the other side answers a request with the same
// transaction id, unit id and function (or its exception form), and both
// PDUs have the size their function gives them. Reports the first answered
// request's "modbus.function" (a name for the public functions, otherwise
// the number) and "modbus.unit" (decimal); register values and device
// identification objects are left alone.
#include <kest/kit/Decoder.h>
#include <kest/kit/TextLine.h>

namespace {

using namespace oru::kit;

struct Modbus {
  static constexpr Spec kSpec{.plugin = "modbus",
                              .module = MODULE_MODBUS,
                              .protocols = {"Modbus"},
                              .attributes = {"modbus.function", "modbus.unit"},
                              .tcp = true,
                              .tcp_ports = {502},
                              .tcp_framing = Framing::kRecords,
                              // Length at 4 counts the unit id and a PDU of at
                              // most 253 bytes.
                              .records = {.offset = 4, .width = 2, .max = 6 + 254, .min = 6 + 2},
                              .max_messages = 16};
  // Requests still unanswered, the oldest first; a client may have a few in
  // flight.
  static constexpr int kPending = 4;
  struct Pending {
    uint16_t transaction;
    uint8_t unit;
    uint8_t function;
  };
  struct State {
    Pending pending[kPending];
    uint8_t count;
    uint8_t requester; // side of the requests, 1 + side; 0 before the first
  };

  static const char *FunctionName(uint32_t f) {
    switch (f) {
    case 1:
      return "read-coils";
    case 2:
      return "read-discrete-inputs";
    case 3:
      return "read-holding-registers";
    case 4:
      return "read-input-registers";
    case 5:
      return "write-single-coil";
    case 6:
      return "write-single-register";
    case 7:
      return "read-exception-status";
    case 8:
      return "diagnostics";
    case 11:
      return "get-comm-event-counter";
    case 12:
      return "get-comm-event-log";
    case 15:
      return "write-multiple-coils";
    case 16:
      return "write-multiple-registers";
    case 17:
      return "report-server-id";
    case 20:
      return "read-file-record";
    case 21:
      return "write-file-record";
    case 22:
      return "mask-write-register";
    case 23:
      return "read-write-multiple-registers";
    case 24:
      return "read-fifo-queue";
    case 43:
      return "encapsulated-interface-transport";
    default:
      return nullptr;
    }
  }

  // Whether `pdu` (function code first) has the size its function gives a
  // request, or a response when `response`. Functions without a fixed
  // layout pass with any size.
  static bool Sized(ByteReader pdu, bool response) {
    const uint32_t f = pdu.U8();
    const size_t n = pdu.Left();
    if (f >= 0x80) {
      return response && n == 1 && pdu.U8() != 0;
    }
    if (FunctionName(f) == nullptr) {
      // User-defined and reserved codes: no layout to check, so no proof.
      return false;
    }
    switch (f) {
    case 1:
    case 2:
    case 3:
    case 4:
      return response ? n >= 2 && pdu.Peek(0) == n - 1 : n == 4;
    case 5:
    case 6:
      return n == 4;
    case 15:
    case 16:
      return response ? n == 4 : n >= 6 && pdu.Peek(4) == n - 5;
    case 7:
      return response ? n == 1 : n == 0;
    case 22:
      return n == 6;
    case 23:
      return response ? n >= 2 && pdu.Peek(0) == n - 1 : n >= 10 && pdu.Peek(8) == n - 9;
    default:
      return true;
    }
  }

  // Protocol id 0 in the first bytes of a connection: most are refused here.
  static bool Opening(unsigned, ByteReader first) {
    return first.Left() < 4 || (first.Peek(2) == 0 && first.Peek(3) == 0);
  }

  static Verdict Early(Session<Modbus> &, ByteReader head) {
    // Protocol id 0 and a unit id and function at most 253 bytes long.
    const bool ok = head.Left() < 4 || (head.Peek(2) == 0 && head.Peek(3) == 0);
    return ok ? Verdict::kNeedMore : Verdict::kNotMine;
  }

  static Verdict Feed(Session<Modbus> &s, ByteReader r) {
    State &st = s.state();
    const uint32_t transaction = r.U16();
    const uint32_t protocol = r.U16();
    r.Skip(2);
    const uint32_t unit = r.U8();
    const uint32_t function = r.Peek(0);
    if (!r.Ok() || protocol != 0 || r.Left() > 253) {
      return Verdict::kNotMine;
    }
    const unsigned side = s.side();
    if (st.requester == 0 || st.requester == side + 1) {
      // A request (the first message's side asks).
      if (!Sized(r, false)) {
        return Verdict::kNotMine;
      }
      st.requester = static_cast<uint8_t>(side + 1);
      if (st.count == kPending) {
        for (int i = 1; i < kPending; ++i) {
          st.pending[i - 1] = st.pending[i];
        }
        --st.count;
      }
      st.pending[st.count++] = Pending{static_cast<uint16_t>(transaction),
                                       static_cast<uint8_t>(unit), static_cast<uint8_t>(function)};
      return Verdict::kNeedMore;
    }
    for (int i = 0; i < st.count; ++i) {
      const Pending &p = st.pending[i];
      if (p.transaction == transaction && p.unit == unit && (function & 0x7f) == p.function &&
          Sized(r, true)) {
        if (!s.Name()) {
          return Verdict::kNotMine;
        }
        const char *name = FunctionName(p.function);
        s.Publish(0, name);
        char digits[12];
        s.Publish(1, digits, FormatDecimal(p.unit, digits));
        return Verdict::kDone;
      }
    }
    // An answer to nothing asked.
    return Verdict::kNotMine;
  }
};

} // namespace

KEST_DECODER(Modbus)
