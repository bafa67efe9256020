// Tables of cases kept in text files beside the tests that read them: one row
// a line, blank lines and lines starting with '#' skipped.
#ifndef KEST_TESTS_TABLEFILE_H
#define KEST_TESTS_TABLEFILE_H

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace kest_test {

// The folder of the source file `source` (a test's __FILE__). A compiler cache
// that shares objects between checkouts names sources relative to the folder
// the compiler ran in, the build tree's top.
inline std::filesystem::path SourceFolder(const char *source) {
  std::filesystem::path path(source);
#ifdef KEST_COMPILE_DIR
  if (path.is_relative()) {
    path = std::filesystem::path(KEST_COMPILE_DIR) / path;
  }
#endif
  return path.parent_path();
}

// The rows of the file `name` in the folder of the source file `source`.
inline std::vector<std::string> TableRows(const char *source, const char *name) {
  std::ifstream in(SourceFolder(source) / name);
  EXPECT_TRUE(in.good()) << name;
  std::vector<std::string> rows;
  for (std::string line; std::getline(in, line);) {
    if (!line.empty() && line[0] != '#') {
      rows.push_back(line);
    }
  }
  return rows;
}

// The rows of `name` that start with the word `word`, without it.
inline std::vector<std::string> TableRows(const char *source, const char *name,
                                          const std::string &word) {
  std::vector<std::string> rows;
  for (const std::string &row : TableRows(source, name)) {
    if (row.starts_with(word + " ")) {
      rows.push_back(row.substr(word.size() + 1));
    }
  }
  EXPECT_FALSE(rows.empty()) << word;
  return rows;
}

// Text with the escapes \r \n \t \0 \\ and \xNN.
inline std::string Unescape(const std::string &text) {
  std::string out;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '\\' || i + 1 == text.size()) {
      out += text[i];
    } else if (const char c = text[++i]; c == 'x') {
      out += static_cast<char>(std::stoi(text.substr(i + 1, 2), nullptr, 16));
      i += 2;
    } else {
      out += c == 'r' ? '\r' : c == 'n' ? '\n' : c == 't' ? '\t' : c == '0' ? '\0' : c;
    }
  }
  return out;
}

// A text field of a row: "-" for the empty text, else with escapes.
inline std::string Field(const std::string &text) {
  return text == "-" ? "" : Unescape(text);
}

} // namespace kest_test

#endif
