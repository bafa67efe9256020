// SMB on any port, by its bytes: SMB 1 ("\xFFSMB"), SMB 2 and 3 ("\xFESMB")
// and SMB 3's encrypted ("\xFDSMB") and compressed ("\xFCSMB") messages,
// each behind a four-byte length, over TCP directly (445) or as NetBIOS
// session messages (139). The session's requests, answers and keepalives are
// passed over: the NetBIOS decoder names the session request, this one what
// follows. Of each message only the head is kept; the rest (file data above
// all) is passed over by its length, never buffered.
//
// Reports "smb.version" ("1", "2" or "3": by the dialect the server chose,
// or by the first header past the negotiation that tells, SMB 1's or an
// encrypted one; SMB 2 and 3 otherwise look alike),
// "smb.dialect" (the server's choice: "3.1.1", or an SMB 1 dialect string,
// "NT LM 0.12"), "smb.tree" and "smb.file" (the paths of tree connects and
// of opened files, the first kMaxNames of each), and "ntlm.user",
// "ntlm.domain" and "ntlm.host" from the NTLMSSP AUTHENTICATE message of a
// session setup.
#include <kest/kit/Decoder.h>
#include <kest/kit/MessageHeads.h>
#include <kest/kit/TextLine.h>

#include <string.h>

namespace {

using namespace oru::kit;

struct Smb {
  static constexpr Spec kSpec{.plugin = "smb",
                              .module = MODULE_SMB,
                              .protocols = {"SMB"},
                              .attributes = {"smb.version", "smb.dialect", "smb.tree", "smb.file",
                                             "ntlm.user", "ntlm.domain", "ntlm.host"},
                              .tcp = true,
                              .tcp_ports = {445, 139}};
  enum { kVersion, kDialect, kTree, kFile, kUser, kDomain, kHost };
  // A message's head kept, its four-byte length included: enough for the
  // NTLMSSP AUTHENTICATE of the usual clients' session setups.
  static constexpr uint32_t kHead = 1024;
  // Tree connects, opened files and logins reported per connection.
  static constexpr uint32_t kMaxNames = 4;
  // NetBIOS session messages a side may send before its first SMB message.
  static constexpr uint32_t kMaxControl = 4;

  struct Side : MessageHeads<kHead> {
    uint32_t control; // NetBIOS session messages passed over
  };
  struct State {
    Side side[2];
    // An SMB 1 negotiate request's dialect strings, for its answer's index.
    uint8_t dialects[160];
    uint32_t dialects_length;
    uint32_t trees, files, logins;
    bool version_said;
    bool dialect_said;
  };

  // Bytes of a message at hand: `n` of them at `p`.
  struct Span {
    const uint8_t *p;
    uint32_t n;
    uint32_t Le16(uint32_t at) const {
      return at < n && n - at >= 2 ? static_cast<uint32_t>(p[at] | p[at + 1] << 8) : 0;
    }
    uint32_t Le32(uint32_t at) const {
      return at < n && n - at >= 4 ? Le16(at) | Le16(at + 2) << 16 : 0;
    }
    uint32_t At(uint32_t at) const { return at < n ? p[at] : 0; }
    // `length` bytes from `at`, cut to what is at hand.
    Span Cut(uint64_t at, uint64_t length) const {
      if (at >= n) {
        return Span{p, 0};
      }
      return Span{p + at, static_cast<uint32_t>(length < n - at ? length : n - at)};
    }
  };

  // Publishes a name, UTF-16LE or in an OEM code page (ASCII kept, the
  // rest unknown); false for an empty one.
  static bool Text(Session<Smb> &s, int attribute, Span text, bool unicode) {
    char out[768];
    uint32_t length = 0;
    if (unicode) {
      length = Utf8FromUtf16Le(text.p, text.n, out, sizeof out);
    } else {
      while (length < text.n && length < sizeof out && text.p[length] != 0) {
        out[length] = text.p[length] < 0x80 ? static_cast<char>(text.p[length]) : '?';
        ++length;
      }
    }
    if (length != 0) {
      s.Publish(attribute, out, length);
    }
    return length != 0;
  }

  static void Version(Session<Smb> &s, char version) {
    State &st = s.state();
    if (!st.version_said) {
      st.version_said = true;
      s.Publish(kVersion, &version, 1);
    }
  }

  // The first NTLMSSP AUTHENTICATE message in a session setup's security
  // blob (bare, or inside SPNEGO): its user, domain and host names.
  static void Ntlm(Session<Smb> &s, Span blob) {
    static constexpr uint8_t kSignature[] = {'N', 'T', 'L', 'M', 'S', 'S', 'P', 0};
    State &st = s.state();
    for (uint32_t at = 0; blob.n >= 12 && at <= blob.n - 12 && st.logins < kMaxNames; ++at) {
      if (memcmp(blob.p + at, kSignature, sizeof kSignature) != 0 || blob.Le32(at + 8) != 3) {
        continue;
      }
      const Span message = blob.Cut(at, blob.n);
      const bool unicode = (message.Le32(60) & 1) != 0;
      ++st.logins;
      // Each name's length and offset within the message.
      static constexpr uint32_t kFields[] = {36, 28, 44};
      for (int i = 0; i < 3; ++i) {
        const uint32_t length = message.Le16(kFields[i]), offset = message.Le32(kFields[i] + 4);
        if (message.n >= 64 && offset <= message.n && length <= message.n - offset) {
          Text(s, kUser + i, message.Cut(offset, length), unicode);
        }
      }
      return;
    }
  }

  static void Dialect(Session<Smb> &s, const char *text, uint32_t length) {
    State &st = s.state();
    if (!st.dialect_said && length != 0) {
      st.dialect_said = true;
      s.Publish(kDialect, text, length);
    }
  }

  // One SMB 2 header and its body; `m` ends where the header's command
  // does (at its next command in a compound).
  static void Smb2(Session<Smb> &s, Span m) {
    State &st = s.state();
    const uint32_t command = m.Le16(12), structure = m.Le16(64);
    const bool response = (m.Le32(16) & 1) != 0;
    if (command == 0 && response && m.Le32(8) == 0 && structure == 65) {
      static const CodeName kDialects[] = {{0x0202, "2.0.2"},
                                           {0x0210, "2.1"},
                                           {0x0300, "3.0"},
                                           {0x0302, "3.0.2"},
                                           {0x0311, "3.1.1"}};
      const uint32_t dialect = m.Le16(68);
      for (const CodeName &known : kDialects) {
        if (known.code == dialect) { // not 0x02FF: a second negotiation follows
          Version(s, dialect >= 0x0300 ? '3' : '2');
          Dialect(s, known.name, TextLength(known.name));
        }
      }
    } else if (command == 1 && !response && structure == 25) {
      Ntlm(s, m.Cut(m.Le16(76), m.Le16(78)));
    } else if (command == 3 && !response && structure == 9 && st.trees < kMaxNames) {
      const Span path = m.Cut(m.Le16(68), m.Le16(70));
      st.trees += path.n == m.Le16(70) && Text(s, kTree, path, true) ? 1 : 0;
    } else if (command == 5 && !response && structure == 57 && st.files < kMaxNames) {
      const Span name = m.Cut(m.Le16(108), m.Le16(110));
      st.files += name.n == m.Le16(110) && Text(s, kFile, name, true) ? 1 : 0;
    }
  }

  // One SMB 1 command: its words and bytes; `at` is where its bytes begin
  // in the message, for the padding before UTF-16 text.
  static void Smb1(Session<Smb> &s, uint32_t command, bool reply, bool unicode, Span words,
                   Span bytes, uint32_t at) {
    State &st = s.state();
    if (command == 0x72 && !reply && words.n == 0) {
      st.dialects_length = bytes.n < sizeof st.dialects ? bytes.n : sizeof st.dialects;
      memcpy(st.dialects, bytes.p, st.dialects_length);
    } else if (command == 0x72 && reply && words.n >= 2) {
      // The index counts the request's dialects, each 0x02 and a string.
      const Span list{st.dialects, st.dialects_length};
      uint32_t index = words.Le16(0), from = 0;
      while (from < list.n && list.At(from) == 0x02) {
        uint32_t end = from + 1;
        while (end < list.n && list.At(end) != 0) {
          ++end;
        }
        if (end == list.n) {
          break;
        }
        if (index-- == 0) {
          Dialect(s, reinterpret_cast<const char *>(list.p) + from + 1, end - from - 1);
          break;
        }
        from = end + 1;
      }
    } else if (command == 0x73 && !reply && words.n == 24) {
      Ntlm(s, bytes.Cut(0, words.Le16(14)));
    } else if (command == 0x75 && !reply && words.n == 8 && st.trees < kMaxNames) {
      const uint32_t password = words.Le16(6);
      const Span path = bytes.Cut(password + (unicode ? (at + password) & 1 : 0), bytes.n);
      st.trees += Text(s, kTree, path, unicode) ? 1 : 0;
    } else if (command == 0xa2 && !reply && words.n == 48 && st.files < kMaxNames) {
      st.files += Text(s, kFile, bytes.Cut(unicode ? at & 1 : 0, words.Le16(5)), unicode) ? 1 : 0;
    }
  }

  // An SMB 1 command's word and byte counts at `at` fit in the message.
  static bool Fits(Span m, uint32_t at, uint32_t length) {
    const uint32_t count_at = at + 1 + 2 * m.At(at);
    return count_at + 2 <= m.n && count_at + 2 + m.Le16(count_at) <= length;
  }

  // An SMB 2 header at `at` of the message, and where its compound's next
  // one begins (8-aligned; 0 for none).
  static bool Fits2(Span m, uint32_t at, uint32_t length, uint32_t &next) {
    const Span h = m.Cut(at, length - at);
    next = h.Le32(20);
    return h.Le16(4) == 64 && h.Le16(64) >= 2 &&
           (next == 0 || (next % 8 == 0 && next >= 66 && next < length - at));
  }

  // A whole message after its four-byte length: `m` kept of `length`. False
  // when it is no SMB message; the connection is named before it is read.
  static bool Message(Session<Smb> &s, Span m, uint32_t length) {
    const uint32_t first = m.At(0);
    uint32_t next = 0;
    const bool ok = first == 0xff   ? Fits(m, 32, length)
                    : first == 0xfe ? Fits2(m, 0, length, next)
                    : first == 0xfd // the encrypted message's length, one algorithm flag
                        ? m.Le32(36) == length - 52 && m.Le16(42) == 1
                        : m.Le16(8) <= 4 && m.Le16(10) <= 1; // compressed: known algorithm
    if (!ok || !s.Name()) {
      return false;
    }
    // SMB 2 and 3 share a header: only the dialect tells them apart.
    if (first != 0xfe && (first != 0xff || m.At(4) != 0x72 || (m.At(9) & 0x80) != 0)) {
      Version(s, first == 0xff ? '1' : '3');
    }
    if (first == 0xfe) { // a compound: each header says where the next begins
      for (uint32_t at = 0, i = 0; i < 8; ++i) {
        Smb2(s, m.Cut(at, next != 0 ? next : length - at));
        const uint32_t to = at + next;
        if (next == 0 || to >= m.n || !Fits2(m, to, length, next)) {
          break;
        }
        at = to;
      }
    } else if (first == 0xff) { // AndX commands name the next one and where it begins
      const uint32_t flags2 = m.Le16(10);
      const bool reply = (m.At(9) & 0x80) != 0, unicode = (flags2 & 0x8000) != 0;
      uint32_t command = m.At(4), at = 32;
      for (int i = 0; i < 4 && Fits(m, at, length); ++i) {
        const uint32_t words = 2 * m.At(at), count_at = at + 1 + words;
        Smb1(s, command, reply, unicode, m.Cut(at + 1, words),
             m.Cut(count_at + 2, m.Le16(count_at)), count_at + 2);
        const bool andx = command == 0x73 || command == 0x75 || command == 0xa2 ||
                          command == 0x2d || command == 0x2e || command == 0x2f || command == 0x24;
        const uint32_t after = m.Le16(at + 3);
        if (!andx || words < 4 || m.At(at + 1) == 0xff || after <= at || after >= m.n) {
          break;
        }
        command = m.At(at + 1);
        at = after;
      }
    }
    return true;
  }

  // What the bytes of a side's message so far can be: kNotMine, kNeedMore
  // (an SMB message whose length is known only once `size` is non-zero),
  // or kDone for a NetBIOS session message to pass over.
  static Verdict Frame(const Side &side, uint32_t &size) {
    static constexpr uint8_t kSmb[] = {'S', 'M', 'B'};
    static constexpr uint32_t kShortest[] = {16, 52 + 1, 64 + 2, 32 + 3};
    const uint8_t *h = side.head;
    const uint32_t type = h[0];
    size = 0;
    if (type >= 0x81 && type <= 0x85) {
      if (side.have < 4) {
        return side.have < 2 || h[1] == 0 ? Verdict::kNeedMore : Verdict::kNotMine;
      }
      const uint32_t length = h[2] << 8 | h[3];
      static constexpr uint32_t kLength[] = {68, 0, 1, 6, 0};
      const bool ok = h[1] == 0 && (type == 0x81 ? length >= 68 && length <= 1024
                                                 : length == kLength[type - 0x81]);
      size = 4 + length;
      return ok ? Verdict::kDone : Verdict::kNotMine;
    }
    for (uint32_t i = 5; i < side.have && i < 8; ++i) {
      if (h[i] != kSmb[i - 5]) {
        return Verdict::kNotMine;
      }
    }
    if (type != 0 || (side.have > 4 && (h[4] < 0xfc))) {
      return Verdict::kNotMine;
    }
    if (side.have < 8) {
      return Verdict::kNeedMore;
    }
    const uint32_t length = static_cast<uint32_t>(h[1] << 16 | h[2] << 8 | h[3]);
    size = 4 + length;
    return length >= kShortest[h[4] - 0xfc] ? Verdict::kNeedMore : Verdict::kNotMine;
  }

  // A session message (type 0) or a NetBIOS session request or answer.
  static bool Opening(unsigned, ByteReader first) {
    return first.Peek() == 0 || (first.Peek() >= 0x81 && first.Peek() <= 0x85);
  }

  static Verdict Feed(Session<Smb> &s, ByteReader r) {
    Side &side = s.state().side[s.side()];
    const Verdict v = side.Read(
        r,
        [&](const uint8_t *, uint32_t) -> uint32_t {
          uint32_t size = 0;
          return Frame(side, size) == Verdict::kNotMine ? Side::kForeign : size;
        },
        [&](ByteReader head, uint32_t size) {
          const uint8_t *h = head.Here();
          const uint32_t have = static_cast<uint32_t>(head.Left());
          const bool control = h[0] != 0;
          if (!control && !Message(s, Span{h + 4, have - 4}, size - 4) && !s.named()) {
            return Verdict::kNotMine;
          }
          if (control && !s.named() && ++side.control > kMaxControl) {
            return Verdict::kNotMine;
          }
          return Verdict::kNeedMore;
        });
    if (v == Verdict::kNotMine) {
      // Bytes that frame no message: not SMB, or (once named) the place is lost.
      return s.named() ? Verdict::kDone : Verdict::kNotMine;
    }
    return s.named() ? Verdict::kNamed : Verdict::kNeedMore;
  }
};

} // namespace

KEST_DECODER(Smb)
