// One chain entry for all the application decoders of a transport: the TCP
// and UDP decoders offer it on each thread as INTERFACE_DECODER_GATE of
// MODULE_TCP and MODULE_UDP, and the decoder kit puts its decoders there
// rather than each on the rule store (kest/kit/Attach.h).
//
// A connection's chain then holds the gate once, whatever the number of
// decoders; the gate runs, packet by packet, the decoders still on the
// connection as a chain would: those whose ports the connection uses first,
// then the others, each in the order it joined. A decoder's answer means
// what it means on a chain (INSPECT_STAY keeps it, INSPECT_FINISHED lets it
// go with OnChainExit, anything else ends the connection's chain for all),
// and the gate leaves the chain with the last of them.
#ifndef KEST_IDECODERGATE_H
#define KEST_IDECODERGATE_H

#include <kest/Export.h>
#include <kest/Inspector.h>
#include <kest/InterfaceBroker.h>
#include <stddef.h>
#include <stdint.h>

namespace oru {

// 23 named the gate before Narrow: a decoder built against it finds no gate
// here and goes on the rule store, as a decoder built against this one does
// with a transport that offers only 23; neither calls past the end of the
// other's virtual table.
constexpr InterfaceId INTERFACE_DECODER_GATE = 24;

// The bytes a connection's first payload may begin with for a decoder to be
// worth trying on it, for each side (0: the connection's first end point,
// the client; 1: the other). A decoder that turns away every stream that
// begins otherwise (as one that reads a 1-byte first segment must) says so
// through Narrow, and the gate stops offering it other connections: most
// connections then reach few of the decoders.
struct FirstBytes {
  uint64_t bits[2][4] = {};

  void Allow(unsigned side, uint8_t byte) {
    bits[side & 1][byte >> 6] |= uint64_t{1} << (byte & 63);
  }
  // Every byte whose Allow(side, byte) makes `accepts(byte)` true.
  template <class Accepts> void AllowWhere(unsigned side, Accepts accepts) {
    for (unsigned b = 0; b < 256; ++b) {
      if (accepts(static_cast<uint8_t>(b))) {
        Allow(side, static_cast<uint8_t>(b));
      }
    }
  }
  bool Allows(unsigned side, uint8_t byte) const {
    return (bits[side & 1][byte >> 6] >> (byte & 63) & 1) != 0;
  }
};

// Virtual table order fixed: Join, Leave, Narrow. No virtual destructor: the
// transport owns the object.
class KEST_API IDecoderGate {
public:
  // Puts `inspector`'s Inspect on the connections the transport makes from
  // now on, tried first on `ports` (at most kMaxPorts are kept). Joining
  // again only adds ports. False for a null inspector or when the gate is
  // full (kMaxMembers decoders have joined on this thread).
  virtual bool Join(Inspector *inspector, const uint16_t *ports, size_t port_count) = 0;
  // New connections no longer get `inspector`; those that have it keep it
  // until it leaves them. The gate keeps its reference until the thread ends.
  virtual void Leave(Inspector *inspector) = 0;
  // From now on `inspector` is tried on a connection only when the
  // connection's first payload (the first bytes of one side's stream)
  // begins with a byte `first` allows for that side; otherwise it neither
  // sees the connection nor leaves it. A connection handed on to an inner
  // chain (after STARTTLS) is not narrowed: its inner bytes start mid-stream.
  // Without a call every byte is allowed. Ignored for an inspector that has
  // not joined.
  virtual void Narrow(Inspector *inspector, const FirstBytes &first) = 0;

  static constexpr size_t kMaxMembers = 128;
  static constexpr size_t kMaxPorts = 16;

protected:
  ~IDecoderGate() = default;
};

} // namespace oru

#endif
