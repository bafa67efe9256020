// kest-plg: turns a shared object into a .plg plug-in file and back.
//
// The scrambling is its own inverse, so "pack" and "unpack" are one step. The
// output is first written to a temporary file beside it and renamed over the
// output name only when complete, so a failure never leaves a partial output
// and input and output may be the same file.
#include <kest/PluginScramble.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace {

const char kUsage[] =
    "usage: kest-plg [pack|unpack] INPUT OUTPUT\n"
    "\n"
    "Scrambles the shared object INPUT into the plug-in file OUTPUT (.plg), or\n"
    "a plug-in file back into its shared object. The step is its own inverse:\n"
    "pack and unpack do the same, and so does giving no verb. OUTPUT is replaced\n"
    "only once it has been written completely.\n";

int Usage(FILE *to, int code) {
  std::fputs(kUsage, to);
  return code;
}

int Fail(const char *what, const char *file, int error) {
  std::fprintf(stderr, "kest-plg: %s %s: %s\n", what, file, std::strerror(error));
  return 1;
}

// Applies the scrambling to everything read from `in` and writes it to `out`.
// On failure fills `error` and `reading` (true when the input failed).
bool Copy(FILE *in, FILE *out, int &error, bool &reading) {
  unsigned char block[65536];
  size_t position = 0;
  for (;;) {
    const size_t got = std::fread(block, 1, sizeof block, in);
    if (got < sizeof block && std::ferror(in)) {
      error = errno;
      reading = true;
      return false;
    }
    oru::ScrambleBlock(block, got, position);
    position += got;
    if (std::fwrite(block, 1, got, out) != got) {
      error = errno;
      reading = false;
      return false;
    }
    if (got < sizeof block) {
      return true;
    }
  }
}

// Mode of a new file under the current umask, as fopen would create it.
mode_t NewFileMode() {
  const mode_t mask = umask(0);
  umask(mask);
  return 0666 & ~mask;
}

int Convert(const char *input, const char *output) {
  struct stat st;
  if (stat(output, &st) == 0 && !S_ISREG(st.st_mode)) {
    std::fprintf(stderr, "kest-plg: cannot write %s: not a regular file\n", output);
    return 1;
  }

  FILE *in = std::fopen(input, "rb");
  if (in == nullptr) {
    return Fail("cannot open", input, errno);
  }

  std::string temp = std::string(output) + ".XXXXXX";
  const int fd = mkstemp(temp.data());
  if (fd < 0) {
    const int error = errno;
    std::fclose(in);
    return Fail("cannot create", output, error);
  }
  FILE *out = fdopen(fd, "wb");
  if (out == nullptr) {
    const int error = errno;
    close(fd);
    unlink(temp.c_str());
    std::fclose(in);
    return Fail("cannot create", output, error);
  }

  int error = 0;
  bool reading = false;
  bool ok = Copy(in, out, error, reading);
  std::fclose(in);
  if (ok && fchmod(fd, NewFileMode()) != 0) {
    ok = false;
    error = errno;
  }
  // Buffered data goes out at close; a full disk may show only there.
  if (std::fclose(out) != 0 && ok) {
    ok = false;
    error = errno;
  }
  if (ok && std::rename(temp.c_str(), output) != 0) {
    ok = false;
    error = errno;
  }
  if (!ok) {
    unlink(temp.c_str());
    return reading ? Fail("cannot read", input, error) : Fail("cannot write", output, error);
  }
  return 0;
}

bool IsVerb(const char *arg) {
  return std::strcmp(arg, "pack") == 0 || std::strcmp(arg, "unpack") == 0;
}

} // namespace

int main(int argc, char **argv) {
  if (argc == 2 && (std::strcmp(argv[1], "-h") == 0 || std::strcmp(argv[1], "--help") == 0)) {
    return Usage(stdout, 0);
  }
  for (int i = 1; i < argc; ++i) {
    if (argv[i][0] == '-' && argv[i][1] != '\0') {
      std::fprintf(stderr, "kest-plg: unknown option %s\n", argv[i]);
      return Usage(stderr, 2);
    }
  }
  // "pack X" is a forgotten argument, not a file named "pack"; such a file
  // can still be named as "./pack".
  if (argc == 3 && !IsVerb(argv[1])) {
    return Convert(argv[1], argv[2]);
  }
  if (argc == 4 && IsVerb(argv[1])) {
    return Convert(argv[2], argv[3]);
  }
  return Usage(stderr, 2);
}
