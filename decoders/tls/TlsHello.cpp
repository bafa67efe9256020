#include "tls/TlsHello.h"

#include <kest.h>
#include <kest/kit/ByteReader.h>
#include <string.h>

namespace kest_tls {

namespace {

using oru::kit::ByteReader;

char Printable(uint8_t c) {
  return c >= 0x20 && c < 0x7f ? static_cast<char>(c) : '?';
}

void ReadServerName(ByteReader r, HelloInfo &out) {
  // The first name of type host_name (0) that is not empty.
  r.Prefixed(2).Tlv(1, 2, [&out](uint64_t name_type, ByteReader name) {
    if (name_type != 0 || name.Empty()) {
      return true;
    }
    // A name longer than any DNS name is not one: leave it out.
    const size_t n = name.Left();
    if (n > HelloInfo::kMaxName) {
      return false;
    }
    for (size_t i = 0; i < n; ++i) {
      out.server_name[i] = Printable(name.Here()[i]);
    }
    out.server_name[n] = '\0';
    out.server_name_length = static_cast<uint16_t>(n);
    out.has_server_name = true;
    return false;
  });
}

void ReadAlpn(ByteReader r, HelloInfo &out) {
  ByteReader list = r.Prefixed(2);
  size_t used = 0;
  bool first = true;
  while (list.Ok() && list.Left() != 0) {
    ByteReader name = list.Prefixed(1);
    if (!list.Ok()) {
      break;
    }
    const size_t n = name.Left();
    if (first) {
      out.alpn_first_present = n != 0;
      out.alpn_first_first = n != 0 ? name.Here()[0] : 0;
      out.alpn_first_last = n != 0 ? name.Here()[n - 1] : 0;
      first = false;
    }
    const size_t need = n + (used != 0 ? 1 : 0);
    if (used + need > HelloInfo::kMaxAlpnText) {
      out.lists_cut = true;
      break;
    }
    if (used != 0) {
      out.alpn[used++] = ',';
    }
    for (size_t i = 0; i < n; ++i) {
      out.alpn[used++] = Printable(name.Here()[i]);
    }
  }
  out.alpn[used] = '\0';
  out.alpn_length = static_cast<uint16_t>(used);
  out.has_alpn = !first;
}

void ReadSigAlgs(ByteReader r, HelloInfo &out) {
  ByteReader list = r.Prefixed(2);
  while (list.Ok() && list.Left() >= 2) {
    const uint16_t v = static_cast<uint16_t>(list.U16());
    if (out.sig_alg_count == HelloInfo::kMaxSigAlgs) {
      out.lists_cut = true;
      return;
    }
    out.sig_algs[out.sig_alg_count++] = v;
  }
}

void ReadSupportedVersions(ByteReader r, bool client, HelloInfo &out) {
  if (!client) {
    const uint16_t v = static_cast<uint16_t>(r.U16());
    if (r.Ok()) {
      out.supported_version = v;
    }
    return;
  }
  ByteReader list = r.Prefixed(1);
  while (list.Ok() && list.Left() >= 2) {
    uint16_t v = static_cast<uint16_t>(list.U16());
    if (out.dtls) {
      // DTLS numbers its versions downwards: the smallest known is newest.
      if (DtlsVersionText(v) != nullptr &&
          (out.supported_version == 0 || v < out.supported_version)) {
        out.supported_version = v;
      }
      continue;
    }
    if (VersionText(v) == nullptr) {
      continue;
    }
    if (v > 0x0304) {
      v = 0x0304;
    }
    if (v > out.supported_version) {
      out.supported_version = v;
    }
  }
}

bool ReadExtensions(ByteReader &body, bool client, HelloInfo &out) {
  // Hellos of old versions may end before the extensions.
  if (body.Left() == 0) {
    return true;
  }
  ByteReader all = body.Prefixed(2);
  if (!body.Ok() || body.Left() != 0) {
    return false;
  }
  return all.Tlv(2, 2, [client, &out](uint64_t type, ByteReader data) {
    if (out.extension_count < HelloInfo::kMaxExtensions) {
      out.extensions[out.extension_count++] = static_cast<uint16_t>(type);
    } else {
      out.lists_cut = true;
    }
    // The contents of one extension are read leniently: a broken inner list
    // loses that extension's value, not the hello.
    switch (type) {
    case kExtServerName:
      if (client) {
        ReadServerName(data, out);
      }
      break;
    case kExtAlpn:
      ReadAlpn(data, out);
      break;
    case kExtSignatureAlgorithms:
      ReadSigAlgs(data, out);
      break;
    case kExtSupportedVersions:
      ReadSupportedVersions(data, client, out);
      break;
    default:
      break;
    }
    return true;
  });
}

} // namespace

ParseStatus ParseHello(const uint8_t *data, size_t length, HelloInfo &out, bool dtls) {
  memset(&out, 0, sizeof out);
  if (data == nullptr) {
    return ParseStatus::kMalformed;
  }
  ByteReader message(data, length);
  const uint32_t type = message.U8();
  const uint32_t body_length = message.U24();
  if (!message.Ok() || (type != kClientHello && type != kServerHello) ||
      body_length != message.Left()) {
    return ParseStatus::kMalformed;
  }
  const bool client = type == kClientHello;
  out.type = static_cast<uint8_t>(type);
  out.dtls = dtls;
  ByteReader body = message.Sub(body_length);
  out.legacy_version = static_cast<uint16_t>(body.U16());
  body.Skip(32); // random
  const uint32_t session_id = body.U8();
  if (!body.Ok() || (out.legacy_version >> 8) != (dtls ? 0xfe : 3) || session_id > 32) {
    return ParseStatus::kMalformed;
  }
  body.Skip(session_id);
  if (client && dtls) {
    // The cookie of a HelloVerifyRequest, or none.
    body.Skip(body.U8());
  }
  if (client) {
    const uint32_t cipher_bytes = body.U16();
    ByteReader ciphers = body.Sub(cipher_bytes);
    if (!body.Ok() || cipher_bytes < 2 || cipher_bytes % 2 != 0) {
      return ParseStatus::kMalformed;
    }
    while (ciphers.Left() != 0) {
      const uint16_t v = static_cast<uint16_t>(ciphers.U16());
      if (out.cipher_count < HelloInfo::kMaxCiphers) {
        out.ciphers[out.cipher_count++] = v;
      } else {
        out.lists_cut = true;
      }
    }
    const uint32_t compression = body.U8();
    if (!body.Ok() || compression < 1 || !body.Skip(compression)) {
      return ParseStatus::kMalformed;
    }
  } else {
    out.ciphers[0] = static_cast<uint16_t>(body.U16());
    out.cipher_count = 1;
    body.U8(); // compression method
    if (!body.Ok()) {
      return ParseStatus::kMalformed;
    }
  }
  return ReadExtensions(body, client, out) ? ParseStatus::kOk : ParseStatus::kMalformed;
}

namespace {

// The versions a hello can name: the text of "tls.version" and the two
// characters of the client fingerprint. SSL 3 has a code but no text: its
// hellos are not TLS to this decoder.
struct KnownVersion {
  uint16_t version;
  const char *text;
  const char *code;
};
constexpr KnownVersion kVersions[] = {{0x0300, nullptr, "s3"},
                                      {0x0301, "1.0", "10"},
                                      {0x0302, "1.1", "11"},
                                      {0x0303, "1.2", "12"},
                                      {0x0304, "1.3", "13"}};
// DTLS's, apart: a TLS hello that names them names nothing TLS knows.
constexpr KnownVersion kDtlsVersions[] = {
    {0xfeff, "1.0", "d1"}, {0xfefd, "1.2", "d2"}, {0xfefc, "1.3", "d3"}};

template <size_t N>
const KnownVersion *FindVersion(const KnownVersion (&table)[N], uint16_t version) {
  for (const KnownVersion &known : table) {
    if (known.version == version) {
      return &known;
    }
  }
  return nullptr;
}

} // namespace

const char *VersionText(uint16_t version) {
  if (const KnownVersion *known = FindVersion(kVersions, version)) {
    return known->text;
  }
  return (version >> 8) == 0x7f || (version >> 8) == 0xfb ? "1.3" : nullptr;
}

const char *DtlsVersionText(uint16_t version) {
  const KnownVersion *known = FindVersion(kDtlsVersions, version);
  return known != nullptr ? known->text : nullptr;
}

const char *VersionCode(uint16_t version) {
  const KnownVersion *known = FindVersion(kVersions, version);
  if (known == nullptr) {
    known = FindVersion(kDtlsVersions, version);
  }
  return known != nullptr ? known->code : "00";
}

bool TakeRecordBytes(const uint8_t *&data, size_t &length, uint32_t &record_left, uint8_t *message,
                     uint32_t &have, uint32_t total) {
  size_t n = length < record_left ? length : record_left;
  if (n > total - have) {
    n = total - have;
  }
  memcpy(message + have, data, n);
  have += static_cast<uint32_t>(n);
  data += n;
  length -= n;
  record_left -= static_cast<uint32_t>(n);
  return have == total;
}

HelloAssembler::~HelloAssembler() {
  if (m_message != nullptr) {
    kest_free_local(m_message);
  }
}

HelloAssembler::State HelloAssembler::Fail() {
  if (m_message != nullptr) {
    kest_free_local(m_message);
    m_message = nullptr;
  }
  m_state = State::kFailed;
  return m_state;
}

bool HelloAssembler::CheckRecordHeader() {
  ByteReader header(m_header, sizeof m_header);
  const uint32_t type = header.U8();
  const uint32_t version = header.U16();
  const uint32_t length = header.U16();
  return type == 22 && version >= 0x0301 && version <= 0x0304 && length != 0 &&
         length <= kMaxRecord;
}

HelloAssembler::State HelloAssembler::Feed(const uint8_t *data, size_t length) {
  const size_t given = length;
  while (m_state == State::kNeedMore && length != 0) {
    if (m_record_left == 0) {
      // A record header, possibly in pieces. The first byte alone already
      // tells most other protocols apart.
      m_header[m_header_have++] = *data++;
      --length;
      const bool first_record = !m_header_checked;
      const bool alert_allowed = m_hs_have == 0;
      if (m_header[0] != 22 && !(alert_allowed && m_header[0] == 21) &&
          !(first_record && (m_header[0] & 0x80) != 0)) {
        return Fail();
      }
      if (m_header_have < sizeof m_header) {
        continue;
      }
      m_header_have = 0;
      if (m_header[0] == 21) {
        // An alert before the hello (a server's warning that it does not
        // know the name asked for, say): two bytes, passed over.
        ByteReader header(m_header + 1, sizeof m_header - 1);
        const uint32_t version = header.U16();
        if (version < 0x0301 || version > 0x0304 || header.U16() != 2) {
          return Fail();
        }
        m_skip = true;
        m_record_left = 2;
        continue;
      }
      if (m_header[0] != 22) {
        // Two-byte length (top bit set), type 1, version 3.0 to 3.3.
        const bool legacy = m_header[2] == kClientHello && m_header[3] == 3 && m_header[4] <= 3;
        m_state = legacy ? State::kLegacyHello : State::kFailed;
        return m_state;
      }
      if (!CheckRecordHeader()) {
        return Fail();
      }
      m_header_checked = true;
      m_record_left = ByteReader(m_header + 3, 2).U16();
      continue;
    }
    if (m_skip) {
      const size_t n = length < m_record_left ? length : m_record_left;
      data += n;
      length -= n;
      m_record_left -= static_cast<uint32_t>(n);
      m_skip = m_record_left != 0;
      continue;
    }
    if (m_hs_have < sizeof m_hs_header) {
      m_hs_header[m_hs_have++] = *data++;
      --length;
      --m_record_left;
      if (m_hs_header[0] != kClientHello && m_hs_header[0] != kServerHello) {
        return Fail();
      }
      m_type_checked = true;
      if (m_hs_have < sizeof m_hs_header) {
        continue;
      }
      const uint32_t body = ByteReader(m_hs_header + 1, 3).U24();
      // 38 bytes: the smallest ServerHello body (version, random, empty
      // session id, suite, compression).
      if (body < 38 || body > kMaxHandshake - sizeof m_hs_header) {
        return Fail();
      }
      m_message_length = body + static_cast<uint32_t>(sizeof m_hs_header);
      m_message = static_cast<uint8_t *>(kest_malloc_local(m_message_length));
      if (m_message == nullptr) {
        return Fail();
      }
      memcpy(m_message, m_hs_header, sizeof m_hs_header);
      m_message_have = sizeof m_hs_header;
      continue;
    }
    if (TakeRecordBytes(data, length, m_record_left, m_message, m_message_have, m_message_length)) {
      m_state = State::kDone;
      m_used = given - length;
    }
  }
  return m_state;
}

} // namespace kest_tls
