// MongoDB on any port, by its wire messages: a 16-byte header (a
// little-endian length, a request id, the id answered, an opcode), then the
// body. Named by a request of a known opcode that answers nothing (OP_MSG,
// OP_QUERY, OP_COMPRESSED and the older OP_INSERT, OP_UPDATE, OP_DELETE,
// OP_GET_MORE, OP_KILL_CURSORS) or an answer (OP_MSG, OP_REPLY) whose body
// frames well: OP_MSG's flags and a body section whose BSON document fits
// it, OP_QUERY's collection name and document, OP_REPLY's count and first
// document.
//
// Reports, for the first kRequests requests of a connection, the opcode's
// name as "mongodb.op" ("OP_MSG"), the command as "mongodb.command" (an
// OP_MSG body's first key, or an OP_QUERY's on a "$cmd" collection:
// "find", "insert", "hello") and the collection as "mongodb.collection"
// ("<db>.<collection>": OP_QUERY's full collection name, or the command's
// value beside the body's "$db"). BSON is read one level deep, element by
// element inside its document's declared size; nested documents are passed
// over by their size. Of each message only the head is kept (kHead bytes);
// the rest is passed over by its length.
#include <kest/kit/Decoder.h>
#include <kest/kit/MessageHeads.h>
#include <kest/kit/TextLine.h>

#include <string.h>

namespace {

using namespace oru::kit;

struct Mongodb {
  static constexpr Spec kSpec{.plugin = "mongodb",
                              .module = MODULE_MONGODB,
                              .protocols = {"MongoDB"},
                              .attributes = {"mongodb.op", "mongodb.command", "mongodb.collection"},
                              .tcp = true,
                              .tcp_ports = {27017, 27018, 27019}};
  enum { kOp, kCommand, kCollection };
  static constexpr uint32_t kHeader = 16;
  static constexpr uint32_t kHead = 1024;
  static constexpr uint32_t kMessages = 8;
  static constexpr uint32_t kRequests = 4;
  // The largest message a server takes (48 MB).
  static constexpr uint32_t kMaxMessage = 48000000;
  static constexpr uint32_t kElements = 64;

  enum Op : uint32_t {
    kReply = 1,
    kUpdate = 2001,
    kInsert = 2002,
    kQuery = 2004,
    kGetMore = 2005,
    kDelete = 2006,
    kKillCursors = 2007,
    kCompressed = 2012,
    kMsg = 2013,
  };

  using Side = MessageHeads<kHead>;
  struct State {
    Side side[2];
    uint32_t requests; // requests reported
  };

  static const char *OpName(uint32_t op) {
    switch (op) {
    case kReply:
      return "OP_REPLY";
    case kUpdate:
      return "OP_UPDATE";
    case kInsert:
      return "OP_INSERT";
    case kQuery:
      return "OP_QUERY";
    case kGetMore:
      return "OP_GET_MORE";
    case kDelete:
      return "OP_DELETE";
    case kKillCursors:
      return "OP_KILL_CURSORS";
    case kCompressed:
      return "OP_COMPRESSED";
    case kMsg:
      return "OP_MSG";
    default:
      return nullptr;
    }
  }

  // What a document says of its command: its first key, that key's value
  // when a string, and the "$db" element's string.
  struct Command {
    const char *name = nullptr;
    uint32_t name_length = 0;
    const char *value = nullptr;
    uint32_t value_length = 0;
    const char *db = nullptr;
    uint32_t db_length = 0;
  };

  // The size of an element's value of BSON type `type` at the front of
  // `r`; -1 for an unknown type.
  static int64_t ValueSize(uint32_t type, ByteReader r) {
    switch (type) {
    case 0x01:
    case 0x09:
    case 0x11:
    case 0x12:
      return 8; // double, date, timestamp, int64
    case 0x02:
    case 0x0d:
    case 0x0e:
      return 4 + static_cast<int64_t>(r.U32Le()); // strings
    case 0x03:
    case 0x04:
    case 0x0f:
      return r.U32Le(); // document, array, code with scope
    case 0x05:
      return 5 + static_cast<int64_t>(r.U32Le()); // binary: length, subtype
    case 0x06:
    case 0x0a:
    case 0x7f:
    case 0xff:
      return 0; // undefined, null, keys
    case 0x07:
      return 12; // object id
    case 0x08:
      return 1;  // bool
    case 0x0b: { // a pattern and its options
      const char *text = nullptr;
      uint32_t a = 0, b = 0;
      return r.CString(text, a) && r.CString(text, b) ? a + b + 2 : -1;
    }
    case 0x0c:
      return 4 + static_cast<int64_t>(r.U32Le()) + 12; // DB pointer
    case 0x10:
      return 4; // int32
    case 0x13:
      return 16; // decimal128
    default:
      return -1;
    }
  }

  // A document at the front of `r` (`room` bytes of it declared for the
  // message, of which `r` holds what was kept): false when its size does
  // not fit or, within what was kept, its elements do not frame.
  static bool Document(ByteReader r, uint64_t room, Command &c) {
    const uint32_t size = r.U32Le();
    if (!r.Ok() || size < 5 || size > room) {
      return false;
    }
    ByteReader body = r.Left() >= size - 4 ? r.Sub(size - 4) : r;
    const bool whole = r.Ok() && body.Left() == size - 4;
    for (uint32_t i = 0; i < kElements && !body.Empty(); ++i) {
      const uint32_t type = body.U8();
      if (type == 0) {
        return !whole || body.Empty();
      }
      const char *key = nullptr;
      uint32_t n = 0;
      if (!body.CString(key, n)) {
        return !whole;
      }
      const int64_t value = ValueSize(type, body);
      if (value < 0 || (type == 0x02 && value < 5)) {
        return false;
      }
      if (type == 0x02 && static_cast<uint64_t>(value) <= body.Left()) {
        const char *text = reinterpret_cast<const char *>(body.Here() + 4);
        const uint32_t length = static_cast<uint32_t>(value - 5);
        if (i == 0) {
          c.value = text;
          c.value_length = length;
        } else if (n == 3 && memcmp(key, "$db", 3) == 0) {
          c.db = text;
          c.db_length = length;
        }
      }
      if (i == 0) {
        c.name = key;
        c.name_length = n;
      }
      if (!body.Skip(static_cast<size_t>(value))) {
        return !whole;
      }
    }
    return true;
  }

  static void Report(Session<Mongodb> &s, uint32_t op, const Command &c, const char *collection,
                     uint32_t collection_length) {
    State &st = s.state();
    if (st.requests >= kRequests) {
      return;
    }
    ++st.requests;
    s.Publish(kOp, OpName(op));
    if (c.name != nullptr && c.name_length != 0 && Printable(c.name, c.name_length)) {
      s.Publish(kCommand, c.name, c.name_length);
    }
    if (collection != nullptr && collection_length != 0) {
      s.Publish(kCollection, collection, collection_length);
      return;
    }
    // "<db>.<collection>" from the command's value and "$db".
    char text[256];
    if (c.value != nullptr && c.db != nullptr && c.value_length != 0 && c.db_length != 0 &&
        c.value_length + c.db_length + 1 <= sizeof text) {
      memcpy(text, c.db, c.db_length);
      text[c.db_length] = '.';
      memcpy(text + c.db_length + 1, c.value, c.value_length);
      s.Publish(kCollection, text, c.db_length + 1 + c.value_length);
    }
  }

  // One message's head; kNotMine when its body does not frame.
  static Verdict Message(Session<Mongodb> &s, ByteReader r, uint32_t size) {
    r.Skip(8); // length, request id
    const uint32_t answers = r.U32Le();
    const uint32_t op = r.U32Le();
    const uint64_t room = size - kHeader;
    Command c;
    const char *collection = nullptr;
    uint32_t n = 0;
    bool ok = false;
    switch (op) {
    case kMsg: {
      // Flags: checksum, more to come, exhaust allowed; the other low
      // sixteen must be clear. Then a body section (kind 0).
      const uint32_t flags = r.U32Le();
      const uint32_t kind = r.U8();
      ok = r.Ok() && (flags & 0xfffc) == 0 && kind == 0 &&
           Document(r, room - 5 - ((flags & 1) != 0 ? 4 : 0), c);
      break;
    }
    case kQuery: {
      r.Skip(4); // flags
      ok = answers == 0 && r.CString(collection, n) && n > 2 && Printable(collection, n) &&
           memchr(collection, '.', n) != nullptr && r.Skip(8) &&
           Document(r, room - 4 - (n + 1) - 8, c);
      const bool command = n > 5 && memcmp(collection + n - 5, ".$cmd", 5) == 0;
      if (ok && command) {
        // The command's collection is its value's, in the same database.
        c.db = collection;
        c.db_length = n - 5;
        collection = nullptr;
      } else {
        c.name = nullptr;
      }
      break;
    }
    case kReply: {
      const uint32_t flags = r.U32Le();
      r.Skip(12); // cursor, first
      const uint32_t count = r.U32Le();
      ok = answers != 0 && (flags & ~0xfu) == 0 && count < 0x1000000 &&
           (count == 0 ? room == 20 : Document(r, room - 20, c));
      c = Command{};
      break;
    }
    case kUpdate:
    case kInsert:
    case kGetMore:
    case kDelete:
      r.Skip(4); // a reserved zero (OP_INSERT: its flags)
      ok = answers == 0 && r.CString(collection, n) && n > 2 && Printable(collection, n) &&
           memchr(collection, '.', n) != nullptr;
      break;
    case kKillCursors: {
      const uint32_t zero = r.U32Le();
      const uint32_t count = r.U32Le();
      ok = answers == 0 && zero == 0 && count != 0 && room == 8 + 8 * static_cast<uint64_t>(count);
      break;
    }
    case kCompressed: {
      const uint32_t original = r.U32Le();
      r.Skip(4); // size uncompressed
      const uint32_t compressor = r.U8();
      ok = r.Ok() && OpName(original) != nullptr && original != kCompressed && compressor <= 3;
      break;
    }
    default:
      break;
    }
    if (!ok || !s.Name()) {
      return s.named() ? Verdict::kNeedMore : Verdict::kNotMine;
    }
    if (answers == 0) {
      Report(s, op, c, collection, n);
    }
    return Verdict::kNamed;
  }

  // A message length's high byte is small, and the first four bytes of
  // the opcode (when in) are a known one's.
  static bool Opening(unsigned, ByteReader first) {
    return first.Peek(3) < 3 &&
           (first.Left() < 16 || OpName(first.Peek(12) | first.Peek(13) << 8 |
                                        first.Peek(14) << 16 | first.Peek(15) << 24) != nullptr);
  }

  static Verdict Feed(Session<Mongodb> &s, ByteReader r) {
    Side &side = s.state().side[s.side()];
    return side.ReadAtMost(
        s, r, kMessages,
        [](const uint8_t *head, uint32_t have) -> uint32_t {
          if (have < 4) {
            return 0;
          }
          const uint32_t size = ByteReader(head, 4).U32Le();
          if (size < kHeader || size > kMaxMessage) {
            return Side::kForeign;
          }
          if (have < kHeader) {
            return 0;
          }
          return OpName(ByteReader(head + 12, 4).U32Le()) == nullptr ? Side::kForeign : size;
        },
        [&](ByteReader head, uint32_t size) { return Message(s, head, size); });
  }
};

} // namespace

KEST_DECODER(Mongodb)
