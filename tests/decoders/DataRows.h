// The decoders' byte tables kept in data files: one row a line, its kind
// first, words after it; "#" to the end of a line is a note.
#ifndef KEST_TESTS_DECODERS_DATAROWS_H
#define KEST_TESTS_DECODERS_DATAROWS_H

#include <gtest/gtest.h>

#include <ctype.h>
#include <fstream>
#include <sstream>
#include <stdint.h>
#include <string>
#include <vector>

namespace kest_test {

using Bytes = std::vector<uint8_t>;

// Hex digits to bytes, anything else passed over; "-" is none.
inline Bytes HexBytes(const std::string &text) {
  std::string digits;
  for (char c : text) {
    if (isxdigit(static_cast<unsigned char>(c))) {
      digits.push_back(c);
    }
  }
  Bytes out;
  for (size_t i = 0; i + 1 < digits.size(); i += 2) {
    out.push_back(static_cast<uint8_t>(std::stoi(digits.substr(i, 2), nullptr, 16)));
  }
  return out;
}

// C escapes \r \n \t \0 \\ \xNN undone.
inline std::string Unescape(const std::string &text) {
  std::string out;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '\\' || i + 1 == text.size()) {
      out.push_back(text[i]);
      continue;
    }
    const char c = text[++i];
    if (c == 'x' && i + 2 < text.size()) {
      out.push_back(static_cast<char>(std::stoi(text.substr(i + 1, 2), nullptr, 16)));
      i += 2;
      continue;
    }
    out.push_back(c == 'r' ? '\r' : c == 'n' ? '\n' : c == 't' ? '\t' : c == '0' ? '\0' : c);
  }
  return out;
}

// The rows of `file` of one kind, each its words after the kind, or with
// kind "" every row, its kind first; a kind with no rows fails the test.
inline std::vector<std::vector<std::string>> DataRows(const char *file, const std::string &kind) {
  std::vector<std::vector<std::string>> rows;
  std::ifstream in(file);
  std::string line;
  while (std::getline(in, line)) {
    std::istringstream words(line.substr(0, line.find('#')));
    std::string first, word;
    std::vector<std::string> row;
    for (words >> first; words >> word;) {
      row.push_back(word);
    }
    if (first.empty() || (first != kind && !kind.empty())) {
      continue;
    }
    if (kind.empty()) {
      row.insert(row.begin(), first);
    }
    rows.push_back(row);
  }
  EXPECT_FALSE(rows.empty()) << file << ": no " << kind;
  return rows;
}

} // namespace kest_test

#endif
