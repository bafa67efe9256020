#include "transport/DecoderGate.h"

namespace kest_decoders {

namespace {

// Marks the gate busy with a connection at a level for the length of a scope.
class Busy {
public:
  Busy(const oru::Conn *&busy, int &level, const oru::Conn *conn, int now)
      : m_busy(busy), m_level(level), m_was(busy), m_was_level(level) {
    busy = conn;
    level = now;
  }
  ~Busy() {
    m_busy = m_was;
    m_level = m_was_level;
  }
  Busy(const Busy &) = delete;
  Busy &operator=(const Busy &) = delete;

private:
  const oru::Conn *&m_busy;
  int &m_level;
  const oru::Conn *m_was;
  int m_was_level;
};

} // namespace

bool DecoderGate::Join(oru::Inspector *inspector, const uint16_t *ports, size_t port_count) {
  if (inspector == nullptr) {
    return false;
  }
  if (Empty(m_joined) && !m_rules.AddRule(m_ip_protocol, oru::InspectorCallback(this), 0, {}, {}, 0,
                                          oru::IpPortRuleStore::EXPIRY_LOCAL, false)) {
    return false;
  }
  size_t at = 0;
  while (at < m_count && !(m_members[at].callback.object.get() == inspector && Has(m_joined, at))) {
    ++at;
  }
  if (at == m_count) {
    if (m_count == kMaxMembers) {
      if (Empty(m_joined)) {
        m_rules.RemoveRuleFast(m_ip_protocol, oru::InspectorCallback(this), 0, {}, {});
      }
      return false;
    }
    m_members[at].callback = oru::InspectorCallback(inspector);
    m_members[at].port_count = 0;
    ++m_count;
    Put(m_joined, at);
    for (auto &side : m_opens) {
      for (Mask &opens : side) {
        Put(opens, at);
      }
    }
  }
  Member &m = m_members[at];
  for (size_t i = 0; i < port_count && m.port_count < kMaxPorts; ++i) {
    ++m.port_count;
    size_t j = m_port_entries++;
    for (; j > 0 && m_by_port[j - 1].port > ports[i]; --j) {
      m_by_port[j] = m_by_port[j - 1];
    }
    m_by_port[j] = PortEntry{ports[i], static_cast<uint8_t>(at)};
  }
  return true;
}

void DecoderGate::Leave(oru::Inspector *inspector) {
  const bool joined = !Empty(m_joined);
  for (size_t i = 0; i < m_count; ++i) {
    if (m_members[i].callback.object.get() == inspector) {
      Drop(m_joined, i);
    }
  }
  if (joined && Empty(m_joined)) {
    m_rules.RemoveRuleFast(m_ip_protocol, oru::InspectorCallback(this), 0, {}, {});
  }
}

void DecoderGate::Narrow(oru::Inspector *inspector, const oru::FirstBytes &first) {
  for (size_t i = 0; i < m_count; ++i) {
    if (m_members[i].callback.object.get() != inspector || !Has(m_joined, i)) {
      continue;
    }
    for (unsigned side = 0; side < 2; ++side) {
      for (unsigned byte = 0; byte < 256; ++byte) {
        if (!first.Allows(side, static_cast<uint8_t>(byte))) {
          Drop(m_opens[side][byte], i);
        }
      }
    }
  }
}

void DecoderGate::MarkPort(uint16_t port, Mask &mask) const {
  size_t low = 0;
  size_t high = m_port_entries;
  while (low < high) {
    const size_t mid = (low + high) / 2;
    if (m_by_port[mid].port < port) {
      low = mid + 1;
    } else {
      high = mid;
    }
  }
  for (; low < m_port_entries && m_by_port[low].port == port; ++low) {
    Put(mask, m_by_port[low].member);
  }
}

unsigned int DecoderGate::Inspect(oru::ParentDpi *parent, oru::PktInfo &pkt, oru::Tuple &tuple,
                                  oru::fdt::intrusive_ptr<oru::Conn> &conn) {
  TransportConn *own = TransportConn::Of(conn.get());
  const int level = LevelOf(conn.get());
  if (own == nullptr || level > 1) {
    return oru::INSPECT_FINISHED;
  }
  Mask &live = own->m_gate[level];
  Mask &first = own->m_gate_first[level];
  if (own->m_gate_started[level] == 0) {
    own->m_gate_started[level] = 1;
    live = m_joined;
    if (level == 0 && pkt.data != nullptr && pkt.length != 0 && pkt.stream_pos == 0) {
      // The connection's first bytes: the members they rule out never see
      // it, and need not leave it.
      const Mask &opens = m_opens[pkt.side != 0 ? 1 : 0][pkt.data[0]];
      live.bits[0] &= opens.bits[0];
      live.bits[1] &= opens.bits[1];
      if (Empty(live)) {
        return oru::INSPECT_FINISHED;
      }
    }
    first = Mask{};
    MarkPort(tuple.src_port, first);
    MarkPort(tuple.dst_port, first);
    first.bits[0] &= live.bits[0];
    first.bits[1] &= live.bits[1];
  }
  Busy busy(m_busy, m_level, conn.get(), level);
  // The decoders on their own ports first, then the others, each pass by
  // the set bits of the connection's masks.
  for (int pass = 0; pass < 2; ++pass) {
    for (size_t word = 0; word < 2; ++word) {
      const uint64_t order = pass == 0 ? first.bits[word] : ~first.bits[word];
      for (uint64_t todo = live.bits[word] & order; todo != 0; todo &= todo - 1) {
        const size_t i = word * 64 + static_cast<size_t>(__builtin_ctzll(todo));
        const oru::InspectorCallback &member = m_members[i].callback;
        // The member that names the connection first is judged by its ports.
        const bool judging = level == 0 && own->m_port_judged == 0;
        const uint32_t app = judging ? own->GetAppStack()->app : 0;
        const unsigned int r = member.Call(parent, pkt, tuple, conn);
        if (judging && own->GetAppStack()->app != app) {
          JudgePorts(*own, i, first);
        }
        if (r == oru::INSPECT_STAY) {
          continue;
        }
        Drop(live, i);
        member.object->OnChainExit(conn);
        if (r != oru::INSPECT_FINISHED) {
          // The chain ends: the rest leave without seeing the packet.
          ExitAll(*own, level, conn);
          return r;
        }
      }
    }
  }
  return Empty(live) ? oru::INSPECT_FINISHED : oru::INSPECT_STAY;
}

void DecoderGate::JudgePorts(TransportConn &own, size_t i, const Mask &first) const {
  // Raised when the connection ends, after whatever the namer reports
  // meanwhile, so that the order of a connection's values does not hang on
  // how its bytes were cut into packets.
  own.m_port_judged = !Has(first, i) && KnownPort(own.m_tuple.dst_port) ? 2 : 1;
}

void DecoderGate::ExitAll(TransportConn &own, int level, oru::fdt::intrusive_ptr<oru::Conn> &conn) {
  for (size_t i = 0; i < m_count; ++i) {
    if (Has(own.m_gate[level], i)) {
      Drop(own.m_gate[level], i);
      m_members[i].callback.object->OnChainExit(conn);
    }
  }
}

void DecoderGate::OnChainExit(oru::fdt::intrusive_ptr<oru::Conn> &conn) {
  TransportConn *own = TransportConn::Of(conn.get());
  const int level = LevelOf(conn.get());
  if (own == nullptr || level > 1) {
    return;
  }
  Busy busy(m_busy, m_level, conn.get(), level);
  ExitAll(*own, level, conn);
  // An inner chain may be made again later; it starts afresh.
  own->m_gate_started[level] = 0;
}

} // namespace kest_decoders
