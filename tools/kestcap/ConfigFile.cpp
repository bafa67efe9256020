#include "ConfigFile.h"

#include <cerrno>
#include <cstring>
#include <fstream>

namespace kestcap {

namespace {

constexpr size_t kMaxLine = 4096;
constexpr size_t kMaxLines = 10000;
constexpr const char *kOption = "--config-file";

bool ReadFile(const std::string &path, std::vector<std::string> &words, std::string &error) {
  std::ifstream in(path);
  if (!in) {
    error = "--config-file " + path + ": " + std::strerror(errno);
    return false;
  }
  std::string line;
  for (size_t number = 1; std::getline(in, line); ++number) {
    const std::string where = path + ":" + std::to_string(number);
    if (number > kMaxLines || line.size() > kMaxLine) {
      error = where + ": too long (at most " + std::to_string(kMaxLines) + " lines of " +
              std::to_string(kMaxLine) + " bytes)";
      return false;
    }
    const size_t first = line.find_first_not_of(" \t\r");
    if (first == std::string::npos || line[first] == '#') {
      continue;
    }
    const size_t last = line.find_last_not_of(" \t\r");
    line = line.substr(first, last - first + 1);
    const size_t gap = line.find_first_of(" \t");
    const std::string option = line.substr(0, gap);
    if (option.rfind(kOption, 0) == 0) {
      error = where + ": a configuration file cannot name another";
      return false;
    }
    words.push_back(option);
    if (gap != std::string::npos) {
      words.push_back(line.substr(line.find_first_not_of(" \t", gap)));
    }
  }
  return true;
}

} // namespace

bool ExpandConfigFile(int argc, char **argv, std::vector<std::string> &args, std::string &error) {
  std::vector<std::string> from_file;
  std::vector<std::string> rest;
  for (int i = 1; i < argc; ++i) {
    const std::string word = argv[i];
    if (word == "--") {
      rest.insert(rest.end(), argv + i, argv + argc);
      break;
    }
    std::string path;
    if (word == kOption) {
      if (i + 1 >= argc) {
        error = "option --config-file needs an argument";
        return false;
      }
      path = argv[++i];
    } else if (word.rfind(std::string(kOption) + "=", 0) == 0) {
      path = word.substr(std::strlen(kOption) + 1);
    } else {
      rest.push_back(word);
      continue;
    }
    if (!ReadFile(path, from_file, error)) {
      return false;
    }
  }
  args.assign(1, argc > 0 ? argv[0] : "kestcap");
  args.insert(args.end(), from_file.begin(), from_file.end());
  args.insert(args.end(), rest.begin(), rest.end());
  return true;
}

} // namespace kestcap
