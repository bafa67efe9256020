// The certificate reader and the leaf's stream walk. The whole input is read
// as one certificate: no crash, no read outside it, texts terminated at
// their lengths and within their bounds, each time text of its fixed shape,
// and the name checks run on the names it holds. The input is also one side's
// stream after a ServerHello (the first byte picks the piece size): the leaf
// found is the same whether fed whole or in pieces, and is read in turn.
#include "tls/Certificate.h"

#include <kest/kit/ByteReader.h>

#include <kest_host.h>
#include <stdlib.h>
#include <string.h>

namespace {

void Check(const uint8_t *der, size_t length) {
  static kest_tls::CertificateInfo cert;
  if (kest_tls::ReadCertificate(der, length, cert) != kest_tls::CertificateStatus::kOk) {
    return;
  }
  using Info = kest_tls::CertificateInfo;
  if (cert.subject_length > Info::kMaxText || cert.issuer_length > Info::kMaxText ||
      cert.san_length > Info::kMaxText || strlen(cert.subject) != cert.subject_length ||
      strlen(cert.issuer) != cert.issuer_length || strlen(cert.san) != cert.san_length ||
      strlen(cert.not_before) != 20 || strlen(cert.not_after) != 20 ||
      (cert.san_length != 0 && cert.san_count == 0)) {
    abort();
  }
  kest_tls::SelfSigned(cert);
  kest_tls::NameCovered(cert, cert.subject, cert.subject_length);
  // The first dNSName covers itself, unless it is a wildcard or ends in a
  // dot.
  oru::kit::ByteReader names(cert.san_der, cert.san_der_length);
  while (!names.Empty()) {
    uint32_t tag = 0;
    oru::kit::ByteReader name = names.Ber(tag);
    if (tag != 0x82) {
      continue;
    }
    const char *text = reinterpret_cast<const char *>(name.Here());
    if (name.Left() != 0 && memchr(text, '*', name.Left()) == nullptr &&
        text[name.Left() - 1] != '.' && !kest_tls::NameCovered(cert, text, name.Left())) {
      abort();
    }
    break;
  }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static const bool hooks = (kest_host_use_libc(), true);
  (void)hooks;
  Check(data, size);
  if (size == 0) {
    return 0;
  }
  const size_t piece = data[0] % 64 + 1;
  const uint8_t *stream = data + 1;
  const size_t length = size - 1;
  kest_tls::LeafAssembler whole;
  whole.Feed(stream, length);
  kest_tls::LeafAssembler pieces;
  for (size_t i = 0; i < length; i += piece) {
    pieces.Feed(stream + i, piece < length - i ? piece : length - i);
  }
  if (whole.GetState() != pieces.GetState() || whole.LeafLength() != pieces.LeafLength() ||
      (whole.Leaf() != nullptr && memcmp(whole.Leaf(), pieces.Leaf(), whole.LeafLength()) != 0)) {
    abort();
  }
  if (whole.Leaf() != nullptr) {
    Check(whole.Leaf(), whole.LeafLength());
  }
  return 0;
}
