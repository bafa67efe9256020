// XMPP on any port, by the stream header each side opens with: a
// "<stream:stream" element (after an optional XML declaration) that
// declares the streams namespace. The client's header reports its "to"
// attribute as "xmpp.to", the server's its "from" as "xmpp.from". A client's
// STARTTLS that the server answers with "<proceed" hands the connection on,
// under chameleon, for the TLS decoder. The first 2 KB of each side are
// read.
#include <kest/kit/Decoder.h>
#include <kest/kit/TextLine.h>

#include <string.h>

namespace {

using namespace oru::kit;

struct Xmpp {
  static constexpr Spec kSpec{.plugin = "xmpp",
                              .module = MODULE_XMPP,
                              .protocols = {"XMPP"},
                              .attributes = {"xmpp.to", "xmpp.from"},
                              .tcp = true,
                              .tcp_ports = {5222, 5269}};
  static constexpr uint32_t kRoom = 2048;
  struct Side {
    char text[kRoom];
    uint32_t have;
    uint32_t read; // bytes of `text` judged already
    bool header;   // the stream header was read
  };
  struct State {
    Side side[2];
    bool start_tls; // the client asked for TLS
  };

  // Where `word` stands in [from, have) of the side's text, or -1.
  static int Find(const Side &side, uint32_t from, const char *word) {
    const uint32_t n = TextLength(word);
    for (uint32_t at = from; at + n <= side.have; ++at) {
      if (memcmp(side.text + at, word, n) == 0) {
        return static_cast<int>(at);
      }
    }
    return -1;
  }

  // The value of attribute `name` (" to=", say) inside [from, end).
  static TextSpan Attribute(const Side &side, uint32_t from, uint32_t end, const char *name) {
    const uint32_t n = TextLength(name);
    for (uint32_t at = from; at + n + 1 < end; ++at) {
      const char quote = side.text[at + n];
      if (memcmp(side.text + at, name, n) == 0 && (quote == '\'' || quote == '"')) {
        uint32_t close = at + n + 1;
        while (close < end && side.text[close] != quote) {
          ++close;
        }
        return TextSpan{side.text + at + n + 1, close - (at + n + 1)};
      }
    }
    return TextSpan{nullptr, 0};
  }

  // Either side opens with its stream header (or an XML declaration).
  static bool Opening(unsigned, ByteReader first) { return first.Peek() == '<'; }

  static Verdict Feed(Session<Xmpp> &s, ByteReader r) {
    State &st = s.state();
    Side &side = st.side[s.side()];
    if (side.have == 0 && r.Left() != 0 && r.Peek() != '<') {
      // Most streams say at once that they are not XML: nothing is copied.
      return s.named() ? Verdict::kDone : Verdict::kNotMine;
    }
    const uint32_t room = kRoom - side.have;
    const uint32_t take = static_cast<uint32_t>(r.Left() < room ? r.Left() : room);
    memcpy(side.text + side.have, r.Here(), take);
    side.have += take;
    // Before its header a side holds only an XML declaration, white space
    // and the header's start.
    const char opening = side.text[side.text[0] == '<' ? 1 : 0];
    if (!side.header &&
        (side.text[0] != '<' || (side.have > 1 && opening != '?' && opening != 's'))) {
      return s.named() ? Verdict::kDone : Verdict::kNotMine;
    }
    if (!side.header) {
      const int at = Find(side, 0, "<stream:stream");
      const int end = at < 0 ? -1 : Find(side, static_cast<uint32_t>(at), ">");
      if (end < 0) {
        return side.have == kRoom ? Verdict::kNotMine : Verdict::kNeedMore;
      }
      const uint32_t from = static_cast<uint32_t>(at), to = static_cast<uint32_t>(end);
      if (Attribute(side, from, to, "xmlns:stream=").length == 0 || !s.Name()) {
        return Verdict::kNotMine;
      }
      side.header = true;
      side.read = to;
      const bool client = s.side() == 0;
      const TextSpan name = Attribute(side, from, to, client ? " to=" : " from=");
      if (name.length != 0) {
        s.Publish(client ? 0 : 1, name.text, name.length);
      }
    }
    if (s.side() == 0 && Find(side, side.read, "<starttls") >= 0) {
      st.start_tls = true;
    } else if (s.side() == 1 && st.start_tls) {
      // TLS begins behind the whole "<proceed .../>".
      const int at = Find(side, side.read, "<proceed");
      if (at >= 0 && Find(side, static_cast<uint32_t>(at), ">") >= 0) {
        s.HandOn();
        return Verdict::kDone;
      }
      if (at >= 0) {
        side.read = static_cast<uint32_t>(at);
        return Verdict::kNeedMore;
      }
    }
    side.read = side.have > 16 ? side.have - 16 : 0; // a word may lie across runs
    return side.have == kRoom && st.side[0].have == kRoom ? Verdict::kDone : Verdict::kNeedMore;
  }
};

} // namespace

KEST_DECODER(Xmpp)
