#include "tls/Certificate.h"

#include "tls/TlsHello.h"

#include <kest.h>
#include <kest/kit/AddressText.h>
#include <kest/kit/ByteReader.h>
#include <kest/kit/TextWriter.h>
#include <string.h>

namespace kest_tls {

namespace {

using oru::kit::ByteReader;

enum : uint32_t {
  kInteger = 0x02,
  kBitString = 0x03,
  kOctetString = 0x04,
  kOid = 0x06,
  kBmpString = 0x1e,
  kUtcTime = 0x17,
  kGeneralizedTime = 0x18,
  kSequence = 0x30,
  kSet = 0x31,
  kVersionTag = 0xa0,
  kExtensionsTag = 0xa3,
  kDnsNameTag = 0x82,
  kIpAddressTag = 0x87,
  kKeyIdTag = 0x80,
};

// Object identifiers by their encoded bytes.
struct Known {
  const char *name;
  uint8_t length;
  uint8_t bytes[10];
};
constexpr Known kAttributeTypes[] = {
    {"CN", 3, {0x55, 0x04, 0x03}},
    {"C", 3, {0x55, 0x04, 0x06}},
    {"L", 3, {0x55, 0x04, 0x07}},
    {"ST", 3, {0x55, 0x04, 0x08}},
    {"STREET", 3, {0x55, 0x04, 0x09}},
    {"O", 3, {0x55, 0x04, 0x0a}},
    {"OU", 3, {0x55, 0x04, 0x0b}},
    {"SERIALNUMBER", 3, {0x55, 0x04, 0x05}},
    {"emailAddress", 9, {0x2a, 0x86, 0x48, 0x86, 0xf7, 0x0d, 0x01, 0x09, 0x01}},
    {"DC", 10, {0x09, 0x92, 0x26, 0x89, 0x93, 0xf2, 0x2c, 0x64, 0x01, 0x19}},
    {"UID", 10, {0x09, 0x92, 0x26, 0x89, 0x93, 0xf2, 0x2c, 0x64, 0x01, 0x01}},
};
constexpr uint8_t kCommonName[] = {0x55, 0x04, 0x03};
constexpr uint8_t kSubjectAltName[] = {0x55, 0x1d, 0x11};
constexpr uint8_t kSubjectKeyId[] = {0x55, 0x1d, 0x0e};
constexpr uint8_t kAuthorityKeyId[] = {0x55, 0x1d, 0x23};

bool Same(ByteReader r, const uint8_t *bytes, size_t n) {
  return r.Left() == n && memcmp(r.Here(), bytes, n) == 0;
}

using oru::kit::TextWriter;

// An object identifier in dotted form.
bool PutOid(TextWriter &text, ByteReader oid) {
  if (oid.Empty()) {
    return false;
  }
  bool first = true;
  while (!oid.Empty()) {
    uint64_t v = 0;
    uint32_t b = 0;
    int groups = 0;
    do {
      b = oid.U8();
      v = v << 7 | (b & 0x7f);
    } while ((b & 0x80) != 0 && ++groups < 9 && !oid.Empty());
    if ((b & 0x80) != 0) {
      return false;
    }
    if (first) {
      const uint64_t top = v < 40 ? 0 : v < 80 ? 1 : 2;
      if (!text.Decimal(top) || !text.Put('.') || !text.Decimal(v - 40 * top)) {
        return false;
      }
      first = false;
    } else if (!text.Put('.') || !text.Decimal(v)) {
      return false;
    }
  }
  return true;
}

bool PutValue(TextWriter &text, uint32_t tag, ByteReader value) {
  const bool bmp = tag == kBmpString;
  while (!value.Empty()) {
    uint32_t c = value.U8();
    if (bmp) {
      const uint32_t low = value.U8();
      c = c != 0 ? 0x80 : low;
    }
    char out = c >= 0x20 && c < 0x7f ? static_cast<char>(c) : '?';
    if (strchr(",+\"\\;<>=", out) != nullptr && !text.Put('\\')) {
      return false;
    }
    if (!text.Put(out)) {
      return false;
    }
  }
  return true;
}

// One AttributeTypeAndValue: "type=value".
bool PutAttribute(TextWriter &text, ByteReader type, uint32_t tag, ByteReader value) {
  for (const Known &known : kAttributeTypes) {
    if (Same(type, known.bytes, known.length)) {
      return text.Put(known.name) && text.Put('=') && PutValue(text, tag, value);
    }
  }
  return PutOid(text, type) && text.Put('=') && PutValue(text, tag, value);
}

// A Name: SEQUENCE OF SET OF SEQUENCE { type, value }, written last
// relative name first. The relative names are found again from the start
// for each one written: a name has few, and nothing is kept.
bool ReadName(ByteReader name, char *out, uint16_t &out_length, CertificateInfo *cert) {
  TextWriter text(out, CertificateInfo::kMaxText + 1);
  size_t count = 0;
  for (ByteReader r = name; !r.Empty();) {
    uint32_t tag = 0;
    ByteReader set = r.Ber(tag);
    if (!r.Ok() || tag != kSet || set.Empty()) {
      return false;
    }
    ++count;
    if (count > 64) {
      return false;
    }
  }
  bool cut = false;
  for (size_t index = count; index-- > 0 && !cut;) {
    ByteReader r = name;
    uint32_t tag = 0;
    ByteReader set = r.Ber(tag);
    for (size_t i = 0; i < index; ++i) {
      set = r.Ber(tag);
    }
    const size_t mark = text.Mark();
    bool fits = index + 1 == count || text.Put(", ");
    bool first = true;
    while (!set.Empty()) {
      ByteReader atv = set.BerTagged(kSequence);
      ByteReader type = atv.BerTagged(kOid);
      uint32_t value_tag = 0;
      ByteReader value = atv.Ber(value_tag);
      if (!set.Ok() || !atv.Ok() || !atv.Empty()) {
        return false;
      }
      if (cert != nullptr && Same(type, kCommonName, sizeof kCommonName)) {
        // The last one in the encoding: the most specific.
        if (index + 1 == count || cert->common_name == nullptr) {
          cert->common_name = value.Here();
          cert->common_name_length = value.Left();
        }
      }
      fits = fits && (first || text.Put('+')) && PutAttribute(text, type, value_tag, value);
      first = false;
    }
    if (!fits) {
      text.Back(mark);
      cut = true;
    }
  }
  out_length = static_cast<uint16_t>(text.Length());
  return true;
}

// Days from 1970-01-01 to a date of the proleptic Gregorian calendar.
int64_t DaysFromCivil(int64_t y, unsigned m, unsigned d) {
  y -= m <= 2;
  const int64_t era = (y >= 0 ? y : y - 399) / 400;
  const unsigned yoe = static_cast<unsigned>(y - era * 400);
  const unsigned doy = (153 * (m > 2 ? m - 3 : m + 9) + 2) / 5 + d - 1;
  const unsigned doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return era * 146097 + static_cast<int64_t>(doe) - 719468;
}

bool ReadTimeElement(ByteReader &r, int64_t &seconds, char *text) {
  uint32_t tag = 0;
  ByteReader value = r.Ber(tag);
  return r.Ok() && (tag == kUtcTime || tag == kGeneralizedTime) &&
         ReadTime(value.Here(), value.Left(), tag == kGeneralizedTime, seconds, text);
}

// An empty dNSName names nothing: it is passed over.
bool IsSan(uint32_t tag, ByteReader value) {
  return (tag == kDnsNameTag && !value.Empty()) ||
         (tag == kIpAddressTag && (value.Left() == 4 || value.Left() == 16));
}

// subjectAltName: SEQUENCE OF GeneralName; dNSName and iPAddress are kept.
bool ReadSan(ByteReader names, CertificateInfo &out) {
  ByteReader list = names.BerTagged(kSequence);
  if (!names.Ok() || !names.Empty()) {
    return false;
  }
  out.san_der = list.Here();
  out.san_der_length = list.Left();
  TextWriter text(out.san, sizeof out.san);
  bool cut = false;
  while (!list.Empty()) {
    uint32_t tag = 0;
    ByteReader value = list.Ber(tag);
    if (!list.Ok()) {
      return false;
    }
    if (!IsSan(tag, value)) {
      continue;
    }
    out.has_dns_name = out.has_dns_name || tag == kDnsNameTag;
    if (++out.san_count > CertificateInfo::kMaxSans || cut) {
      continue;
    }
    const size_t mark = text.Mark();
    bool fits = out.san_count == 1 || text.Put(',');
    if (tag == kDnsNameTag) {
      while (fits && !value.Empty()) {
        const uint32_t c = value.U8();
        fits = text.Put(c > 0x20 && c < 0x7f ? static_cast<char>(c) : '?');
      }
    } else {
      char address[48];
      if (value.Left() == 4) {
        oru::kit::FormatIpv4(value.Here(), address);
      } else {
        oru::kit::FormatIpv6(value.Here(), address);
      }
      fits = fits && text.Put(address);
    }
    if (!fits) {
      text.Back(mark);
      cut = true;
    }
  }
  out.san_length = static_cast<uint16_t>(text.Length());
  return true;
}

bool ReadExtensions(ByteReader extensions, CertificateInfo &out) {
  ByteReader list = extensions.BerTagged(kSequence);
  if (!extensions.Ok() || !extensions.Empty()) {
    return false;
  }
  while (!list.Empty()) {
    ByteReader extension = list.BerTagged(kSequence);
    ByteReader id = extension.BerTagged(kOid);
    uint32_t tag = 0;
    ByteReader value = extension.Ber(tag);
    if (tag == 0x01) {
      // critical: BOOLEAN, then the value.
      value = extension.Ber(tag);
    }
    if (!list.Ok() || !extension.Ok() || tag != kOctetString) {
      return false;
    }
    if (Same(id, kSubjectAltName, sizeof kSubjectAltName)) {
      if (!ReadSan(value, out)) {
        return false;
      }
    } else if (Same(id, kSubjectKeyId, sizeof kSubjectKeyId)) {
      ByteReader key = value.BerTagged(kOctetString);
      if (value.Ok()) {
        out.subject_key_id = key.Here();
        out.subject_key_id_length = key.Left();
      }
    } else if (Same(id, kAuthorityKeyId, sizeof kAuthorityKeyId)) {
      ByteReader fields = value.BerTagged(kSequence);
      if (fields.Peek() == kKeyIdTag) {
        ByteReader key = fields.BerTagged(kKeyIdTag);
        if (fields.Ok()) {
          out.authority_key_id = key.Here();
          out.authority_key_id_length = key.Left();
        }
      }
    }
  }
  return true;
}

char Lower(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c + ('a' - 'A')) : c;
}

bool SameText(const uint8_t *a, const char *b, size_t n) {
  for (size_t i = 0; i < n; ++i) {
    if (Lower(static_cast<char>(a[i])) != Lower(b[i])) {
      return false;
    }
  }
  return true;
}

// Two-digit and four-digit fields of a time.
bool Digits(const uint8_t *p, int n, unsigned &out) {
  out = 0;
  for (int i = 0; i < n; ++i) {
    if (p[i] < '0' || p[i] > '9') {
      return false;
    }
    out = out * 10 + (p[i] - '0');
  }
  return true;
}

void PutDigits(char *out, unsigned v, int n) {
  for (int i = n - 1; i >= 0; --i) {
    out[i] = static_cast<char>('0' + v % 10);
    v /= 10;
  }
}

} // namespace

bool ReadTime(const uint8_t *value, size_t length, bool generalized, int64_t &seconds, char *text) {
  const size_t year_digits = generalized ? 4 : 2;
  if (length != year_digits + 11 || value[length - 1] != 'Z') {
    return false;
  }
  unsigned year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0;
  const uint8_t *p = value + year_digits;
  if (!Digits(value, static_cast<int>(year_digits), year) || !Digits(p, 2, month) ||
      !Digits(p + 2, 2, day) || !Digits(p + 4, 2, hour) || !Digits(p + 6, 2, minute) ||
      !Digits(p + 8, 2, second)) {
    return false;
  }
  if (!generalized) {
    year += year >= 50 ? 1900 : 2000;
  }
  constexpr unsigned kDays[] = {31, 29, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  if (month < 1 || month > 12 || day < 1 || day > kDays[month - 1] || hour > 23 || minute > 59 ||
      second > 59) {
    return false;
  }
  seconds = DaysFromCivil(year, month, day) * 86400 + hour * 3600 + minute * 60 + second;
  PutDigits(text, year, 4);
  text[4] = '-';
  PutDigits(text + 5, month, 2);
  text[7] = '-';
  PutDigits(text + 8, day, 2);
  text[10] = 'T';
  PutDigits(text + 11, hour, 2);
  text[13] = ':';
  PutDigits(text + 14, minute, 2);
  text[16] = ':';
  PutDigits(text + 17, second, 2);
  text[19] = 'Z';
  text[20] = '\0';
  return true;
}

CertificateStatus ReadCertificate(const uint8_t *der, size_t length, CertificateInfo &out) {
  memset(&out, 0, sizeof out);
  ByteReader whole(der, length);
  ByteReader certificate = whole.BerTagged(kSequence);
  ByteReader tbs = certificate.BerTagged(kSequence);
  if (!whole.Ok() || !certificate.Ok()) {
    return CertificateStatus::kMalformed;
  }
  uint32_t tag = 0;
  if (tbs.Peek() == kVersionTag) {
    tbs.Ber(tag);
  }
  tbs.BerTagged(kInteger);  // serialNumber, of any length
  tbs.BerTagged(kSequence); // signature algorithm
  ByteReader issuer = tbs.BerTagged(kSequence);
  ByteReader validity = tbs.BerTagged(kSequence);
  ByteReader subject = tbs.BerTagged(kSequence);
  tbs.BerTagged(kSequence); // subjectPublicKeyInfo
  if (!tbs.Ok()) {
    return CertificateStatus::kMalformed;
  }
  if (!ReadTimeElement(validity, out.not_before_sec, out.not_before) ||
      !ReadTimeElement(validity, out.not_after_sec, out.not_after) || !validity.Empty()) {
    return CertificateStatus::kMalformed;
  }
  out.issuer_der = issuer.Here();
  out.issuer_der_length = issuer.Left();
  out.subject_der = subject.Here();
  out.subject_der_length = subject.Left();
  if (!ReadName(issuer, out.issuer, out.issuer_length, nullptr) ||
      !ReadName(subject, out.subject, out.subject_length, &out)) {
    return CertificateStatus::kMalformed;
  }
  // issuerUniqueID [1], subjectUniqueID [2], then extensions [3].
  while (!tbs.Empty()) {
    ByteReader field = tbs.Ber(tag);
    if (!tbs.Ok()) {
      return CertificateStatus::kMalformed;
    }
    if (tag == kExtensionsTag && !ReadExtensions(field, out)) {
      return CertificateStatus::kMalformed;
    }
  }
  return CertificateStatus::kOk;
}

bool SelfSigned(const CertificateInfo &cert) {
  if (cert.subject_der == nullptr || cert.subject_der_length != cert.issuer_der_length ||
      memcmp(cert.subject_der, cert.issuer_der, cert.subject_der_length) != 0) {
    return false;
  }
  if (cert.subject_key_id != nullptr && cert.authority_key_id != nullptr) {
    return cert.subject_key_id_length == cert.authority_key_id_length &&
           memcmp(cert.subject_key_id, cert.authority_key_id, cert.subject_key_id_length) == 0;
  }
  return true;
}

bool NameMatches(const uint8_t *pattern, size_t pattern_length, const char *host,
                 size_t host_length) {
  if (host_length != 0 && host[host_length - 1] == '.') {
    --host_length;
  }
  if (pattern_length != 0 && pattern[pattern_length - 1] == '.') {
    --pattern_length;
  }
  if (host_length == 0 || pattern_length == 0) {
    return false;
  }
  if (pattern_length > 2 && pattern[0] == '*' && pattern[1] == '.') {
    // The host's first label, whatever it is, stands for the '*'; what
    // follows must be a name of two labels at least ("*.com" covers nothing).
    if (memchr(pattern + 2, '.', pattern_length - 2) == nullptr) {
      return false;
    }
    const void *dot = memchr(host, '.', host_length);
    if (dot == nullptr) {
      return false;
    }
    const size_t label = static_cast<size_t>(static_cast<const char *>(dot) - host);
    return label != 0 && host_length - label == pattern_length - 1 &&
           SameText(pattern + 1, host + label, pattern_length - 1);
  }
  return pattern_length == host_length && SameText(pattern, host, host_length);
}

bool NameCovered(const CertificateInfo &cert, const char *host, size_t host_length) {
  for (ByteReader r(cert.san_der, cert.san_der_length); !r.Empty();) {
    uint32_t tag = 0;
    ByteReader value = r.Ber(tag);
    if (tag == kDnsNameTag && NameMatches(value.Here(), value.Left(), host, host_length)) {
      return true;
    }
    // A server name that is an address (which clients should not send, but
    // some do) is covered by that address among the iPAddress entries.
    if (tag == kIpAddressTag && (value.Left() == 4 || value.Left() == 16)) {
      char address[48];
      const size_t n = value.Left() == 4 ? oru::kit::FormatIpv4(value.Here(), address)
                                         : oru::kit::FormatIpv6(value.Here(), address);
      if (n == host_length && SameText(reinterpret_cast<const uint8_t *>(address), host, n)) {
        return true;
      }
    }
  }
  return !cert.has_dns_name && cert.common_name != nullptr &&
         NameMatches(cert.common_name, cert.common_name_length, host, host_length);
}

bool WeakCipher(uint16_t suite) {
  // From the IANA registry of TLS cipher suites, in order.
  static constexpr uint16_t kWeak[] = {// NULL, RC4 and the export grades of the first suites.
                                       0x0000, 0x0001, 0x0002, 0x0003, 0x0004, 0x0005, 0x0006,
                                       0x0008, 0x000b, 0x000e, 0x0011, 0x0014,
                                       // DH_anon, export or not.
                                       0x0017, 0x0018, 0x0019, 0x001a, 0x001b,
                                       // Kerberos with RC4 or export grades.
                                       0x0020, 0x0024, 0x0026, 0x0027, 0x0028, 0x0029, 0x002a,
                                       0x002b,
                                       // PSK with NULL encryption, DH_anon with AES.
                                       0x002c, 0x002d, 0x002e, 0x0034, 0x003a, 0x003b,
                                       // DH_anon with Camellia and AES-SHA256.
                                       0x0046, 0x006c, 0x006d, 0x0089,
                                       // PSK with RC4, DH_anon with SEED and AES-GCM.
                                       0x008a, 0x008e, 0x0092, 0x009b, 0x00a6, 0x00a7,
                                       // PSK with NULL encryption, SHA-2.
                                       0x00b0, 0x00b1, 0x00b4, 0x00b5, 0x00b8, 0x00b9,
                                       // DH_anon with Camellia-SHA256.
                                       0x00bf, 0x00c5,
                                       // ECDH(E) with NULL or RC4, ECDH_anon.
                                       0xc001, 0xc002, 0xc006, 0xc007, 0xc00b, 0xc00c, 0xc010,
                                       0xc011, 0xc015, 0xc016, 0xc017, 0xc018, 0xc019,
                                       // ECDHE_PSK with RC4 or NULL.
                                       0xc033, 0xc039, 0xc03a, 0xc03b,
                                       // DH_anon with ARIA and Camellia-GCM.
                                       0xc046, 0xc047, 0xc05a, 0xc05b, 0xc084, 0xc085};
  size_t low = 0;
  size_t high = sizeof kWeak / sizeof kWeak[0];
  while (low < high) {
    const size_t mid = (low + high) / 2;
    if (kWeak[mid] < suite) {
      low = mid + 1;
    } else {
      high = mid;
    }
  }
  return low < sizeof kWeak / sizeof kWeak[0] && kWeak[low] == suite;
}

LeafAssembler::~LeafAssembler() {
  Release();
}

void LeafAssembler::Release() {
  if (m_leaf != nullptr) {
    kest_free_local(m_leaf);
    m_leaf = nullptr;
  }
}

LeafAssembler::State LeafAssembler::Stop() {
  Release();
  m_state = State::kNone;
  return m_state;
}

LeafAssembler::State LeafAssembler::Feed(const uint8_t *data, size_t length) {
  while (m_state == State::kNeedMore && length != 0) {
    if (m_record_left == 0) {
      m_header[m_header_have++] = *data++;
      --length;
      if (m_header[0] != 22) {
        return Stop();
      }
      if (m_header_have < sizeof m_header) {
        continue;
      }
      m_header_have = 0;
      ByteReader header(m_header + 1, sizeof m_header - 1);
      const uint32_t version = header.U16();
      m_record_left = header.U16();
      if (version < 0x0300 || version > 0x0303 || m_record_left == 0 ||
          m_record_left > 16384 + 2048) {
        return Stop();
      }
      continue;
    }
    if (m_head_have < sizeof m_head) {
      m_head[m_head_have++] = *data++;
      --length;
      --m_record_left;
      if (m_head[0] != kCertificateMessage) {
        return Stop();
      }
      if (m_head_have == 7) {
        // The message holds the list and nothing else; the list one
        // certificate at least.
        const uint32_t message = ByteReader(m_head + 1, 3).U24();
        const uint32_t list = ByteReader(m_head + 4, 3).U24();
        if (message != list + 3 || list < 4) {
          return Stop();
        }
      } else if (m_head_have == sizeof m_head) {
        const uint32_t list = ByteReader(m_head + 4, 3).U24();
        m_leaf_length = ByteReader(m_head + 7, 3).U24();
        if (m_leaf_length == 0 || m_leaf_length + 3 > list || m_leaf_length > kMaxLeaf) {
          return Stop();
        }
        m_leaf = static_cast<uint8_t *>(kest_malloc_local(m_leaf_length));
        if (m_leaf == nullptr) {
          return Stop();
        }
      }
      continue;
    }
    if (TakeRecordBytes(data, length, m_record_left, m_leaf, m_leaf_have, m_leaf_length)) {
      m_state = State::kDone;
    }
  }
  return m_state;
}

} // namespace kest_tls
