// Stands in for the fuzzing engine where none is linked: runs the fuzz target
// once on each file named on the command line, or on every file of a named
// folder, so that the seed corpus replays in the ordinary test suite.
#include <dirent.h>
#include <stdint.h>
#include <stdio.h>
#include <string>
#include <sys/stat.h>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

namespace {

bool RunFile(const std::string &path) {
  FILE *file = fopen(path.c_str(), "rb");
  if (file == nullptr) {
    fprintf(stderr, "cannot read %s\n", path.c_str());
    return false;
  }
  std::vector<uint8_t> bytes;
  uint8_t buffer[4096];
  for (size_t got; (got = fread(buffer, 1, sizeof buffer, file)) > 0;) {
    bytes.insert(bytes.end(), buffer, buffer + got);
  }
  fclose(file);
  LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
  return true;
}

} // namespace

int main(int argc, char **argv) {
  int runs = 0;
  for (int i = 1; i < argc; ++i) {
    struct stat info;
    if (stat(argv[i], &info) != 0) {
      fprintf(stderr, "cannot read %s\n", argv[i]);
      return 1;
    }
    if (!S_ISDIR(info.st_mode)) {
      runs += RunFile(argv[i]) ? 1 : 0;
      continue;
    }
    DIR *dir = opendir(argv[i]);
    if (dir == nullptr) {
      return 1;
    }
    while (const dirent *entry = readdir(dir)) {
      if (entry->d_name[0] != '.') {
        runs += RunFile(std::string(argv[i]) + "/" + entry->d_name) ? 1 : 0;
      }
    }
    closedir(dir);
  }
  printf("%d inputs replayed\n", runs);
  return runs > 0 ? 0 : 1;
}
