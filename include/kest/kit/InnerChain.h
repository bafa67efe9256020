// The bytes of a connection after its protocol hands over to another one
// inside it (a STARTTLS accepted, a CONNECT answered): a fresh chain of the
// transport's inspectors, run on each side's bytes from where the outer
// protocol's own bytes stopped, so that the inner protocol is named above
// the outer one.
//
// The object is the inner inspectors' parent: they may register callbacks
// with it as with the transport, and GetProtocol answers the outer
// protocol, so that an inner decoder that names only on top of its parent
// does so. The outer inspector keeps it per connection and passes it every
// packet (Pass) until it is Done; End lets the inner inspectors go when the
// connection goes first.
//
// Only a connection whose policy allows a change of protocol (chameleon)
// gets one; without the policy the outer decoder leaves as before.
#ifndef KEST_KIT_INNERCHAIN_H
#define KEST_KIT_INNERCHAIN_H

#include <kest/kit/Attach.h>

#include <kest/Conn.h>
#include <kest/Inspector.h>
#include <kest/InspectorChain.h>
#include <kest/IpPortRuleStore.h>
#include <kest/ParentDpi.h>
#include <kest/PktInfo.h>
#include <kest/fdt/ObjectPrefix.h>
#include <stdint.h>

namespace oru::kit {

class InnerChain final : public oru::Inspector, public oru::ParentDpi {
public:
  // The inner chain of `conn` for the transport `ip_protocol`, whose
  // protocol begins at stream position from[s] of each side s; `outer` is
  // the protocol index of the decoder that hands over. Null when the policy
  // does not allow it, without the transport's rules or without memory.
  static InnerChain *Start(oru::Conn &conn, uint8_t ip_protocol, uint32_t outer,
                           const uint64_t from[2]) {
    if ((conn.m_policy & oru::POLICY_CHAMELEON) == 0) {
      return nullptr;
    }
    oru::IpPortRuleStore *rules = AppRules(ip_protocol);
    if (rules == nullptr) {
      return nullptr;
    }
    InnerChain *inner = oru::fdt::CreateObject<InnerChain>(oru::fdt::OBJECT_LOCAL, outer, from);
    if (inner == nullptr) {
      return nullptr;
    }
    const oru::Tuple &t = conn.m_tuple;
    rules->SetupInspection(t.src, t.dst, t.src_port, t.dst_port, ip_protocol, inner->m_chain);
    return inner;
  }

  InnerChain(uint32_t outer, const uint64_t from[2]) : m_outer(outer) {
    m_from[0] = from[0];
    m_from[1] = from[1];
  }

  // The packet's bytes from the side's start of the inner protocol on, to
  // the inner chain. The chain's own answer while it runs; INSPECT_STAY
  // for a packet wholly before the start.
  unsigned int Pass(oru::PktInfo &pkt, oru::Tuple &tuple,
                    oru::fdt::intrusive_ptr<oru::Conn> &conn) {
    const unsigned s = pkt.side != 0 ? 1 : 0;
    oru::PktInfo inner = pkt;
    if (m_from[s] > inner.stream_pos) {
      // The acceptance and the first inner bytes may share a packet.
      const uint64_t skip = m_from[s] - inner.stream_pos;
      inner.data = skip < inner.length ? inner.data + skip : nullptr;
      inner.length = skip < inner.length ? inner.length - static_cast<uint32_t>(skip) : 0;
      inner.stream_pos = m_from[s];
    }
    if (inner.length == 0 || inner.data == nullptr) {
      return oru::INSPECT_STAY;
    }
    return Handoff(m_chain, inner, tuple, conn);
  }

  // Nothing inside is waiting for bytes any more.
  bool Done() const {
    return m_chain.empty() && m_event[0] == EVENT_NONE && m_event[1] == EVENT_NONE;
  }

  // Lets the inner inspectors go (OnChainExit for each) and the callbacks
  // they left.
  void End(oru::fdt::intrusive_ptr<oru::Conn> &conn) {
    m_chain.Clear(conn);
    for (unsigned s = 0; s < 2; ++s) {
      m_callback[s] = oru::InspectorCallback();
      m_event[s] = EVENT_NONE;
    }
  }

  // As a callback (a message decoder may hand its connection over this
  // way): Pass, and INSPECT_FINISHED once nothing inside waits.
  unsigned int Inspect(oru::ParentDpi * /*parent*/, oru::PktInfo &pkt, oru::Tuple &tuple,
                       oru::fdt::intrusive_ptr<oru::Conn> &conn) override {
    const unsigned int result = Pass(pkt, tuple, conn);
    return Done() && result == oru::INSPECT_STAY ? oru::INSPECT_FINISHED : result;
  }

  unsigned int HandoffCallback(oru::PktInfo &pkt, oru::Tuple &tuple,
                               oru::fdt::intrusive_ptr<oru::Conn> &conn) override {
    const unsigned s = pkt.side != 0 ? 1 : 0;
    const oru::InspectorCallback callback = m_callback[s];
    m_callback[s] = oru::InspectorCallback();
    m_event[s] = EVENT_NONE;
    if (callback.object.get() == nullptr) {
      return oru::INSPECT_NOTHING;
    }
    return callback.Call(this, pkt, tuple, conn);
  }

  bool IsTimeToCallback(oru::PktInfo &pkt, oru::Tuple & /*tuple*/,
                        oru::fdt::intrusive_ptr<oru::Conn> & /*conn*/,
                        unsigned int & /*result*/) override {
    return m_event[pkt.side != 0 ? 1 : 0] != EVENT_NONE;
  }

  void RegisterCallback(oru::fdt::intrusive_ptr<oru::Conn> & /*conn*/, unsigned char side,
                        oru::InspectorCallback callback, oru::Inspector::Event event) override {
    const unsigned s = side != 0 ? 1 : 0;
    m_callback[s] = callback;
    m_event[s] = event;
  }

  uint32_t GetProtocol() override { return m_outer; }

private:
  // First among the fields: a parent's chain sits behind its table pointer.
  oru::InspectorChain m_chain;
  oru::InspectorCallback m_callback[2];
  uint32_t m_event[2] = {EVENT_NONE, EVENT_NONE};
  uint64_t m_from[2];
  uint32_t m_outer;
};

} // namespace oru::kit

#endif
