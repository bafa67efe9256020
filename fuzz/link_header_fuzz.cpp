// The link headers kestcap takes off (NFLOG, PPP, HDLC, 802.11, radiotap):
// the first byte picks the link type, the rest is one frame, copied into a
// block of its own size so that a read past it trips the sanitizer. A
// header that is taken off lies within the frame and leaves an IP packet
// behind, which the whole-packet parser then reads.
#include "LinkHeader.h"
#include "wire/WireParser.h"

#include <stdlib.h>
#include <string.h>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static const int kLinks[] = {
      kestcap::LinkHeader::kPpp,  kestcap::LinkHeader::kPppHdlc,  kestcap::LinkHeader::kCiscoHdlc,
      kestcap::LinkHeader::kWlan, kestcap::LinkHeader::kRadiotap, kestcap::LinkHeader::kNflog,
  };
  if (size == 0 || size > 65536) {
    return 0;
  }
  const int link = kLinks[data[0] % (sizeof kLinks / sizeof kLinks[0])];
  const uint32_t length = static_cast<uint32_t>(size - 1);
  uint8_t *frame = static_cast<uint8_t *>(malloc(length != 0 ? length : 1));
  if (frame == nullptr) {
    return 0;
  }
  memcpy(frame, data + 1, length);
  uint32_t header = 0;
  if (kestcap::LinkHeader::Strip(link, frame, length, header)) {
    if (header >= length) {
      abort();
    }
    kest_decoders::ParsedPacket packet;
    kest_decoders::ParsePacket(kest_decoders::PacketForm::kIp, frame + header, length - header,
                               packet);
  }
  free(frame);
  return 0;
}
