// A parent: whatever runs a chain of inspectors for the layer above it. The
// TCP and UDP decoders are parents of what their rule stores attach; a
// message inspector (WebDpi) is an inspector and a parent at once.
//
// ParentDpi is an interface with no data: a parent keeps its chains where its
// state lives (per connection, per message) and hands the right one to
// ProcessChain or Handoff. A class that is an inspector and a parent puts
// Inspector first and ParentDpi second, and its chain of attached inspectors
// first among its own fields, straight behind the ParentDpi table pointer.
//
// Virtual table order fixed: HandoffCallback, IsTimeToCallback,
// RegisterCallback, GetProtocol. No virtual destructor: the library never
// deletes a parent through this interface.
#ifndef KEST_PARENTDPI_H
#define KEST_PARENTDPI_H

#include <kest/Export.h>
#include <kest/Inspector.h>
#include <kest/InspectorChain.h>
#include <kest/PktInfo.h>
#include <stdint.h>

namespace oru {

class KEST_API ParentDpi {
public:
  // Takes the callback registered for the connection's current side, clears
  // the registration and calls it with this parent; the result is the
  // callback's.
  virtual unsigned int HandoffCallback(PktInfo &pkt, Tuple &tuple,
                                       fdt::intrusive_ptr<Conn> &conn) = 0;
  // True when a registered callback is due for the connection's current
  // side. May overwrite `result`, which Handoff returns when this is false.
  virtual bool IsTimeToCallback(PktInfo &pkt, Tuple &tuple, fdt::intrusive_ptr<Conn> &conn,
                                unsigned int &result) = 0;
  // Stores (or with EVENT_NONE and an empty callback, clears) the callback
  // for one side of the connection.
  virtual void RegisterCallback(fdt::intrusive_ptr<Conn> &conn, unsigned char side,
                                InspectorCallback callback, Inspector::Event event) = 0;
  // The protocol index this parent stands for, as the entries of a
  // connection's application stack hold it.
  virtual uint32_t GetProtocol() = 0;

  // Runs the chain once for this packet, front to back, with this parent as
  // the inspectors' parent and the same pkt, tuple and conn for each:
  //  - an entry answering INSPECT_STAY stays;
  //  - one answering INSPECT_FINISHED leaves (OnChainExit, then released);
  //  - any other answer ends the run: every entry still in the chain leaves,
  //    also those already called, and those behind it are not called with
  //    the packet, only with OnChainExit. That answer is the result.
  // Otherwise the result is INSPECT_STAY while any entry stays, and
  // INSPECT_FINISHED when the chain is (or became) empty. Allocates nothing.
  // An inspector must not change the chain it is called from during Inspect.
  unsigned int ProcessChain(InspectorChain &chain, PktInfo &pkt, Tuple &tuple,
                            fdt::intrusive_ptr<Conn> &conn);

  // What a parent calls when it has finished its own layer of a packet. With
  // entries in the chain: ProcessChain, and nothing else, even when that run
  // empties the chain. With an empty chain: INSPECT_NOTHING, unless
  // IsTimeToCallback says a registered callback is due (HandoffCallback's
  // result) or changes the answer.
  unsigned int Handoff(InspectorChain &chain, PktInfo &pkt, Tuple &tuple,
                       fdt::intrusive_ptr<Conn> &conn);

protected:
  ParentDpi() = default;
  ~ParentDpi() = default;
  ParentDpi(const ParentDpi &) = default;
  ParentDpi &operator=(const ParentDpi &) = default;
};

} // namespace oru

#endif
