// The message inspector: a complete request/response state machine for
// web-like protocols (HTTP, RTSP, SIP) over the two flow buffers of a
// connection, copying no byte of the messages.
//
// Deriving an inspector:
//  - construct it (with oru::fdt::CreateObject) with the method table, the
//    key/value rule store that picks inspectors by header line (or null) and
//    the attributes of the protocol (or null), and give it to a parent, e.g.
//    on a port of the TCP decoder's IpPortRuleStore;
//  - implement GetProtocolWord ("HTTP"), HasMessageBody (whether the message
//    just parsed has a body) and GetProtocol (the protocol index);
//  - optionally OnNewMessage / OnTransactionDone (false gives the connection
//    up), OnNewPacket, Pipelining, EndOfTransaction, GetMemoryContext.
//
// Each side of the connection goes Inspect (first line), InspectMessage
// (header lines, offered to the rule store), then InspectData (Content-
// Length), InspectChunk (chunked) or InspectUntilClose (no length), and back
// to Inspect. Requests and responses are paired by side alone: a response
// answers the oldest open request of the other side. The inspector keeps its
// place between packets by registering the phase it waits in with its
// parent (EVENT_DATA); inspectors that rules attach run on its own chain.
//
// Layout: Inspector (table, count), then ParentDpi (its table), then the
// chain of attached inspectors as the first field, then the fields below in
// order. The first table runs: destructors, Inspect, OnChainExit,
// IsTimeToCallback, RegisterCallback, HandoffCallback, OnNewMessage,
// OnTransactionDone, OnNewPacket, Pipelining, GetProtocolWord,
// HasMessageBody, GetMemoryContext, EndOfTransaction.
//
// Positions in first lines, chunk sizes and attributes are 32-bit, so a side
// is inspected only while its stream stays below 4 GiB; past that the
// connection is given up.
#ifndef KEST_WEBDPI_H
#define KEST_WEBDPI_H

#include <kest/Conn.h>
#include <kest/Export.h>
#include <kest/Inspector.h>
#include <kest/KeyValueRuleStore.h>
#include <kest/ParentDpi.h>
#include <kest/WebAttributes.h>
#include <kest/WebLine.h>
#include <kest/fdt/List.h>
#include <stdint.h>

namespace oru {

// A chunked body's state on one side. Layout fixed: size, line_length, state.
struct ChunkState {
  // The current chunk's size.
  int32_t size;
  // Its size line's length with the "\r\n".
  uint32_t line_length;
  // 0: no size line parsed; 1: parsed; -1: invalid.
  int32_t state;
};

// One request and its response. Layout fixed (behind the two list links):
// header[2], callback[2], event[2], code.
struct WebTransaction {
  // 0: the request; 1: the response.
  WebHeader header[2];
  // What inspectors registered with the message inspector, by side.
  InspectorCallback callback[2];
  uint32_t event[2];
  // The status code of the latest response.
  uint32_t code;

  WebTransaction() : event{0, 0}, code(0) {}
};

class KEST_API WebDpi : public Inspector, public ParentDpi {
public:
  using TransactionList = List<WebTransaction>;

  // `methods` is borrowed for the inspector's life. `rules` and
  // `attributes` may be null.
  WebDpi(const WebMethodTable *methods, KeyValueRuleStore *rules, WebAttributes *attributes)
      : m_response{0, 0}, m_current(nullptr), m_attributes(attributes), m_result(0),
        m_rules(rules), m_chunk{{0, 0, 0}, {0, 0, 0}}, m_message_end{0, 0}, m_methods(methods) {}
  // Releases the pending callback, the transactions of side 1, then of side
  // 0, then the attached inspectors.
  ~WebDpi() override { ReleaseAll(); }

  // The virtual operations are defined in the class, so that it has no key
  // function: plug-ins built with run-time type information then emit its
  // type information themselves. The work is in the named members below.

  // The first line of the next message on the packet's side.
  unsigned int Inspect(ParentDpi *parent, PktInfo &pkt, Tuple &tuple,
                       fdt::intrusive_ptr<Conn> &conn) override {
    return InspectLine(parent, pkt, tuple, conn);
  }
  void OnChainExit(fdt::intrusive_ptr<Conn> & /*conn*/) override {}

  // The parent side, for inspectors that rules attach: one callback per side
  // of the current transaction; EVENT_NEXT_TRANSACTION keeps a callback for
  // the next request.
  bool IsTimeToCallback(PktInfo & /*pkt*/, Tuple & /*tuple*/, fdt::intrusive_ptr<Conn> &conn,
                        unsigned int &result) override {
    return CallbackDue(conn, result);
  }
  void RegisterCallback(fdt::intrusive_ptr<Conn> &conn, unsigned char side,
                        InspectorCallback callback, Inspector::Event event) override {
    StoreCallback(conn, side, callback, event);
  }
  unsigned int HandoffCallback(PktInfo &pkt, Tuple &tuple,
                               fdt::intrusive_ptr<Conn> &conn) override {
    return RunCallback(pkt, tuple, conn);
  }

  // Hooks.
  // A message head has been parsed (rules not yet run). False gives up.
  virtual bool OnNewMessage(fdt::intrusive_ptr<Conn> & /*conn*/, WebHeader & /*header*/) {
    return true;
  }
  // A transaction closed with its final response. False gives up.
  virtual bool OnTransactionDone(fdt::intrusive_ptr<Conn> & /*conn*/) { return true; }
  // After each run of the attached inspectors. False gives up.
  virtual bool OnNewPacket(ParentDpi * /*parent*/, PktInfo & /*pkt*/, Tuple & /*tuple*/,
                           fdt::intrusive_ptr<Conn> & /*conn*/) {
    return m_result != INSPECT_ABANDON;
  }
  // Whether requests queue up unanswered (true) or a new one replaces them.
  virtual bool Pipelining() { return false; }
  virtual const char *GetProtocolWord() = 0;
  virtual bool HasMessageBody(WebHeader &header) = 0;
  // The memory context the phases allocate under.
  virtual uint16_t GetMemoryContext() { return 0; }
  // Whether a response with this code closes its transaction (1xx do not).
  virtual bool EndOfTransaction(unsigned int code) { return code > 199; }

  // What the virtual operations above do.
  void ReleaseAll();
  unsigned int InspectLine(ParentDpi *parent, PktInfo &pkt, Tuple &tuple,
                           fdt::intrusive_ptr<Conn> &conn);
  bool CallbackDue(fdt::intrusive_ptr<Conn> &conn, unsigned int &result);
  void StoreCallback(fdt::intrusive_ptr<Conn> &conn, unsigned char side, InspectorCallback callback,
                     Inspector::Event event);
  unsigned int RunCallback(PktInfo &pkt, Tuple &tuple, fdt::intrusive_ptr<Conn> &conn);

  // The message whose head is offered to rules (during rule processing
  // only): its parts. False outside of it or for the wrong kind of message.
  bool GetMethod(FlowString &out) const;
  bool GetUrl(FlowString &out) const;
  bool GetCode(FlowString &out) const;
  bool GetVersion(FlowString &out) const;

  // Whether the packet's side has a transaction to work on; logs a warning
  // when it has not.
  bool ValidateTransaction(fdt::intrusive_ptr<Conn> &conn);
  // Offers every header line of `header` to the rule store.
  void FindRules(const FlowBuffer &flow, WebHeader &header, InspectorChain &chain);
  // Runs the attached inspectors and folds their answer into m_result.
  unsigned int ProcessRules(ParentDpi *parent, PktInfo &pkt, Tuple &tuple,
                            fdt::intrusive_ptr<Conn> &conn);
  // Clears the parent's registration for the other side; INSPECT_ABANDON.
  unsigned int AbandonConnection(ParentDpi *parent, fdt::intrusive_ptr<Conn> &conn);

  // The phases.
  unsigned int HandleNewMessage(WebLine &line, ParentDpi *parent, PktInfo &pkt, Tuple &tuple,
                                fdt::intrusive_ptr<Conn> &conn);
  unsigned int InspectMessage(ParentDpi *parent, PktInfo &pkt, Tuple &tuple,
                              fdt::intrusive_ptr<Conn> &conn);
  unsigned int InspectData(ParentDpi *parent, PktInfo &pkt, Tuple &tuple,
                           fdt::intrusive_ptr<Conn> &conn);
  unsigned int InspectChunk(ParentDpi *parent, PktInfo &pkt, Tuple &tuple,
                            fdt::intrusive_ptr<Conn> &conn);
  unsigned int InspectUntilClose(ParentDpi *parent, PktInfo &pkt, Tuple &tuple,
                                 fdt::intrusive_ptr<Conn> &conn);

  // Attached inspectors, filled by the rule store.
  InspectorChain m_chain;
  // Open transactions by the side that sent the request, oldest first.
  TransactionList m_transactions[2];
  // Registered with EVENT_NEXT_TRANSACTION: for the next transaction.
  InspectorCallback m_pending_callback;
  // 1 while the message on that side is a response.
  uint32_t m_response[2];
  // The header being offered to rules, or null.
  WebHeader *m_current;
  WebAttributes *m_attributes;
  // The latest result; INSPECT_ABANDON means given up.
  uint32_t m_result;
  KeyValueRuleStore *m_rules;
  ChunkState m_chunk[2];
  // End of the current body; in chunked mode the next chunk's size line.
  uint64_t m_message_end[2];
  const WebMethodTable *m_methods;

private:
  // The list that holds the side's current transaction, and the
  // transaction itself (null when the list is empty).
  TransactionList &CurrentList(unsigned char side);
  WebTransaction *CurrentTransaction(unsigned char side);
  WebHeader *CurrentHeader(unsigned char side);
  // Registers `method` with the parent for the side's next data.
  unsigned int Wait(ParentDpi *parent, fdt::intrusive_ptr<Conn> &conn, InspectorMethod method);
  // Closes the transaction a response ended; false gives up.
  bool MessageEnd(fdt::intrusive_ptr<Conn> &conn);
  // The next message on the side, through the virtual Inspect.
  unsigned int Next(ParentDpi *parent, PktInfo &pkt, Tuple &tuple, fdt::intrusive_ptr<Conn> &conn);
  void Normalise(uint32_t old);
  // Reports body bytes [from, to) of the side's message as an attribute,
  // when the connection's policy asks for attributes.
  void ReportBody(Conn &conn, FlowBuffer &flow, uint64_t from, uint64_t to, bool more);
};

} // namespace oru

#endif
