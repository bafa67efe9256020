// The payload entry point of a transport: the host hands over bytes of one
// side of a connection it holds (selector 0), and the connection answers with
// this object.
//
// Per packet: the connection is touched, the bytes become the next in-order
// block of the side's flow buffer, the application stack names the
// transport, and Inspect() decides whether what the inspection has not
// consumed must outlive the packet (Sync) or the stream is flushed. Parsing
// whole packets, reordering segments and handing off to inspector chains
// come in as the transports grow: Inspect() is where a chain will run.
#ifndef KEST_DECODERS_PAYLOADCLASSIFIER_H
#define KEST_DECODERS_PAYLOADCLASSIFIER_H

#include <kest/Conn.h>
#include <kest/FlowBuffer.h>
#include <kest/IClassify.h>
#include <stdint.h>

namespace kest_decoders {

class PayloadClassifier : public oru::IClassify {
public:
  // What the transport reports while nothing above it has decided: it stays
  // on the connection. The library turns it into result code 1.
  static constexpr unsigned RESULT_STAY = 1;

  // `proto` is the protocol index of the transport on this thread; `context`
  // the memory context its allocations are counted under.
  PayloadClassifier(uint32_t proto, uint16_t context) : m_proto(proto), m_context(context) {}
  virtual ~PayloadClassifier() = default;
  PayloadClassifier(const PayloadClassifier &) = delete;
  PayloadClassifier &operator=(const PayloadClassifier &) = delete;

  // RESULT_STAY with `conn` set to the packet's connection; 0 (no result)
  // without a connection, for a payload no block can hold, or without memory
  // (kest_errno 12), and then the flow buffer is as it was.
  unsigned Classify(oru::ClassifyPacket *packet, oru::fdt::intrusive_ptr<oru::Conn> &conn) override;

  uint32_t Proto() const { return m_proto; }

protected:
  // Runs after the payload entered `flow`. True keeps the bytes from the
  // read position on beyond this packet. Nothing above the transport reads
  // the stream yet, so the transport consumes it all.
  virtual bool Inspect(oru::Conn &conn, oru::FlowBuffer &flow);

private:
  // Puts the transport at the bottom of an empty stack and makes it the
  // application until something above names another. False without memory.
  bool ReportTransport(oru::AppStack &stack);

  uint32_t m_proto;
  uint16_t m_context;
};

} // namespace kest_decoders

#endif
