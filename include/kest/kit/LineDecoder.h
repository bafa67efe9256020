// The shape shared by the decoders of line-oriented dialogues (SSH banners,
// SMTP, POP3, IMAP, FTP): read each side's lines as they complete, hand
// them to the protocol's rules, name the protocol when the rules are sure,
// publish what they noted, and leave the connection as soon as the bytes
// rule the protocol out.
//
// Leaving is INSPECT_FINISHED, never INSPECT_ABANDON: these inspectors sit
// on every TCP connection, and an abandon would end the whole chain for the
// other decoders too. They also leave early on foreign bytes (the first
// bytes of a side must be able to open one of the protocol's lines), so
// that message decoders, whose callbacks wait for an empty chain, are not
// held up.
//
// A protocol's rules are a class with:
//   kSpec                         the decoder's Spec (kest/kit/Decoder.h):
//                                 plug-in, module, protocol, TCP ports tried
//                                 first, attribute names (one per note)
//   kMaxLine                      the longest line (bytes before LF)
//   kMaxLines                     lines per side looked at, at most
//   State                         per-connection state, zero to begin with
//   Opening(state, side, bytes, n)    false when a side's first line cannot
//                                     begin with these bytes
//   Line(state, notes, side, text, length, full)   a bit set of LINE_* below;
//                                 `notes` (take it as `auto &`) holds one
//                                 text per attribute, set by index
//
// A protocol that can turn to TLS on the same connection (STARTTLS and its
// kin) says LINE_TLS at the line that accepts it. When the connection's
// policy allows a change of protocol, the bytes of both sides behind the
// last lines read then go to a fresh chain of the transport's inspectors
// (InnerChain.h), so that the TLS decoder names them above this protocol.
// For that the reading goes on where the rules would otherwise stop
// (LINE_LEARNT) until the turn can no longer come (LINE_PLAIN, LINE_DONE).
//
// A protocol whose lines announce connections to come (FTP's data
// connections) also has:
//   kSpec.protocols[1]  the protocol those connections are named
//   kMaxLinesNamed    lines per side looked at once the protocol is named
//   State::expect     set by the reader when the policy allows future flows
//   State::announced  Announcements the rules add to and the reader takes
// Once the protocol is named, the reader expects each announced end point
// (and the same port on the announcing side's own address, which is the one
// that counts behind address translation) through ExpectedFlows.
//
// A protocol whose lines can show flow risks (kest/kit/Risks.h: a password
// in clear) also has:
//   kSpec.borrowed      holding kRiskAttribute
//   State::risks        a bit set, 1 << Risk, the rules add to; the reader
//                       raises each once, once the protocol is named
//   State::watching     while set, LINE_LEARNT does not end the reading:
//                       the rules still wait for the lines that decide a
//                       risk (a login); lines and LINE_DONE still bound it
#ifndef KEST_KIT_LINEDECODER_H
#define KEST_KIT_LINEDECODER_H

#include <kest/kit/Attach.h>
#include <kest/kit/Decoder.h>
#include <kest/kit/ExpectedFlows.h>
#include <kest/kit/InnerChain.h>
#include <kest/kit/ModuleIds.h>
#include <kest/kit/Risks.h>
#include <kest/kit/TextLine.h>

#include <kest/AttributeMgr.h>
#include <kest/Conn.h>
#include <kest/Inspector.h>
#include <kest/InterfaceBroker.h>
#include <kest/Plugin.h>
#include <kest/ProtocolRegistry.h>
#include <kest/fdt/ObjectPrefix.h>
#include <kest/fdt/map.h>

namespace oru::kit {

// What the rules say about one line.
enum : unsigned {
  LINE_GO_ON = 0,
  // The protocol is certain.
  LINE_MINE = 1,
  // Nothing more to read on this side.
  LINE_SIDE_DONE = 2,
  // Nothing more to learn on this connection.
  LINE_DONE = 4,
  // Not this protocol (after LINE_MINE: nothing more to learn).
  LINE_NOT_MINE = 8,
  // Nothing more to learn, but the connection may still turn to TLS.
  LINE_LEARNT = 16,
  // The connection can no longer turn to TLS.
  LINE_PLAIN = 32,
  // The line accepts TLS: both sides' bytes behind their last lines are
  // TLS. Comes with LINE_DONE for readers that do not follow the turn.
  LINE_TLS = 64,
};

// Values the rules take from lines, to publish once the protocol is named.
constexpr uint32_t kNoteCapacity = 256;

template <int N> struct Notes {
  static constexpr int kRows = N > 0 ? N : 1;
  char value[kRows][kNoteCapacity] = {};
  uint16_t length[kRows] = {};
  uint8_t filled[kRows] = {};
  uint8_t published[kRows] = {};

  // Keeps the first value of note `i`, cut to the capacity.
  void Set(int i, const char *text, uint32_t n) {
    if (i < 0 || i >= N || filled[i] != 0) {
      return;
    }
    const uint32_t take = n < kNoteCapacity ? n : kNoteCapacity;
    for (uint32_t k = 0; k < take; ++k) {
      value[i][k] = text[k];
    }
    length[i] = static_cast<uint16_t>(take);
    filled[i] = 1;
  }
  void Set(int i, const TextSpan &span) { Set(i, span.text, span.length); }
};

// End points announced for connections to come, with the side that
// announced each; a zero address stands for that side's own.
struct Announcements {
  static constexpr int kMax = 4;
  oru::IpAddr addr[kMax];
  uint16_t port[kMax];
  uint8_t side[kMax];
  uint8_t count;

  // Beyond kMax before the reader takes them, the latest are dropped.
  void Add(const oru::IpAddr &a, uint16_t p, unsigned s) {
    if (count < kMax) {
      addr[count] = a;
      port[count] = p;
      side[count++] = static_cast<uint8_t>(s & 1);
    }
  }
};

// Who a side has shown itself to be, for rules that tell clients from
// servers by what they say rather than by who connected.
enum LineRole : uint8_t { ROLE_NONE, ROLE_CLIENT, ROLE_SERVER };

// Notes of a protocol's rules: one per attribute.
template <class Rules> constexpr int kNotesOf = Rules::kSpec.AttributeCount();

template <class Rules>
concept RaisingRisks = requires(typename Rules::State state) {
  state.risks;
  state.watching;
};

template <class Rules>
concept Announcing = requires(typename Rules::State state) {
  Rules::kMaxLinesNamed;
  state.expect;
  state.announced;
};

// One connection's reading, free of the library's connection objects so
// that tests and the fuzz target drive it on flows of their own.
template <class Rules> struct Dialog {
  // UPGRADE: the connection turned to TLS behind the last lines read (From).
  enum Outcome { WAIT, LEAVE, UPGRADE };

  struct Side {
    uint64_t pos = 0;
    uint32_t lines = 0;
    uint8_t started = 0;
    uint8_t done = 0;
  };

  Side side[2];
  typename Rules::State state = {};
  Notes<kNotesOf<Rules>> notes;
  uint8_t mine = 0;
  // Whether a turn to TLS is followed: the reading goes on after
  // LINE_LEARNT until LINE_PLAIN or LINE_TLS.
  uint8_t follow = 0;
  uint8_t learnt = 0;
  uint8_t plain = 0;

  // Reads the side's complete lines; LEAVE when nothing more is to be
  // learnt (the protocol named or not).
  Outcome Read(const oru::FlowBuffer &flow, unsigned s) {
    Side &me = side[s & 1];
    if (me.started == 0) {
      me.pos = flow.Begin();
      me.started = 1;
    }
    // Foreign bytes are turned away before a line is looked for: most
    // connections are not this protocol, and their first bytes say so.
    if (me.done == 0 && me.lines == 0 && !OpeningAgrees(flow, s & 1)) {
      return Fail(me);
    }
    while (me.done == 0) {
      TextLine line;
      const LineRead read = ReadLine(flow, me.pos, Rules::kMaxLine, line);
      if (read == LINE_WAIT) {
        break;
      }
      if (read != LINE_READY || ++me.lines > MaxLines()) {
        return Fail(me);
      }
      const unsigned say = Rules::Line(state, notes, s & 1, line.text, line.length, line.full);
      if ((say & LINE_MINE) != 0) {
        mine = 1;
      }
      if ((say & LINE_NOT_MINE) != 0) {
        return LEAVE;
      }
      if ((say & LINE_TLS) != 0 && follow != 0) {
        return UPGRADE;
      }
      if ((say & LINE_DONE) != 0) {
        return LEAVE;
      }
      plain |= (say & LINE_PLAIN) != 0 ? 1 : 0;
      learnt |= (say & LINE_LEARNT) != 0 ? 1 : 0;
      if (learnt != 0 && (follow == 0 || plain != 0) && !Watching()) {
        return LEAVE;
      }
      if ((say & LINE_SIDE_DONE) != 0) {
        me.done = 1;
      }
    }
    return side[0].done != 0 && side[1].done != 0 ? LEAVE : WAIT;
  }

  // Where the side's bytes stop being lines: behind the last line read, or
  // `unread` for a side not read at all.
  uint64_t From(unsigned s, uint64_t unread) const {
    const Side &me = side[s & 1];
    return me.started != 0 ? me.pos : unread;
  }

  // Whether the side holds bytes not yet read as a line.
  bool Pending(const oru::FlowBuffer &flow, unsigned s) const {
    const Side &me = side[s & 1];
    return me.done == 0 && me.pos < flow.End();
  }

private:
  bool Watching() const {
    if constexpr (RaisingRisks<Rules>) {
      return state.watching != 0;
    }
    return false;
  }

  uint32_t MaxLines() const {
    if constexpr (Announcing<Rules>) {
      return mine != 0 ? Rules::kMaxLinesNamed : Rules::kMaxLines;
    }
    return Rules::kMaxLines;
  }

  // A side that goes wrong: the end of the connection before the protocol
  // is named, only the end of that side after.
  Outcome Fail(Side &me) {
    me.done = 1;
    if (mine == 0) {
      return LEAVE;
    }
    return side[0].done != 0 && side[1].done != 0 ? LEAVE : WAIT;
  }

  bool OpeningAgrees(const oru::FlowBuffer &flow, unsigned s) {
    char bytes[16];
    const uint32_t n = CopyFlow(flow, side[s].pos, bytes, sizeof bytes);
    return n == 0 || Rules::Opening(state, s, bytes, n);
  }
};

// The thread's inspector: one Dialog per connection, by connection number,
// dropped when the inspector leaves the connection's chain. After a turn to
// TLS it stays on the chain and passes every packet to the connection's
// inner chain until nothing there waits.
template <class Rules> class LineInspector final : public oru::Inspector {
public:
  unsigned int Inspect(oru::ParentDpi * /*parent*/, oru::PktInfo &pkt, oru::Tuple &tuple,
                       oru::fdt::intrusive_ptr<oru::Conn> &conn) override {
    oru::Conn *c = conn.get();
    if (c == nullptr || c == m_inside) {
      // The inner chain is built from the same rules, so it holds this
      // inspector too: the bytes inside are not this protocol's lines.
      return oru::INSPECT_FINISHED;
    }
    Entry *found = m_dialogs.Find(*c);
    if (found == nullptr) {
      // Most connections are not this protocol and say so in their first
      // bytes: they leave before any state is made for them.
      if (Foreign(c->m_flow[pkt.side != 0 ? 1 : 0], pkt, pkt.side != 0 ? 1 : 0)) {
        return oru::INSPECT_FINISHED;
      }
      found = m_dialogs.Get(*c);
      if (found == nullptr) {
        return oru::INSPECT_FINISHED;
      }
      found->dialog.follow = (c->m_policy & oru::POLICY_CHAMELEON) != 0 ? 1 : 0;
      if constexpr (Announcing<Rules>) {
        found->dialog.state.expect = m_expected != nullptr && ExpectedFlows::Allowed(*c);
      }
    }
    Entry &entry = *found;
    if (entry.inner.get() != nullptr) {
      return PassInner(entry, pkt, tuple, conn);
    }
    Dialog<Rules> &dialog = entry.dialog;
    const unsigned s = pkt.side != 0 ? 1 : 0;
    const bool known = dialog.mine != 0;
    const typename Dialog<Rules>::Outcome outcome = dialog.Read(c->m_flow[s], s);
    if (dialog.mine != 0) {
      if (!known && !c->PushProtocol(m_reg.Proto())) {
        return oru::INSPECT_FINISHED;
      }
      Publish(*c, dialog.notes);
      if constexpr (RaisingRisks<Rules>) {
        RaiseNew(entry.raised, dialog.state.risks);
      }
      if constexpr (Announcing<Rules>) {
        Expect(*c, dialog.state.announced);
      }
    }
    if (outcome == Dialog<Rules>::UPGRADE) {
      const uint64_t from[2] = {dialog.From(0, c->m_flow[0].m_next_pos),
                                dialog.From(1, c->m_flow[1].m_next_pos)};
      entry.inner = InnerChain::Start(*c, 6, m_reg.Proto(), from);
      if (entry.inner.get() == nullptr) {
        return oru::INSPECT_FINISHED;
      }
      // The accepting line's packet may carry the first inner bytes.
      return PassInner(entry, pkt, tuple, conn);
    }
    if (outcome == Dialog<Rules>::LEAVE) {
      return oru::INSPECT_FINISHED;
    }
    // The unread rest of the line must outlive the packet.
    if (dialog.Pending(c->m_flow[s], s) && !c->m_flow[s].Sync()) {
      return oru::INSPECT_FINISHED;
    }
    return oru::INSPECT_STAY;
  }

  // The first bytes a connection may open with: those that Opening does
  // not turn away as a 1-byte first segment (see Foreign).
  static bool Openings(uint8_t /*transport*/, oru::FirstBytes &first) {
    for (unsigned side = 0; side < 2; ++side) {
      first.AllowWhere(side, [side](uint8_t byte) {
        typename Rules::State fresh = {};
        const char text = static_cast<char>(byte);
        return Rules::Opening(fresh, side, &text, 1);
      });
    }
    return true;
  }

  void OnChainExit(oru::fdt::intrusive_ptr<oru::Conn> &conn) override {
    oru::Conn *c = conn.get();
    if (c == nullptr || c == m_inside) {
      // This inspector's entry of the inner chain: the dialog goes on.
      return;
    }
    Entry *entry = m_dialogs.Find(*c);
    if (entry == nullptr) {
      return;
    }
    if (entry->inner.get() != nullptr) {
      m_inside = c;
      entry->inner->End(conn);
      m_inside = nullptr;
    }
    m_dialogs.Drop(*c);
  }

  bool Start() {
    if (!m_reg.Start(Rules::kSpec)) {
      return false;
    }
    if constexpr (Announcing<Rules>) {
      m_expected = oru::fdt::CreateObject<ExpectedProtocol>(oru::fdt::OBJECT_LOCAL, uint8_t{6},
                                                            m_reg.Proto(1));
      if (m_expected == nullptr) {
        return false;
      }
      m_expected->add_ref();
    }
    return true;
  }

  void Stop() {
    if constexpr (Announcing<Rules>) {
      if (m_expected != nullptr) {
        m_expected->Withdraw();
        m_expected->release();
        m_expected = nullptr;
      }
    }
    m_reg.Stop();
  }

private:
  struct Entry {
    Dialog<Rules> dialog;
    // The risks raised already, as bits of State::risks.
    uint32_t raised;
    // Set once the connection turned to TLS.
    oru::fdt::intrusive_ptr<InnerChain> inner;
  };

  // Whether the side's first bytes cannot open one of the protocol's lines,
  // as the dialogue's first reading would find.
  // The packet's own bytes are the side's first ones most of the time, and
  // are read in place then.
  static bool Foreign(const oru::FlowBuffer &flow, const oru::PktInfo &pkt, unsigned s) {
    char copy[16];
    const char *bytes = copy;
    uint32_t n;
    if (pkt.data != nullptr && pkt.stream_pos == flow.Begin() &&
        (pkt.length >= sizeof copy || pkt.stream_pos + pkt.length == flow.End())) {
      bytes = reinterpret_cast<const char *>(pkt.data);
      n = pkt.length < sizeof copy ? pkt.length : static_cast<uint32_t>(sizeof copy);
    } else {
      n = CopyFlow(flow, flow.Begin(), copy, sizeof copy);
    }
    typename Rules::State fresh = {};
    return n != 0 && !Rules::Opening(fresh, s, bytes, n);
  }

  // The packet to the inner chain; the inspector leaves (never abandons,
  // whatever the inner chain answered) once nothing inside waits.
  unsigned int PassInner(Entry &entry, oru::PktInfo &pkt, oru::Tuple &tuple,
                         oru::fdt::intrusive_ptr<oru::Conn> &conn) {
    m_inside = conn.get();
    entry.inner->Pass(pkt, tuple, conn);
    const bool done = entry.inner->Done();
    m_inside = nullptr;
    return done ? oru::INSPECT_FINISHED : oru::INSPECT_STAY;
  }

  // Each note once, to whoever listens, when the connection allows it.
  void Publish(const oru::Conn & /*conn*/, Notes<kNotesOf<Rules>> &notes) {
    for (int i = 0; i < kNotesOf<Rules>; ++i) {
      if (notes.filled[i] != 0 && notes.published[i] == 0) {
        notes.published[i] = 1;
        m_reg.Publish(i, notes.value[i], notes.length[i]);
      }
    }
  }

  // Each risk the rules found and nobody was told of yet, once.
  void RaiseNew(uint32_t &raised, uint32_t risks) {
    static_assert(risk_detail::IndexIn(Rules::kSpec) >= 0,
                  "list oru::kit::kRiskAttribute among the Spec's borrowed attributes");
    for (uint32_t fresh = risks & ~raised; fresh != 0; fresh &= fresh - 1) {
      RaiseOnce(raised, static_cast<Risk>(__builtin_ctz(fresh)));
    }
  }

  // Each announced end point, once the protocol is named.
  void Expect(const oru::Conn &conn, Announcements &announced) {
    for (int i = 0; i < announced.count; ++i) {
      const oru::IpAddr &own = announced.side[i] == 0 ? conn.m_tuple.src : conn.m_tuple.dst;
      if (!announced.addr[i].is_zero() && announced.addr[i] != own) {
        m_expected->Expect(announced.addr[i], announced.port[i]);
      }
      m_expected->Expect(own, announced.port[i]);
    }
    announced.count = 0;
  }

  ConnStates<Entry> m_dialogs;
  // Where announced connections are expected, for rules that announce.
  ExpectedProtocol *m_expected = nullptr;
  // The connection whose inner chain runs now.
  oru::Conn *m_inside = nullptr;
  Registration m_reg;
};

// The decoder of a protocol's rules, for Plugin and KEST_LINE_DECODER.
template <class Rules> struct LineDecoder {
  static constexpr const Spec &kSpec = Rules::kSpec;
  using Inspector = LineInspector<Rules>;
};

} // namespace oru::kit

// The plug-in's "query" entry point for a line dialogue's rules.
#define KEST_LINE_DECODER(Rules) KEST_DECODER(::oru::kit::LineDecoder<Rules>)

#endif
