#include "dns/DnsMessage.h"

#include <kest/kit/AddressText.h>
#include <kest/kit/ByteReader.h>
#include <kest/kit/TextWriter.h>
#include <string.h>

namespace kest_dns {

namespace {

constexpr uint16_t kTypeA = 1;
constexpr uint16_t kTypeNs = 2;
constexpr uint16_t kTypeCname = 5;
constexpr uint16_t kTypePtr = 12;
constexpr uint16_t kTypeMx = 15;
constexpr uint16_t kTypeAaaa = 28;
constexpr uint16_t kTypeOpt = 41;

// A name is at most 255 bytes on the wire, length bytes included.
constexpr size_t kMaxWireName = 255;
// Pointers followed per name. The pointers must also go ever further back
// (see ReadName), which alone ends every walk; this only bounds the work.
constexpr unsigned kMaxHops = 64;

using oru::kit::TextWriter;

// The length of the well-formed UTF-8 sequence at `p` (before `end`), or 0.
// Names of the local link (mDNS, LLMNR) are often UTF-8, and are best shown
// as such.
size_t Utf8Length(const uint8_t *p, const uint8_t *end) {
  const uint8_t lead = p[0];
  size_t n = 0;
  uint8_t low = 0x80, high = 0xBF;
  if (lead >= 0xC2 && lead <= 0xDF) {
    n = 2;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    n = 3;
    low = lead == 0xE0 ? 0xA0 : 0x80;  // no overlong forms
    high = lead == 0xED ? 0x9F : 0xBF; // no surrogates
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    n = 4;
    low = lead == 0xF0 ? 0x90 : 0x80;
    high = lead == 0xF4 ? 0x8F : 0xBF; // nothing beyond U+10FFFF
  } else {
    return 0;
  }
  if (static_cast<size_t>(end - p) < n || p[1] < low || p[1] > high) {
    return 0;
  }
  for (size_t i = 2; i < n; ++i) {
    if (p[i] < 0x80 || p[i] > 0xBF) {
      return 0;
    }
  }
  return n;
}

// A label byte as text: printable ASCII as it is, the separator and the
// escape character escaped, anything else as "\DDD", so that the text stays
// one unambiguous line whatever the label holds.
bool PutLabelByte(TextWriter &text, uint8_t b) {
  if (b == '.' || b == '\\') {
    const char escaped[] = {'\\', static_cast<char>(b)};
    return text.Put(escaped, sizeof escaped);
  }
  if (b >= 0x20 && b < 0x7F) {
    return text.Put(static_cast<char>(b));
  }
  const char code[] = {'\\', static_cast<char>('0' + b / 100), static_cast<char>('0' + b / 10 % 10),
                       static_cast<char>('0' + b % 10)};
  return text.Put(code, sizeof code);
}

// Reads the name that starts at `pos` of the message. Its own bytes (up to
// the end or the first pointer) must lie below `limit`; bytes reached through
// pointers only within the message. Every pointer must aim below the start
// of the stretch that holds it, so the walk only ever moves back and cannot
// loop. With `strict`, control characters in labels make the name invalid
// (for questions: clients ask for names, not for binary). On success `next`
// is the byte after the name's own bytes, and `text` (if any) holds the
// dotted name, "." for the root.
bool ReadName(const uint8_t *msg, size_t length, size_t pos, size_t limit, bool strict,
              size_t &next, TextWriter *text) {
  size_t cur = pos;
  size_t floor = pos;
  size_t bound = limit < length ? limit : length;
  size_t wire = 0;
  unsigned hops = 0;
  bool jumped = false;
  bool empty = true;
  for (;;) {
    if (cur >= bound) {
      return false;
    }
    const uint8_t c = msg[cur];
    if ((c & 0xC0) == 0xC0) {
      if (cur + 1 >= bound || ++hops > kMaxHops) {
        return false;
      }
      const size_t target = static_cast<size_t>(c & 0x3F) << 8 | msg[cur + 1];
      if (target < kHeaderSize || target >= floor) {
        return false;
      }
      if (!jumped) {
        next = cur + 2;
        jumped = true;
      }
      cur = floor = target;
      bound = length;
      continue;
    }
    if ((c & 0xC0) != 0) {
      // The extended and reserved label kinds: nobody sends them.
      return false;
    }
    if (c == 0) {
      if (!jumped) {
        next = cur + 1;
      }
      break;
    }
    wire += 1u + c;
    if (wire + 1 > kMaxWireName || cur + 1 + c > bound) {
      return false;
    }
    if (text != nullptr && !empty && !text->Put('.')) {
      return false;
    }
    const uint8_t *label_end = msg + cur + 1 + c;
    for (size_t i = cur + 1; i <= cur + c; ++i) {
      if (strict && (msg[i] < 0x20 || msg[i] == 0x7F)) {
        return false;
      }
      if (text == nullptr) {
        continue;
      }
      const size_t utf8 = msg[i] >= 0x80 ? Utf8Length(msg + i, label_end) : 0;
      if (utf8 != 0 && !text->Put(reinterpret_cast<const char *>(msg + i), utf8)) {
        return false;
      }
      if (utf8 != 0) {
        i += utf8 - 1;
      } else if (!PutLabelByte(*text, msg[i])) {
        return false;
      }
    }
    empty = false;
    cur += 1u + c;
  }
  return text == nullptr || !empty || text->Put('.');
}

// Types in use or set aside for use: the assigned range, the two of the
// 32768 block, and private use.
bool PlausibleType(uint16_t type) {
  return (type >= 1 && type <= 260) || type == 32768 || type == 32769 ||
         (type >= 65280 && type <= 65534);
}

// IN, CH, HS, NONE and ANY. The top bit is mDNS's "unicast answer" in
// questions and "cache flush" in records.
bool PlausibleClass(uint16_t qclass) {
  const uint16_t c = qclass & 0x7FFF;
  return c == 1 || c == 3 || c == 4 || c == 254 || c == 255;
}

// NetBIOS name service speaks in DNS messages too, but it is not DNS: its
// names are one label of 32 encoding letters and its types NB and NBSTAT
// (32 and 33, NIMLOC and SRV to DNS). A DNS name with a first label of just
// that length asked with just those types is not worth the confusion.
bool NetbiosName(const uint8_t *data, size_t name, uint16_t type) {
  return data[name] == 32 && (type == 32 || type == 33);
}

bool HeaderHolds(const uint8_t *data, size_t available, size_t length) {
  if (length < kHeaderSize || length > 0xFFFF) {
    return false;
  }
  if (available >= 4) {
    const bool response = (data[2] & 0x80) != 0;
    const uint8_t opcode = (data[2] >> 3) & 0x0F;
    // QUERY, IQUERY, STATUS, NOTIFY, UPDATE, DSO.
    if (opcode == 3 || opcode > 6) {
      return false;
    }
    // A question carries no response code.
    if (!response && (data[3] & 0x0F) != 0) {
      return false;
    }
  }
  if (available >= kHeaderSize) {
    const size_t qd = oru::kit::LoadBe16(data + 4);
    const size_t records = static_cast<size_t>(oru::kit::LoadBe16(data + 6)) +
                           oru::kit::LoadBe16(data + 8) + oru::kit::LoadBe16(data + 10);
    const bool truncated = (data[2] & 0x02) != 0;
    // The smallest question is 5 bytes, the smallest record 11: counts that
    // cannot fit the length are not DNS (a truncated answer may promise
    // records it had no room for).
    if (qd > kMaxQuestions || qd * 5 > length - kHeaderSize ||
        (!truncated && qd * 5 + records * 11 > length - kHeaderSize)) {
      return false;
    }
    if (qd == 0 && records == 0) {
      return false;
    }
  }
  return true;
}

// Appends one answer, with a comma before all but the first. An answer that
// does not fit is dropped whole, and so is everything after it.
void AddAnswer(Summary &out, bool &full, const char *answer) {
  if (full) {
    return;
  }
  TextWriter text(out.answers, sizeof out.answers, out.answers_length);
  if ((out.answers_length != 0 && !text.Put(',')) || !text.Put(answer)) {
    out.answers[out.answers_length] = 0;
    full = true;
    return;
  }
  out.answers_length = text.Length();
}

// The data of one record of the answer section, when it names something.
void ReadAnswer(const uint8_t *msg, size_t length, uint16_t type, uint16_t rclass, uint32_t ttl,
                size_t rdata, size_t rdlength, Summary &out, bool &full) {
  char entry[kNameText];
  const bool internet = (rclass & 0x7FFF) == 1;
  if (internet && ((type == kTypeA && rdlength == 4) || (type == kTypeAaaa && rdlength == 16)) &&
      out.address_count < kMaxAddresses) {
    AnswerAddress &a = out.addresses[out.address_count++];
    for (size_t i = 0; i < rdlength; ++i) {
      a.bytes[i] = msg[rdata + i];
    }
    a.length = static_cast<uint8_t>(rdlength);
    a.ttl = ttl;
  }
  if (type == kTypeA && internet && rdlength == 4) {
    oru::kit::FormatIpv4(msg + rdata, entry);
  } else if (type == kTypeAaaa && internet && rdlength == 16) {
    FormatIpv6(msg + rdata, entry);
  } else if (type == kTypeCname || type == kTypePtr || type == kTypeNs || type == kTypeMx) {
    // An MX record names its exchange behind a two-byte preference.
    const size_t at = type == kTypeMx ? rdata + 2 : rdata;
    TextWriter text(entry, sizeof entry);
    size_t next = 0;
    if (at >= rdata + rdlength ||
        !ReadName(msg, length, at, rdata + rdlength, false, next, &text)) {
      return;
    }
  } else {
    return;
  }
  AddAnswer(out, full, entry);
}

} // namespace

Verdict Parse(const uint8_t *data, size_t length, Summary &out) {
  out = Summary();
  if (data == nullptr || !HeaderHolds(data, length, length)) {
    return Verdict::kNotDns;
  }
  out.id = oru::kit::LoadBe16(data);
  out.response = (data[2] & 0x80) != 0;
  out.truncated = (data[2] & 0x02) != 0;
  out.opcode = (data[2] >> 3) & 0x0F;
  out.rcode = data[3] & 0x0F;
  out.qdcount = oru::kit::LoadBe16(data + 4);
  out.ancount = oru::kit::LoadBe16(data + 6);
  out.nscount = oru::kit::LoadBe16(data + 8);
  out.arcount = oru::kit::LoadBe16(data + 10);

  size_t pos = kHeaderSize;
  // The first question's name, as text.
  TextWriter text(out.query, sizeof out.query);
  for (unsigned i = 0; i < out.qdcount; ++i) {
    size_t next = 0;
    bool holds = ReadName(data, length, pos, length, true, next, i == 0 ? &text : nullptr) &&
                 next + 4 <= length;
    const uint16_t qtype = holds ? oru::kit::LoadBe16(data + next) : 0;
    const uint16_t qclass = holds ? oru::kit::LoadBe16(data + next + 2) : 0;
    if (!holds || !PlausibleType(qtype) || !PlausibleClass(qclass)) {
      // Once the first question stands, the message is DNS, if a damaged one.
      if (i == 0) {
        out.query[0] = 0;
        return Verdict::kNotDns;
      }
      return Verdict::kDnsDamaged;
    }
    if (i == 0) {
      if (NetbiosName(data, pos, qtype)) {
        out.query[0] = 0;
        return Verdict::kNotDns;
      }
      out.has_question = true;
      out.query_length = text.Length();
      out.qtype = qtype;
      out.qclass = qclass;
    }
    // HeaderHolds keeps the message within 64 KB and the count within the
    // array.
    out.questions[out.question_count++] = {static_cast<uint16_t>(pos), qtype, qclass};
    pos = next + 4;
    out.question_end = pos;
  }

  const unsigned total = static_cast<unsigned>(out.ancount) + out.nscount + out.arcount;
  const unsigned walked = total < kMaxRecords ? total : kMaxRecords;
  bool full = false;
  for (unsigned i = 0; i < walked; ++i) {
    size_t next = 0;
    if (!ReadName(data, length, pos, length, false, next, nullptr) || next + 10 > length) {
      // A message without questions has nothing else to stand on.
      return out.qdcount == 0 ? Verdict::kNotDns : Verdict::kDnsDamaged;
    }
    const uint16_t type = oru::kit::LoadBe16(data + next);
    const uint16_t rclass = oru::kit::LoadBe16(data + next + 2);
    const uint32_t ttl = oru::kit::LoadBe32(data + next + 4);
    const size_t rdlength = oru::kit::LoadBe16(data + next + 8);
    const size_t rdata = next + 10;
    // OPT puts the sender's payload size where the class goes.
    if (!PlausibleType(type) || (type != kTypeOpt && !PlausibleClass(rclass)) ||
        rdata + rdlength > length || (out.qdcount == 0 && i == 0 && NetbiosName(data, pos, type))) {
      return out.qdcount == 0 ? Verdict::kNotDns : Verdict::kDnsDamaged;
    }
    if (i < out.ancount) {
      ReadAnswer(data, length, type, rclass, ttl, rdata, rdlength, out, full);
    } else if (type == kTypeOpt && i >= static_cast<unsigned>(out.ancount) + out.nscount) {
      // EDNS carries the upper eight bits of the response code.
      out.rcode = static_cast<uint16_t>((ttl >> 24) << 4 | (data[3] & 0x0F));
    }
    pos = rdata + rdlength;
  }
  return Verdict::kDns;
}

size_t QuestionName(const uint8_t *data, size_t length, const Question &q, char *out, size_t size) {
  if (size == 0) {
    return 0;
  }
  TextWriter text(out, size);
  size_t next = 0;
  if (data == nullptr || !ReadName(data, length, q.at, length, false, next, &text)) {
    out[0] = 0;
    return 0;
  }
  return text.Length();
}

bool PlausibleStart(const uint8_t *data, size_t available, size_t length) {
  return data != nullptr && HeaderHolds(data, available < length ? available : length, length);
}

const char *TypeName(uint16_t type) {
  // The IANA registry of resource record types, by number.
  static const char *const kLow[] = {
      nullptr,  "A",     "NS",     "MD",         "MF",      "CNAME",      "SOA",   "MB",
      "MG",     "MR",    "NULL",   "WKS",        "PTR",     "HINFO",      "MINFO", "MX",
      "TXT",    "RP",    "AFSDB",  "X25",        "ISDN",    "RT",         "NSAP",  "NSAP-PTR",
      "SIG",    "KEY",   "PX",     "GPOS",       "AAAA",    "LOC",        "NXT",   "EID",
      "NIMLOC", "SRV",   "ATMA",   "NAPTR",      "KX",      "CERT",       "A6",    "DNAME",
      "SINK",   "OPT",   "APL",    "DS",         "SSHFP",   "IPSECKEY",   "RRSIG", "NSEC",
      "DNSKEY", "DHCID", "NSEC3",  "NSEC3PARAM", "TLSA",    "SMIMEA",     nullptr, "HIP",
      "NINFO",  "RKEY",  "TALINK", "CDS",        "CDNSKEY", "OPENPGPKEY", "CSYNC", "ZONEMD",
      "SVCB",   "HTTPS", "DSYNC"};
  if (type < sizeof kLow / sizeof kLow[0]) {
    return kLow[type];
  }
  switch (type) {
  case 99:
    return "SPF";
  case 100:
    return "UINFO";
  case 101:
    return "UID";
  case 102:
    return "GID";
  case 103:
    return "UNSPEC";
  case 104:
    return "NID";
  case 105:
    return "L32";
  case 106:
    return "L64";
  case 107:
    return "LP";
  case 108:
    return "EUI48";
  case 109:
    return "EUI64";
  case 249:
    return "TKEY";
  case 250:
    return "TSIG";
  case 251:
    return "IXFR";
  case 252:
    return "AXFR";
  case 253:
    return "MAILB";
  case 254:
    return "MAILA";
  case 255:
    return "ANY";
  case 256:
    return "URI";
  case 257:
    return "CAA";
  case 258:
    return "AVC";
  case 259:
    return "DOA";
  case 260:
    return "AMTRELAY";
  case 32768:
    return "TA";
  case 32769:
    return "DLV";
  default:
    return nullptr;
  }
}

const char *RcodeName(uint16_t rcode) {
  static const char *const kLow[] = {"NOERROR", "FORMERR", "SERVFAIL", "NXDOMAIN",
                                     "NOTIMP",  "REFUSED", "YXDOMAIN", "YXRRSET",
                                     "NXRRSET", "NOTAUTH", "NOTZONE",  "DSOTYPENI"};
  static const char *const kHigh[] = {"BADVERS", "BADKEY", "BADTIME",  "BADMODE",
                                      "BADNAME", "BADALG", "BADTRUNC", "BADCOOKIE"};
  if (rcode < sizeof kLow / sizeof kLow[0]) {
    return kLow[rcode];
  }
  if (rcode >= 16 && rcode < 16 + sizeof kHigh / sizeof kHigh[0]) {
    return kHigh[rcode - 16];
  }
  return nullptr;
}

namespace {

size_t FormatNamed(const char *name, unsigned value, char *out, size_t size) {
  if (size == 0) {
    return 0;
  }
  TextWriter text(out, size);
  if (name != nullptr) {
    text.Put(name);
  } else {
    text.Decimal(value);
  }
  return text.Length();
}

} // namespace

size_t FormatType(uint16_t type, char *out, size_t size) {
  return FormatNamed(TypeName(type), type, out, size);
}

size_t FormatRcode(uint16_t rcode, char *out, size_t size) {
  return FormatNamed(RcodeName(rcode), rcode, out, size);
}

size_t FormatIpv6(const uint8_t *address, char *out) {
  static constexpr uint8_t kMapped[12] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF};
  if (memcmp(address, kMapped, sizeof kMapped) != 0) {
    return oru::kit::FormatIpv6(address, out);
  }
  // A mapped IPv4 address keeps its IPv4 part dotted.
  memcpy(out, "::ffff:", 7);
  return 7 + oru::kit::FormatIpv4(address + 12, out + 7);
}

} // namespace kest_dns
