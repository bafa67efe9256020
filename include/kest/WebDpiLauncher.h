// Starts one message inspector (WebDpi) per connection: a single inspector
// per thread, attached through a rule (a port of the TCP decoder's
// IpPortRuleStore, say), that on a connection's first packet makes the
// connection's own WebDpi and hands the packet to it.
//
// Why a launcher: a WebDpi keeps its place between packets by registering
// the phase it waits in with its parent, one callback per side, and a parent
// runs those callbacks only while the connection's chain is empty (an entry
// that stays on a chain keeps callbacks from running). So the WebDpi must
// not stay on the chain, and its first registration covers only the side it
// saw. The launcher therefore
//  1. makes the WebDpi (MakeInspector) and sets its result to
//     INSPECT_NOTHING, so that the packets it waits on read as "no result
//     yet" (code 1) instead of no result at all (a fresh WebDpi answers 0);
//  2. registers the WebDpi's Inspect with the parent for the other side, so
//     that side's first message reaches it;
//  3. runs the WebDpi on this packet (it registers its own phase for this
//     side) and leaves the chain with INSPECT_FINISHED, whatever the WebDpi
//     answered, so that the other inspectors of the chain go on. A
//     connection the WebDpi does not recognise is given up by it at once (it
//     clears the other side's registration again).
// The parent's registrations hold the WebDpi; it goes when they are
// released. Keep other inspectors of such connections from staying on the
// chain: while an entry stays, the parent runs no registered callback, and
// the WebDpi waits in vain.
#ifndef KEST_WEBDPILAUNCHER_H
#define KEST_WEBDPILAUNCHER_H

#include <kest/Export.h>
#include <kest/Inspector.h>
#include <kest/WebDpi.h>

namespace oru {

class KEST_API WebDpiLauncher : public Inspector {
public:
  unsigned int Inspect(ParentDpi *parent, PktInfo &pkt, Tuple &tuple,
                       fdt::intrusive_ptr<Conn> &conn) override {
    return Launch(parent, pkt, tuple, conn);
  }

  // A new WebDpi for a connection (made with oru::fdt::CreateObject), or
  // null without memory: the connection then goes uninspected.
  virtual WebDpi *MakeInspector(fdt::intrusive_ptr<Conn> &conn) = 0;

  // What Inspect does; always INSPECT_FINISHED.
  unsigned int Launch(ParentDpi *parent, PktInfo &pkt, Tuple &tuple,
                      fdt::intrusive_ptr<Conn> &conn);
};

} // namespace oru

#endif
