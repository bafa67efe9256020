// kestcap's command line.
#ifndef KESTCAP_OPTIONS_H
#define KESTCAP_OPTIONS_H

#include <cstdint>
#include <string>
#include <vector>

namespace kestcap {

// Exit codes, as --help lists them.
enum ExitCode {
  kExitOk = 0,
  kExitUsage = 1,   // a bad option or argument
  kExitInput = 2,   // the capture or interface could not be read
  kExitLibrary = 3, // no plug-ins, no TCP or UDP decoder, or the library refused to start
  kExitService = 4, // running as a service failed: the user, the sandbox, the output file
};

struct Options {
  std::string input;     // file name, "-" for standard input
  std::string interface; // -i: a live interface instead of a file
  std::string filter;    // BPF filter (live or file)
  std::string plugins;   // empty: the folder of kestcap's own installation
  int threads = 1;
  bool json = false;
  bool help = false;
  bool list_plugins = false;      // list the plug-in folder and stop
  std::vector<std::string> attrs; // added to the default set
  std::vector<std::string> rules; // "PROTO MODULE RULE-TEXT"
  std::vector<std::string> protos;
  std::vector<std::string> configs; // "KEY=VALUE"
  std::string changes;              // --changes: a changes file, or empty
  std::string ipfix;                // --ipfix: HOST:PORT of a collector, or empty
  bool features = false;            // --features: flow features in the JSON lines
  // Running as a service.
  bool version = false;
  std::string user;            // --user USER[:GROUP]; empty: the default for root's live runs
  bool no_sandbox = false;     // the classifying threads run without the system call filter
  std::string output;          // --output: JSON lines to this file instead of standard output
  uint64_t rotate_bytes = 0;   // --rotate SIZE: a new output file past this size
  uint64_t rotate_seconds = 0; // --rotate TIME: a new output file this often
  uint64_t stats_seconds = 0;  // --stats: a statistics line this often
  std::string stats_file;      // --stats-file: where those lines go (else the output)
  // Live capture: every -i in order (`interface` is the first); --pcap
  // reads through libpcap's single reader rather than one AF_PACKET socket
  // per worker.
  std::vector<std::string> interfaces;
  bool pcap = false;
};

// Fills `out` from argv. On a usage error: false with `error` set to one line.
bool ParseOptions(int argc, char **argv, Options &out, std::string &error);
// The --help text.
const char *UsageText();

} // namespace kestcap

#endif
