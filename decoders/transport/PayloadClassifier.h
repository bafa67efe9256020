// The payload entry point of a transport, and the parent of the inspectors
// that its rule store attaches: the host hands over bytes of one side of a
// connection it holds (selector 0), and the connection answers with this
// object.
//
// Per packet: the connection is touched, the bytes become the next in-order
// block of the side's flow buffer, the application stack names the
// transport, and the connection's chain runs (Handoff). Its answer is the
// packet's result: INSPECT_STAY (1) and INSPECT_NOTHING (2) give code 1,
// INSPECT_FINISHED (64) and INSPECT_ABANDON (128) code 3, and a chain that
// ends with 0 gives no result at all. An inspector
// that needs the packet's bytes beyond it calls Sync on the flow; otherwise
// the stream is flushed after the chain.
#ifndef KEST_DECODERS_PAYLOADCLASSIFIER_H
#define KEST_DECODERS_PAYLOADCLASSIFIER_H

#include <kest/Conn.h>
#include <kest/FlowBuffer.h>
#include <kest/IClassify.h>
#include <kest/ITransportSegment.h>
#include <kest/ParentDpi.h>
#include <stdint.h>

namespace kest_decoders {

class ConnTable;
class TransportConn;

class PayloadClassifier : public oru::IClassify,
                          public oru::ParentDpi,
                          public oru::ITransportSegment {
public:
  // `proto` is the protocol index of the transport on this thread; `context`
  // the memory context its allocations are counted under; `table` the
  // thread's connections, where segments find theirs (null: payload only).
  PayloadClassifier(uint32_t proto, uint16_t context, ConnTable *table = nullptr)
      : m_proto(proto), m_context(context), m_table(table) {}
  virtual ~PayloadClassifier() = default;
  PayloadClassifier(const PayloadClassifier &) = delete;
  PayloadClassifier &operator=(const PayloadClassifier &) = delete;

  // The chain's answer with `conn` set to the packet's connection; 0 (no
  // result) without a transport connection, for a payload no block can
  // hold, or without memory (kest_errno 12), and then the flow buffer is as
  // it was.
  unsigned Classify(oru::ClassifyPacket *packet, oru::fdt::intrusive_ptr<oru::Conn> &conn) override;

  // The parent's side: one registered callback per side of each connection.
  unsigned int HandoffCallback(oru::PktInfo &pkt, oru::Tuple &tuple,
                               oru::fdt::intrusive_ptr<oru::Conn> &conn) override;
  bool IsTimeToCallback(oru::PktInfo &pkt, oru::Tuple &tuple,
                        oru::fdt::intrusive_ptr<oru::Conn> &conn, unsigned int &result) override;
  void RegisterCallback(oru::fdt::intrusive_ptr<oru::Conn> &conn, unsigned char side,
                        oru::InspectorCallback callback, oru::Inspector::Event event) override;
  uint32_t GetProtocol() override { return m_proto; }

  // A segment of a whole packet: its connection found or made by its end
  // points (the client is the sender of a SYN without ACK, else the first
  // sender), its payload entered in stream order (TCP) or as it comes
  // (UDP), and the chain run when the stream grew. A RST, or a FIN from
  // both sides, ends the connection after the packet, unless the host made
  // it (kest_conn_create): the host ends its own.
  unsigned Segment(oru::TransportSegment &segment,
                   oru::fdt::intrusive_ptr<oru::Conn> &conn) override;

  uint32_t Proto() const { return m_proto; }

private:
  // Runs the chain over `length` new bytes at `pos` of the side's stream and
  // flushes what no inspector kept.
  unsigned Inspect(TransportConn &own, oru::FlowBuffer &flow, uint64_t pos, uint32_t length,
                   const oru::TransportSegment *segment, oru::fdt::intrusive_ptr<oru::Conn> &conn);
  // TCP: the acknowledgement number `ack` of a packet for side `other`'s
  // stream. Bytes that waited beyond a hole the receiver acknowledged join
  // the stream, and the chain runs over them. The chain's result, or 0 when
  // nothing moved.
  unsigned Acknowledged(TransportConn &own, unsigned char other, uint32_t ack,
                        oru::fdt::intrusive_ptr<oru::Conn> &conn);
  // Puts the transport at the bottom of an empty stack and makes it the
  // application until something above names another. False without memory.
  bool ReportTransport(oru::AppStack &stack);

  uint32_t m_proto;
  uint16_t m_context;
  ConnTable *m_table;
};

} // namespace kest_decoders

#endif
