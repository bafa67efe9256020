// One side of a TCP stream (Framing::kStream) cut into messages whose head
// tells their size, of which a decoder reads only the first N bytes: each
// head (N bytes, or the whole message when shorter) is gathered across
// packets and handed over once, and the rest of the message is passed over
// without being kept, however large. Database and file-sharing protocols
// carry megabytes behind a few bytes worth reading.
//
//   struct Side : oru::kit::MessageHeads<64> { uint32_t messages; };
//   const Verdict v = side.Read(r,
//       [&](const uint8_t *head, uint32_t have) -> uint32_t { ... },
//       [&](ByteReader head, uint32_t size) -> Verdict { ... });
//
// The size judge sees the head gathered so far (at least one byte) and
// answers kForeign when those bytes frame no message of the protocol, 0
// while it cannot tell the size yet (one more byte is gathered), or the
// whole message's size, header included (never less than the bytes it was
// shown). Until the size is known the head grows a byte at a time, so the
// judge may refuse at the first byte that gives the protocol away.
#ifndef KEST_KIT_MESSAGEHEADS_H
#define KEST_KIT_MESSAGEHEADS_H

#include <kest/kit/ByteReader.h>
#include <kest/kit/Decoder.h>

#include <stdint.h>
#include <string.h>

namespace oru::kit {

template <uint32_t N> struct MessageHeads {
  static_assert(N != 0, "a head holds at least one byte");
  static constexpr uint32_t kForeign = ~0u;

  uint8_t head[N];
  uint32_t have;     // bytes of the current message's head kept
  uint32_t skip;     // bytes of the current message still to pass over
  uint32_t messages; // heads handed over
  // Bytes of the last run behind the message whose verdict ended Read
  // (what a decoder that hands on passes to Session::HandOn).
  uint32_t unread;

  // Reads `r` to its end. `message(head, size)` gets each message's head
  // once it is whole; kNeedMore or kNamed go on to the next message, any
  // other verdict is returned at once. kNotMine also when the size judge
  // answers kForeign; kNeedMore when `r` runs out.
  template <typename SizeFn, typename MessageFn>
  Verdict Read(ByteReader r, SizeFn &&size_of, MessageFn &&message) {
    while (!r.Empty()) {
      if (skip != 0) {
        const uint32_t n = skip < r.Left() ? skip : static_cast<uint32_t>(r.Left());
        r.Skip(n);
        skip -= n;
        continue;
      }
      uint32_t size = have != 0 ? size_of(head, have) : 0;
      if (size == kForeign) {
        return Verdict::kNotMine;
      }
      const uint32_t want = size == 0 ? have + 1 : size < N ? size : N;
      const uint32_t room = want > have ? want - have : 0;
      const uint32_t take = static_cast<uint32_t>(room < r.Left() ? room : r.Left());
      memcpy(head + have, r.Here(), take);
      have += take;
      r.Skip(take);
      size = size_of(head, have);
      if (size == kForeign || (size != 0 && size < have) || (size == 0 && have == N)) {
        return Verdict::kNotMine;
      }
      if (size == 0 || have < (size < N ? size : N)) {
        continue;
      }
      const Verdict v = message(ByteReader(head, have), size);
      skip = size - have;
      have = 0;
      if (v != Verdict::kNeedMore && v != Verdict::kNamed) {
        unread = r.Left() > skip ? static_cast<uint32_t>(r.Left() - skip) : 0;
        return v;
      }
    }
    return Verdict::kNeedMore;
  }

  // Read for a decoder's Feed that reads at most `limit` messages of a side:
  // kNeedMore while `r` runs out first; otherwise, after the limit, or when
  // `message` answers kDone or kNotMine, or at bytes that frame no message,
  // the verdict to leave with (kDone once the protocol is named, else
  // kNotMine).
  template <typename D, typename SizeFn, typename MessageFn>
  Verdict ReadAtMost(Session<D> &s, ByteReader r, uint32_t limit, SizeFn &&size_of,
                     MessageFn &&message) {
    const Verdict v = Read(r, size_of, [&](ByteReader head, uint32_t size) {
      const Verdict got = message(head, size);
      if (got != Verdict::kNeedMore && got != Verdict::kNamed) {
        return got;
      }
      return ++messages >= limit ? Verdict::kDone : Verdict::kNeedMore;
    });
    if (v == Verdict::kNeedMore) {
      return v;
    }
    return s.named() ? Verdict::kDone : Verdict::kNotMine;
  }
};

} // namespace oru::kit

#endif
