#include <kest/Base64Decoder.h>

namespace oru {

namespace {

bool LineEnd(char c) {
  return c == '\r' || c == '\n';
}

// The 6-bit value of an alphabet byte, or -1.
int Sextet(char c) {
  if (c >= 'A' && c <= 'Z') {
    return c - 'A';
  }
  if (c >= 'a' && c <= 'z') {
    return c - 'a' + 26;
  }
  if (c >= '0' && c <= '9') {
    return c - '0' + 52;
  }
  if (c == '+') {
    return 62;
  }
  if (c == '/') {
    return 63;
  }
  return -1;
}

} // namespace

unsigned int Base64Decoder::GetDecodedLen() {
  if (!counted) {
    uint32_t line_ends = 0;
    for (uint32_t p = start; p != end; ++p) {
      line_ends += LineEnd(flow->At(p)) ? 1 : 0;
    }
    encoded_length = end - start - line_ends;
    counted = true;
  }
  if (encoded_length % 4 != 0) {
    return 0;
  }
  if (flow->At(static_cast<uint32_t>(end - 4)) == '=') {
    return 0;
  }
  uint32_t padding = 0;
  for (uint32_t p = end; p != start && flow->At(p - 1) == '='; --p) {
    ++padding;
  }
  if (padding > 2) {
    return 0;
  }
  return encoded_length / 4 * 3 + 1;
}

bool Base64Decoder::Decode(char *out) {
  if (out == nullptr) {
    return false;
  }
  uint32_t bits = 0;
  int held = 0;
  uint32_t padding = 0;
  for (uint32_t p = start; p != end; ++p) {
    const char c = flow->At(p);
    if (LineEnd(c)) {
      continue;
    }
    if (c == '=' || padding != 0) {
      // The first "=" ends the data; only "=" may follow, two at most.
      if (c != '=' || ++padding > 2) {
        return false;
      }
      continue;
    }
    const int value = Sextet(c);
    if (value < 0) {
      return false;
    }
    bits = bits << 6 | static_cast<uint32_t>(value);
    if (++held == 4) {
      *out++ = static_cast<char>(bits >> 16);
      *out++ = static_cast<char>(bits >> 8);
      *out++ = static_cast<char>(bits);
      bits = 0;
      held = 0;
    }
  }
  // A last group of two or three sextets carries one or two bytes.
  if (held >= 2) {
    bits <<= 6 * (4 - held);
    *out++ = static_cast<char>(bits >> 16);
    if (held == 3) {
      *out++ = static_cast<char>(bits >> 8);
    }
  }
  *out = '\0';
  return true;
}

} // namespace oru
