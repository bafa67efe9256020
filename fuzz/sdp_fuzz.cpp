// The media readers of the SIP and RTSP decoders on any bytes: an SDP body
// and the same bytes as a Transport header value, read from a copy of
// exactly the input's size so that a read past it shows, and the RTP
// judgement on them. Every entry they
// give has a port, and no more than the list holds.
#include "message/Media.h"

#include <kest_host.h>
#include <stdlib.h>
#include <string.h>

namespace {

void Check(const kest_message::MediaList &media) {
  if (media.count > kest_message::MediaList::kMax) {
    abort();
  }
  for (size_t i = 0; i < media.count; ++i) {
    if (media.items[i].port == 0) {
      abort();
    }
  }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static const bool hooks = (kest_host_use_libc(), true);
  (void)hooks;
  char *copy = static_cast<char *>(malloc(size == 0 ? 1 : size));
  if (copy == nullptr) {
    return 0;
  }
  if (size != 0) {
    memcpy(copy, data, size);
  }
  kest_message::MediaList sdp;
  kest_message::ParseSdp(copy, size, sdp);
  Check(sdp);
  // Readers add to what is there: a second body fills the rest.
  kest_message::ParseSdp(copy, size, sdp);
  Check(sdp);
  kest_message::MediaList transport;
  kest_message::ParseTransport(copy, size, oru::IpAddr::FromV4(0x0a000001),
                               oru::IpAddr::FromV4(0x0a000002), transport);
  Check(transport);
  // The judgement of an expected flow's first datagram, on the same bytes.
  if (kest_message::MediaInspector::Judge(reinterpret_cast<const uint8_t *>(copy), size) > 2) {
    abort();
  }
  free(copy);
  return 0;
}
