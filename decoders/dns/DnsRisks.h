// The flow risks a DNS question shows by its name, its type and its port:
// a name that looks made by a program rather than a person (domain
// generation), a name or type that carries data (tunnels), and DNS away
// from port 53. Pure functions of the question's text.
#ifndef KEST_DECODERS_DNS_DNSRISKS_H
#define KEST_DECODERS_DNS_DNSRISKS_H

#include <stddef.h>
#include <stdint.h>

namespace kest_dns {

// What the score reads of one label.
struct LabelStats {
  uint32_t length = 0;
  uint32_t letters = 0;
  uint32_t vowels = 0;
  uint32_t digits = 0;
  // Changes between a letter and a digit, next to each other.
  uint32_t switches = 0;
  // The longest run of consonants (y counts as a vowel).
  uint32_t consonant_run = 0;
  // Shannon entropy of the label's bytes, in bits per byte.
  double entropy = 0;
};

// The longest label of a dotted name, and where it begins. The labels of
// services (leading "_") are not counted.
inline size_t LongestLabel(const char *name, size_t length, size_t &at) {
  size_t best = 0;
  at = 0;
  for (size_t i = 0; i < length;) {
    size_t end = i;
    while (end < length && name[end] != '.') {
      ++end;
    }
    if (end - i > best && name[i] != '_') {
      best = end - i;
      at = i;
    }
    i = end + 1;
  }
  return best;
}

inline double Log2(double x) {
  // Enough precision for a score: the library has no libm in decoders.
  int exponent = 0;
  while (x >= 2) {
    x /= 2;
    ++exponent;
  }
  while (x < 1) {
    x *= 2;
    --exponent;
  }
  // log2 of x in [1, 2) by the series of ln((1 + y) / (1 - y)).
  const double y = (x - 1) / (x + 1);
  const double y2 = y * y;
  double term = y;
  double sum = 0;
  for (int k = 1; k < 16; k += 2) {
    sum += term / k;
    term *= y2;
  }
  return exponent + 2 * sum / 0.6931471805599453;
}

inline LabelStats StatsOf(const char *label, size_t length) {
  LabelStats s;
  s.length = static_cast<uint32_t>(length);
  uint32_t counts[256] = {};
  uint32_t run = 0;
  int last = 0; // 1 letter, 2 digit
  for (size_t i = 0; i < length; ++i) {
    unsigned char c = static_cast<unsigned char>(label[i]);
    ++counts[c];
    if (c >= 'A' && c <= 'Z') {
      c = static_cast<unsigned char>(c - 'A' + 'a');
    }
    int kind = 0;
    if (c >= 'a' && c <= 'z') {
      kind = 1;
      ++s.letters;
      const bool vowel = c == 'a' || c == 'e' || c == 'i' || c == 'o' || c == 'u' || c == 'y';
      s.vowels += vowel ? 1 : 0;
      run = vowel ? 0 : run + 1;
      s.consonant_run = run > s.consonant_run ? run : s.consonant_run;
    } else {
      run = 0;
      if (c >= '0' && c <= '9') {
        kind = 2;
        ++s.digits;
      }
    }
    if (kind != 0 && last != 0 && kind != last) {
      ++s.switches;
    }
    last = kind;
  }
  for (uint32_t n : counts) {
    if (n != 0) {
      const double p = static_cast<double>(n) / static_cast<double>(length);
      s.entropy -= p * Log2(p);
    }
  }
  return s;
}

// Labels shorter than this are not judged: short names are too often
// random-looking abbreviations.
constexpr uint32_t kMinGeneratedLabel = 10;

// The score of a label, one point for each sign of a program's hand:
//   - few vowels: under a quarter of the letters;
//   - a run of five consonants or more;
//   - high entropy: above 3.3 bits per byte (few repeats);
//   - letters and digits mixed: three changes or more between them;
//   - length: 20 bytes or more.
inline int GeneratedScore(const LabelStats &s) {
  int score = 0;
  score += s.letters != 0 && s.vowels * 4 < s.letters ? 1 : 0;
  score += s.consonant_run >= 5 ? 1 : 0;
  score += s.entropy > 3.3 ? 1 : 0;
  score += s.switches >= 3 ? 1 : 0;
  score += s.length >= 20 ? 1 : 0;
  return score;
}

// The score that makes a name generated.
constexpr int kGeneratedThreshold = 3;

// The question's name looks generated: its longest label is long enough to
// judge and scores kGeneratedThreshold or more.
inline bool GeneratedName(const char *name, size_t length) {
  size_t at = 0;
  const size_t longest = LongestLabel(name, length, at);
  if (longest < kMinGeneratedLabel) {
    return false;
  }
  return GeneratedScore(StatsOf(name + at, longest)) >= kGeneratedThreshold;
}

// Tunnel-like: a label of 52 bytes or more, a name of 160 bytes or more,
// a question of type NULL, or a question of type TXT whose longest label
// has 30 bytes or more (data in the name, data in the answer).
inline bool TunnelName(const char *name, size_t length, uint16_t qtype) {
  size_t at = 0;
  const size_t longest = LongestLabel(name, length, at);
  if (longest >= 52 || length >= 160 || qtype == 10) {
    return true;
  }
  return qtype == 16 && longest >= 30;
}

} // namespace kest_dns

#endif
