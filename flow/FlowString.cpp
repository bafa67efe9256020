#include <kest.h>
#include <kest/FlowString.h>

namespace oru {

fdt::basic_string<local_container_alloc<char>> FlowString::UrlEncode() const {
  static const char kHex[] = "0123456789abcdef";
  fdt::basic_string<local_container_alloc<char>> out;
  if (flow == nullptr || length == 0 || !out.reserve(static_cast<size_t>(length) * 3 + 1)) {
    return out;
  }
  for (uint32_t i = 0; i < length; ++i) {
    const unsigned char c = static_cast<unsigned char>(flow->At(pos + i));
    char encoded[3];
    size_t n = 1;
    if (kest_isalnum(c) != 0 || c == '-' || c == '_' || c == '.' || c == '~') {
      encoded[0] = static_cast<char>(c);
    } else if (c == ' ') {
      encoded[0] = '+';
    } else {
      encoded[0] = '%';
      encoded[1] = kHex[c >> 4];
      encoded[2] = kHex[c & 0xF];
      n = 3;
    }
    // Room was reserved for all of it: no append below can fail.
    out.append(encoded, n);
  }
  return out;
}

} // namespace oru
