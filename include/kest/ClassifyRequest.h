// One unit of classification work: a packet of a given form, or payload of a
// connection the host already holds.
#ifndef KEST_CLASSIFYREQUEST_H
#define KEST_CLASSIFYREQUEST_H

#include <kest/Export.h>
#include <stddef.h>
#include <stdint.h>

namespace oru {

class Conn;
struct ClassifyPacket;

// Called once when the owner of a request is done with it, with the packet
// part of the request (the address of its data field) and the argument stored
// beside the hook.
using ClassifyRelease = void (*)(ClassifyPacket *packet, void *arg);

// The part of a request that a handler sees. A handler may store a release
// hook here, which the owner of the request then honours. Layout is shared
// with plug-ins.
struct KEST_API ClassifyPacket {
  const uint8_t *data; // not copied; owned by the caller
  uint32_t length;
  uint32_t reserved;
  ClassifyRelease release;
  void *release_arg;
  Conn *conn; // the host's connection for CLASSIFY_CONN, otherwise as passed
};

// A request: its type (Classification::ClassifyType), then the packet.
// Plug-ins append requests to Classification::m_deferred while they handle a
// packet.
struct KEST_API ClassifyRequest {
  int type;
  ClassifyPacket packet;
};

static_assert(offsetof(ClassifyPacket, data) == 0 && offsetof(ClassifyPacket, length) == 8 &&
                  offsetof(ClassifyPacket, reserved) == 12 &&
                  offsetof(ClassifyPacket, release) == 16 &&
                  offsetof(ClassifyPacket, release_arg) == 24 &&
                  offsetof(ClassifyPacket, conn) == 32,
              "packet layout is shared with plug-ins");
static_assert(offsetof(ClassifyRequest, packet) == 8 && sizeof(ClassifyRequest) == 48,
              "request layout is shared with plug-ins");

} // namespace oru

#endif
