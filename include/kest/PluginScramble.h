// The scrambling of plug-in files. A .plg file is a shared object whose byte i
// is stored exclusive-or byte i mod 16 of one fixed key. There is no header,
// length or checksum. The step is its own inverse: the loader and the tool
// that makes .plg files both use this header, so the key is written once.
#ifndef KEST_PLUGINSCRAMBLE_H
#define KEST_PLUGINSCRAMBLE_H

#include <stddef.h>
#include <stdint.h>
#include <string.h>

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
    // Whole turns of the key, a word at a time: a loader built without
    // optimisation (and with the sanitizers' checks on every byte) unpacks
    // some fifty plug-ins on every start.
    uint64_t key[2];
    memcpy(key, kPluginKey, sizeof key);
    for (; i + kPluginKeySize <= n; i += kPluginKeySize) {
      uint64_t word[2];
      memcpy(word, data + i, sizeof word);
      word[0] ^= key[0];
      word[1] ^= key[1];
      memcpy(data + i, word, sizeof word);
    }
  }
  for (; i < n; ++i) {
    data[i] ^= kPluginKey[(key_offset + i) % kPluginKeySize];
  }
}

} // namespace oru

#endif
