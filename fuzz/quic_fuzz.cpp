// The QUIC decoder's packet and frame readers on any bytes. The first byte
// picks the path: even, the rest is a datagram whose long-header packets
// are walked as the plug-in walks them, Initials tried under the keys of
// their own connection ID and under a fixed key (so decryption fails
// nearly always and the failure path runs); odd, the rest is the plaintext
// of an opened Initial, its frames read into a CRYPTO stream and a whole
// first message handed to the hello parser. No read outside the input;
// what the readers report stays within what they were given. Datagrams
// also go through the reader of Google's older headers and its hello.
#include "quic/QuicPacket.h"
#include "tls/TlsHello.h"

#include <stdlib.h>
#include <string.h>

namespace {

kest_quic::CryptoStream g_stream;
kest_tls::HelloInfo g_hello;
uint8_t g_scratch[65536];

void AddCrypto(void *user, uint64_t offset, const uint8_t *data, size_t length) {
  static_cast<kest_quic::CryptoStream *>(user)->Add(offset, data, length);
}

void Frames(const uint8_t *data, size_t size) {
  g_stream = kest_quic::CryptoStream();
  kest_quic::ParseFrames(data, size, AddCrypto, &g_stream);
  const uint32_t length = g_stream.MessageLength();
  if (g_stream.Contiguous() > kest_quic::CryptoStream::kCapacity ||
      length > g_stream.Contiguous()) {
    abort();
  }
  if (g_stream.GetState() == kest_quic::CryptoStream::State::kReady) {
    kest_tls::ParseHello(g_stream.Message(), length, g_hello);
  }
}

// Google's headers as the plug-in reads them: the version's text, and the
// hello's server name inside the bytes after a public header.
void Google(const uint8_t *data, size_t size) {
  kest_quic::GoogleHeader header{};
  if (!kest_quic::ParseGoogleHeader(data, size, header)) {
    return;
  }
  char text[16];
  if (kest_quic::VersionText(header.version, text, sizeof text) != 4 ||
      header.header_length > size) {
    abort();
  }
  const uint8_t *name = nullptr;
  size_t length = 0;
  if (!header.long_form && header.header_length != 0 &&
      kest_quic::FindChloServerName(data + header.header_length, size - header.header_length, name,
                                    length) &&
      (name < data + header.header_length || length == 0 || name + length > data + size)) {
    abort();
  }
}

void Datagram(const uint8_t *data, size_t size) {
  static const kest_quic::InitialKeys kFixed = {};
  Google(data, size);
  size_t pos = 0;
  while (pos < size) {
    kest_quic::LongHeader header;
    if (kest_quic::ParseLongHeader(data + pos, size - pos, header) !=
        kest_quic::HeaderStatus::kOk) {
      return;
    }
    const bool numbered = header.type != kest_quic::PacketType::kRetry &&
                          header.type != kest_quic::PacketType::kVersionNegotiation;
    if (header.packet_length == 0 || header.packet_length > size - pos ||
        header.dcid + header.dcid_length > data + size ||
        header.scid + header.scid_length > data + size ||
        (numbered && header.pn_offset + header.protected_length != header.packet_length)) {
      abort();
    }
    char text[16];
    kest_quic::VersionText(header.version, text, sizeof text);
    if (header.type == kest_quic::PacketType::kInitial) {
      const uint8_t *payload = nullptr;
      size_t payload_length = 0;
      uint64_t pn = 0;
      kest_quic::InitialKeys keys;
      if (kest_quic::DeriveClientInitialKeys(header.version, header.dcid, header.dcid_length,
                                             keys) &&
          kest_quic::OpenInitial(data + pos, header, keys, -1, g_scratch, payload, payload_length,
                                 pn)) {
        Frames(payload, payload_length);
      }
      if (kest_quic::OpenInitial(data + pos, header, kFixed, 5, g_scratch, payload, payload_length,
                                 pn)) {
        Frames(payload, payload_length);
      }
    }
    pos += header.packet_length;
  }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size == 0 || size > sizeof g_scratch) {
    return 0;
  }
  // A block of exactly the input's size, so that a read past the end is one
  // past the block.
  uint8_t *copy = static_cast<uint8_t *>(malloc(size - 1 != 0 ? size - 1 : 1));
  if (copy == nullptr) {
    return 0;
  }
  memcpy(copy, data + 1, size - 1);
  if ((data[0] & 1) == 0) {
    Datagram(copy, size - 1);
  } else {
    Frames(copy, size - 1);
  }
  free(copy);
  return 0;
}
