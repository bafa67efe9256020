// One DNS message (RFC 1035 layout, also mDNS and LLMNR) read into the few
// facts the decoder reports: the questions, the response code and the
// answers worth naming. A pure function of the bytes: no host hooks, no
// allocation, so that tests and the fuzz target call it as it is.
//
// The same walk decides whether bytes are DNS at all, which is why it checks
// more than it reports: header counts that fit the length, known opcodes,
// labels of legal length and kind, compression pointers that go backwards
// inside the message, plausible types and classes.
#ifndef KEST_DECODERS_DNS_DNSMESSAGE_H
#define KEST_DECODERS_DNS_DNSMESSAGE_H

#include <stddef.h>
#include <stdint.h>

namespace kest_dns {

// The fixed header in front of every message.
constexpr size_t kHeaderSize = 12;

// A name as text: at most 255 bytes on the wire, each byte at most four
// characters once escaped ("\DDD"), and the terminating zero.
constexpr size_t kNameText = 1024;
// The answers as one comma-separated text; a list that would not fit stops
// at the last whole entry.
constexpr size_t kAnswersText = 1024;
// Resource records walked per message; the rest are left unread.
constexpr unsigned kMaxRecords = 64;
// Questions a message may carry (mDNS asks several at once).
constexpr unsigned kMaxQuestions = 32;
// A and AAAA answers kept with their addresses; the rest are only named.
constexpr unsigned kMaxAddresses = 16;

// Where a question's name starts in the message, with its type and class.
struct Question {
  uint16_t at;
  uint16_t qtype;
  uint16_t qclass;
};

// The address of an A (4 bytes) or AAAA (16 bytes) answer and its time to
// live.
struct AnswerAddress {
  uint8_t bytes[16];
  uint8_t length;
  uint32_t ttl;
};

enum class Verdict : uint8_t {
  // Not a DNS message: header, question section or counts do not hold.
  kNotDns,
  // Header and questions hold, but a resource record does not: what came
  // before it is reported.
  kDnsDamaged,
  // Every section read as far as the walk goes.
  kDns,
};

struct Summary {
  uint16_t id = 0;
  bool response = false;
  bool truncated = false;
  uint8_t opcode = 0;
  // With an EDNS record, the twelve-bit extended code.
  uint16_t rcode = 0;
  uint16_t qdcount = 0;
  uint16_t ancount = 0;
  uint16_t nscount = 0;
  uint16_t arcount = 0;
  // The first question; has_question false when the message has none. Names
  // are dotted without the final dot ("." for the root); printable ASCII and
  // well-formed UTF-8 stand as they are, a dot or backslash inside a label
  // and any other byte are escaped ("\.", "\\", "\DDD").
  bool has_question = false;
  uint16_t qtype = 0;
  uint16_t qclass = 0;
  char query[kNameText] = {};
  size_t query_length = 0;
  // Every question that holds, the first included, in order (a message
  // with more than kMaxQuestions is not DNS). Their names are read from the
  // message again with QuestionName, only when wanted.
  Question questions[kMaxQuestions] = {};
  unsigned question_count = 0;
  // Where the question section ends (after the last question kept).
  size_t question_end = kHeaderSize;
  char answers[kAnswersText] = {};
  size_t answers_length = 0;
  // The answer section's addresses, in order: whatever CNAME chain leads
  // there, they serve the name asked for.
  AnswerAddress addresses[kMaxAddresses] = {};
  unsigned address_count = 0;
};

// Reads `length` bytes at `data` as one message (without the TCP length
// prefix) into `out`.
Verdict Parse(const uint8_t *data, size_t length, Summary &out);

// The name of question `q` of the message `data` that Parse read, as text
// like Summary::query, with a terminating zero; returns the length, 0 when
// it does not fit `size` (kNameText always suffices).
size_t QuestionName(const uint8_t *data, size_t length, const Question &q, char *out, size_t size);

// Whether the first `available` bytes of a message that will be `length`
// bytes long can still be DNS: for a TCP stream that waits for the rest of
// its first message. Looks at the header only, once it is there.
bool PlausibleStart(const uint8_t *data, size_t available, size_t length);

// The type's mnemonic, or null for a number without one.
const char *TypeName(uint16_t type);
// The response code's mnemonic, or null.
const char *RcodeName(uint16_t rcode);

// Writes the mnemonic or, without one, the decimal number, with a
// terminating zero; returns the length. `size` of 16 always suffices for
// either.
size_t FormatType(uint16_t type, char *out, size_t size);
size_t FormatRcode(uint16_t rcode, char *out, size_t size);

// An answer's IPv6 address as text: the kit's canonical form, but a mapped
// IPv4 address as "::ffff:" and the dotted IPv4 address. `out` takes 46
// bytes; returns the length.
size_t FormatIpv6(const uint8_t *address, char *out);

} // namespace kest_dns

#endif
