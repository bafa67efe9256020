// MQTT 3.1, 3.1.1 and 5 on any port, by the client's CONNECT: the first
// packet of the side that speaks first (an MQTT server never does), with
// the protocol name and level of one of those versions ("MQIsdp" 3, "MQTT"
// 4 or 5) and connect flags that keep their rules. A connection seen from
// its middle is named by an exchange only MQTT makes: a PINGREQ answered by
// a PINGRESP, or a PUBLISH of QoS 1 or 2 answered by the PUBACK or PUBREC
// of its packet id. It reports "mqtt.version" ("3.1", "3.1.1", "5.0"),
// "mqtt.client_id" and "mqtt.user" from the CONNECT, and the first four
// distinct topics of either side's PUBLISH and SUBSCRIBE packets
// ("mqtt.topic"). Passwords, will messages, properties and payloads are
// passed by their lengths, unread.
//
// Each side's packets are followed across TCP segments: the fixed header is
// read byte by byte, the first bytes of a body are kept (enough for a
// CONNECT's names or a topic), the rest is counted past.
#include <kest/kit/Decoder.h>

namespace {

using namespace oru::kit;

struct Mqtt {
  static constexpr Spec kSpec{
      .plugin = "mqtt",
      .module = MODULE_MQTT,
      .protocols = {"MQTT"},
      .attributes = {"mqtt.version", "mqtt.client_id", "mqtt.user", "mqtt.topic"},
      .tcp = true,
      // 8883 carries MQTT inside TLS: the TLS decoder's.
      .tcp_ports = {1883}};
  // Bytes of a body kept per side; what lies beyond is not reported.
  static constexpr uint32_t kKeep = 256;
  static constexpr uint8_t kTopics = 4;
  // Packets of the types this decoder reads.
  enum : uint8_t { kConnect = 1, kPublish = 3, kSubscribe = 8 };

  struct Side {
    uint32_t body;  // the body's length, from the fixed header
    uint32_t seen;  // bytes of the body passed so far
    uint8_t type;   // the packet's first byte; 0 between packets
    uint8_t header; // bytes of the length field read
  };
  struct State {
    uint8_t keep[2][kKeep];
    Side side[2];
    uint32_t topic_hash[kTopics];
    uint8_t client; // 1 + the side that spoke first
    uint8_t level;  // the CONNECT's protocol level
    uint8_t topics; // topics published
    // A connection seen from its middle: the reply the first speaker's
    // first packet asks for (its first byte's type bits), and its packet id.
    uint8_t expect;
    uint16_t expect_id;
    bool first_done; // the first speaker's first packet was read
  };
  using S = Session<Mqtt>;

  static bool Opening(unsigned, ByteReader first) {
    const uint32_t b = first.Peek();
    return b == 0x10 || b == 0xC0 || Asks(b);
  }
  // A PUBLISH of QoS 1 or 2, which its receiver acknowledges.
  static bool Asks(uint32_t b) { return (b & 0xF0) == 0x30 && ((b & 6) == 2 || (b & 6) == 4); }

  static Verdict Feed(S &s, ByteReader r) {
    State &st = s.state();
    st.client = st.client != 0 ? st.client : static_cast<uint8_t>(1 + s.side());
    const unsigned at = st.client == 1 + s.side() ? 0 : 1;
    if (at == 1 && !s.named() && st.expect == 0) {
      // The server speaks after a whole first packet only.
      return Verdict::kNotMine;
    }
    Side &side = st.side[at];
    Verdict v = Verdict::kNeedMore;
    while (v == Verdict::kNeedMore && !r.Empty()) {
      if (side.type == 0 || side.header > 0) {
        v = HeaderByte(s, at, static_cast<uint8_t>(r.U8()));
        continue;
      }
      // The body: kept up to kKeep bytes, then counted past.
      const uint32_t want = side.body - side.seen;
      const uint32_t n = r.Left() < want ? static_cast<uint32_t>(r.Left()) : want;
      for (uint32_t i = 0; i < n && side.seen + i < kKeep; ++i) {
        st.keep[at][side.seen + i] = static_cast<uint8_t>(r.Peek(i));
      }
      r.Skip(n);
      side.seen += n;
      if (!s.named() && side.type == 0x10 && side.seen >= 9 && side.seen - n < 9 &&
          !ProtocolName(st.keep[0])) {
        // A CONNECT's first nine bytes hold its protocol name and level.
        return Verdict::kNotMine;
      }
      if (!s.named() && !st.first_done && Asks(side.type) && side.seen >= 2 && side.seen - n < 2 &&
          (st.keep[0][0] << 8 | st.keep[0][1]) + 4u > side.body) {
        // A first PUBLISH's topic and packet id fit in its body.
        return Verdict::kNotMine;
      }
      if (side.seen == side.body) {
        v = Packet(s, at);
        side.type = 0;
      }
    }
    return v == Verdict::kNotMine && s.named() ? Verdict::kDone : v;
  }

  // The fixed header: the packet type and flags, then the body's length in
  // one to four bytes of seven bits, lowest first.
  static Verdict HeaderByte(S &s, unsigned at, uint8_t b) {
    State &st = s.state();
    Side &side = st.side[at];
    if (side.type == 0) {
      // Before the name: a CONNECT, or from the middle of a connection a
      // PINGREQ or a PUBLISH to acknowledge, and then its answer.
      const bool opens = st.first_done || b == 0x10 || b == 0xC0 || Asks(b);
      const bool fits = s.named() || (at == 0 ? opens : (b & 0xF0) == st.expect);
      if (!Fixed(b) || !fits) {
        return Verdict::kNotMine;
      }
      side.type = b;
      side.header = 1;
      side.body = side.seen = 0;
      return Verdict::kNeedMore;
    }
    side.body |= static_cast<uint32_t>(b & 0x7F) << (7 * (side.header - 1));
    if ((b & 0x80) != 0) {
      return ++side.header <= 4 ? Verdict::kNeedMore : Verdict::kNotMine;
    }
    side.header = 0;
    if (!s.named() && side.type == 0xC0 && side.body != 0) {
      // A PINGREQ has no body.
      return Verdict::kNotMine;
    }
    if (side.body == 0) {
      const Verdict v = Packet(s, at);
      side.type = 0;
      return v;
    }
    return Verdict::kNeedMore;
  }

  // Types 1 to 15 with the flags each requires; a PUBLISH's QoS is 0 to 2.
  static bool Fixed(uint8_t b) {
    const uint8_t type = b >> 4;
    const uint8_t flags = b & 15;
    if (type == 0) {
      return false;
    }
    if (type == kPublish) {
      return (flags & 6) != 6;
    }
    return flags == (type == 6 || type == kSubscribe || type == 10 ? 2 : 0);
  }

  static bool ProtocolName(const uint8_t *body) {
    ByteReader r(body, 9);
    const ByteReader name = r.Prefixed(2);
    const uint32_t level = r.U8();
    if (name.Left() == 4) {
      return ByteReader(name).Expect("MQTT", 4) && (level == 4 || level == 5);
    }
    return name.Left() == 6 && ByteReader(name).Expect("MQIsdp", 6) && level == 3;
  }

  // A whole packet, as far as it was kept.
  static Verdict Packet(S &s, unsigned at) {
    State &st = s.state();
    const Side &side = st.side[at];
    ByteReader r(st.keep[at], side.body < kKeep ? side.body : kKeep);
    const uint8_t type = side.type >> 4;
    if (!s.named()) {
      return Unnamed(s, at, r);
    }
    if (type == kPublish) {
      Topic(s, r.Prefixed(2));
    } else if (type == kSubscribe) {
      r.Skip(2);
      if (st.level == 5) {
        r.Skip(static_cast<size_t>(r.Varint()));
      }
      while (r.Ok() && !r.Empty() && st.topics < kTopics) {
        Topic(s, r.Prefixed(2));
        r.Skip(1);
      }
    }
    return st.topics < kTopics ? Verdict::kNeedMore : Verdict::kDone;
  }

  // A whole packet before the name.
  static Verdict Unnamed(S &s, unsigned at, ByteReader r) {
    State &st = s.state();
    const uint8_t first = st.side[at].type;
    if (at == 0) {
      if (st.first_done) {
        return Verdict::kNeedMore;
      }
      st.first_done = true;
      if (first == 0x10) {
        return Connect(s, r);
      }
      if (first == 0xC0) {
        st.expect = 0xD0;
        return r.Empty() ? Verdict::kNeedMore : Verdict::kNotMine;
      }
      r.Prefixed(2);
      st.expect_id = static_cast<uint16_t>(r.U16());
      st.expect = (first & 6) == 2 ? 0x40 : 0x50;
      return r.Ok() && st.expect_id != 0 ? Verdict::kNeedMore : Verdict::kNotMine;
    }
    // The answer: a PINGRESP, or the acknowledgement of the PUBLISH's id.
    const bool answers = st.expect == 0xD0 ? r.Empty() : r.U16() == st.expect_id && r.Ok();
    if (!answers || !s.Name()) {
      return Verdict::kNotMine;
    }
    // Without its CONNECT, the connection's level is not known: 3.1.1's
    // SUBSCRIBE is the likelier.
    st.level = 4;
    return Verdict::kNeedMore;
  }

  static Verdict Connect(S &s, ByteReader r) {
    State &st = s.state();
    if (r.Left() >= 9 && !ProtocolName(r.Here())) {
      return Verdict::kNotMine;
    }
    const uint32_t length = r.U16();
    r.Skip(length);
    const uint32_t level = r.U8();
    const uint32_t flags = r.U8();
    r.Skip(2);
    const bool will = (flags & 4) != 0;
    // Bit 0 is reserved; without a will, its QoS and retain stay zero; QoS 3 is none.
    if (!r.Ok() || (flags & 1) != 0 || (!will && (flags & 0x38) != 0) || (flags & 0x18) == 0x18 ||
        !s.Name()) {
      return Verdict::kNotMine;
    }
    st.level = static_cast<uint8_t>(level);
    s.Publish(0, level == 3 ? "3.1" : level == 4 ? "3.1.1" : "5.0");
    if (level == 5) {
      r.Skip(static_cast<size_t>(r.Varint()));
    }
    ByteReader id = r.Prefixed(2);
    if (id.Ok() && !id.Empty()) {
      s.Publish(1, id.Here(), id.Left());
    }
    if (will) {
      if (level == 5) {
        r.Skip(static_cast<size_t>(r.Varint()));
      }
      r.Prefixed(2);
      r.Prefixed(2);
    }
    if ((flags & 0x80) != 0) {
      ByteReader user = r.Prefixed(2);
      if (user.Ok()) {
        s.Publish(2, user.Here(), user.Left());
      }
    }
    return Verdict::kNeedMore;
  }

  // A topic name or filter, once per connection.
  static void Topic(S &s, ByteReader topic) {
    State &st = s.state();
    if (!topic.Ok() || topic.Empty() || st.topics >= kTopics) {
      return;
    }
    uint32_t hash = 2166136261u;
    for (size_t i = 0; i < topic.Left(); ++i) {
      hash = (hash ^ topic.Peek(i)) * 16777619u;
    }
    for (uint8_t i = 0; i < st.topics; ++i) {
      if (st.topic_hash[i] == hash) {
        return;
      }
    }
    st.topic_hash[st.topics++] = hash;
    s.Publish(3, topic.Here(), topic.Left());
  }
};

} // namespace

KEST_DECODER(Mqtt)
