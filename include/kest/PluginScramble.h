// The scrambling of plug-in files. A .plg file is a shared object whose byte i
// is stored exclusive-or byte i mod 16 of one fixed key. There is no header,
// length or checksum. The step is its own inverse: the loader and the tool
// that makes .plg files both use this header, so the key is written once.
#ifndef KEST_PLUGINSCRAMBLE_H
#define KEST_PLUGINSCRAMBLE_H

#include <stddef.h>

namespace oru {

inline constexpr size_t kPluginKeySize = 16;

// 5ac319e72b907d44f106b83ea26cd518
inline constexpr unsigned char kPluginKey[kPluginKeySize] = {
    0x5a, 0xc3, 0x19, 0xe7, 0x2b, 0x90, 0x7d, 0x44, 0xf1, 0x06, 0xb8, 0x3e, 0xa2, 0x6c, 0xd5, 0x18};

// Scrambles or unscrambles n bytes in place. key_offset is the position of
// data[0] in the file; a block that starts at a multiple of the key size may
// pass 0.
inline void ScrambleBlock(unsigned char *data, size_t n, size_t key_offset) {
  size_t i = 0;
  if (key_offset % kPluginKeySize == 0) {
    // Whole turns of the key, which the compiler does sixteen bytes at once.
    for (; i + kPluginKeySize <= n; i += kPluginKeySize) {
      for (size_t k = 0; k < kPluginKeySize; ++k) {
        data[i + k] ^= kPluginKey[k];
      }
    }
  }
  for (; i < n; ++i) {
    data[i] ^= kPluginKey[(key_offset + i) % kPluginKeySize];
  }
}

} // namespace oru

#endif
