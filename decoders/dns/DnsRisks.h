// The flow risks a DNS question shows by its name, its type and its port:
// a name that looks made by a program rather than a person (domain
// generation), a name or type that carries data (tunnels), and DNS away
// from port 53. Pure functions of the question's text.
#ifndef KEST_DECODERS_DNS_DNSRISKS_H
#define KEST_DECODERS_DNS_DNSRISKS_H

#include <kest.h>
#include <kest/Entropy.h>

#include <stddef.h>
#include <stdint.h>

namespace kest_dns {

// What the score reads of one part of a name.
struct LabelStats {
  uint32_t length = 0;
  uint32_t letters = 0;
  uint32_t vowels = 0;
  // Neighbouring letters, and those of them where both are consonants.
  uint32_t pairs = 0;
  uint32_t consonant_pairs = 0;
  // Changes between a letter and a digit, next to each other.
  uint32_t switches = 0;
  // The longest run of consonants (y counts as a vowel).
  uint32_t consonant_run = 0;
  // Shannon entropy of the part's bytes, in bits per byte.
  double entropy = 0;
};

inline bool Separator(char c) {
  return c == '.' || c == '-' || c == '_';
}

// The longest part of a dotted name, parts being split at dots, hyphens
// and underscores; the labels of services (leading "_") are left out.
inline size_t LongestPart(const char *name, size_t length, size_t &at) {
  size_t best = 0;
  at = 0;
  bool service = false;
  for (size_t i = 0; i < length;) {
    if (i == 0 || name[i - 1] == '.') {
      service = name[i] == '_';
    }
    size_t end = i;
    while (end < length && !Separator(name[end])) {
      ++end;
    }
    if (end - i > best && !service) {
      best = end - i;
      at = i;
    }
    i = end + 1;
  }
  return best;
}

// Base-2 logarithm, through the host's log hook.
inline double Log2(double x) {
  return kest_log(x) / 0.6931471805599453;
}

inline LabelStats StatsOf(const char *part, size_t length) {
  LabelStats s;
  s.length = static_cast<uint32_t>(length);
  oru::Entropy histogram;
  uint32_t run = 0;
  int last = 0; // 1 a letter, 2 a digit, 0 anything else
  bool last_consonant = false;
  for (size_t i = 0; i < length; ++i) {
    unsigned char c = static_cast<unsigned char>(part[i]);
    if (c >= 'A' && c <= 'Z') {
      c = static_cast<unsigned char>(c - 'A' + 'a');
    }
    ++histogram.counts[c];
    ++histogram.total;
    int kind = 0;
    if (c >= 'a' && c <= 'z') {
      kind = 1;
      ++s.letters;
      const bool vowel = c == 'a' || c == 'e' || c == 'i' || c == 'o' || c == 'u' || c == 'y';
      s.vowels += vowel ? 1 : 0;
      run = vowel ? 0 : run + 1;
      s.consonant_run = run > s.consonant_run ? run : s.consonant_run;
      if (last == 1) {
        ++s.pairs;
        s.consonant_pairs += !vowel && last_consonant ? 1 : 0;
      }
      last_consonant = !vowel;
    } else {
      run = 0;
      kind = c >= '0' && c <= '9' ? 2 : 0;
      s.switches += kind == 2 && last == 1 ? 1 : 0;
    }
    if (kind == 1 && last == 2) {
      ++s.switches;
    }
    last = kind;
  }
  s.entropy = histogram.ID();
  return s;
}

// Parts shorter than this are not judged: short names are too often
// abbreviations that look random.
constexpr uint32_t kMinGeneratedPart = 11;

// Whether a part is judged at all: long enough, mostly letters (hashes and
// device addresses are mostly digits), and with few repeated characters (an
// entropy within 1 bit of the most its length allows; words repeat letters,
// random draws seldom do).
inline bool Judged(const LabelStats &s) {
  return s.length >= kMinGeneratedPart && s.letters * 10 >= s.length * 6 &&
         s.entropy >= Log2(static_cast<double>(s.length)) - 1.0;
}

// The score of a judged part, one point for each sign of a program's hand:
//   - few vowels: under 30% of the letters;
//   - consonant pairs: half of the neighbouring letters or more;
//   - a run of 4 consonants or more;
//   - length: 16 bytes or more;
//   - letters and digits mixed: 2 changes between them or more.
inline int GeneratedScore(const LabelStats &s) {
  int score = 0;
  score += s.vowels * 10 < s.letters * 3 ? 1 : 0;
  score += s.pairs != 0 && s.consonant_pairs * 2 >= s.pairs ? 1 : 0;
  score += s.consonant_run >= 4 ? 1 : 0;
  score += s.length >= 16 ? 1 : 0;
  score += s.switches >= 2 ? 1 : 0;
  return score;
}

// The score that makes a name generated.
constexpr int kGeneratedThreshold = 3;

// The question's name looks generated: its longest part is judged and
// scores kGeneratedThreshold or more.
inline bool GeneratedName(const char *name, size_t length) {
  size_t at = 0;
  const size_t longest = LongestPart(name, length, at);
  if (longest < kMinGeneratedPart) {
    // Most names: nothing long enough to judge, and nothing counted.
    return false;
  }
  const LabelStats s = StatsOf(name + at, longest);
  return Judged(s) && GeneratedScore(s) >= kGeneratedThreshold;
}

// Tunnel-like: a label of 52 bytes or more, a name of 160 bytes or more,
// a question of type NULL, or a question of type TXT whose longest label
// has 30 bytes or more (data in the name, data in the answer).
inline bool TunnelName(const char *name, size_t length, uint16_t qtype) {
  size_t longest = 0;
  for (size_t i = 0; i < length;) {
    size_t end = i;
    while (end < length && name[end] != '.') {
      ++end;
    }
    longest = end - i > longest ? end - i : longest;
    i = end + 1;
  }
  if (longest >= 52 || length >= 160 || qtype == 10) {
    return true;
  }
  return qtype == 16 && longest >= 30;
}

} // namespace kest_dns

#endif
