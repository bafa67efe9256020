#include "Options.h"

#include <cstdlib>
#include <getopt.h>

namespace kestcap {

namespace {

enum LongOnly {
  kPlugins = 256,
  kListPlugins,
  kRule,
  kProtoAdd,
  kConfig,
  kAttr,
  kJson,
  kChanges,
  kFeatures,
  kPcap
};
// Exports, numbered apart from the others.
enum ExportOnly { kIpfix = 400 };
// Running as a service.
enum ServiceOnly {
  kUser = 300,
  kNoSandbox,
  kOutput,
  kRotate,
  kStats,
  kStatsFile,
  kConfigFile,
  kVersion
};

const option kLong[] = {
    {"interface", required_argument, nullptr, 'i'},
    {"threads", required_argument, nullptr, 't'},
    {"help", no_argument, nullptr, 'h'},
    {"plugins", required_argument, nullptr, kPlugins},
    {"list-plugins", no_argument, nullptr, kListPlugins},
    {"rule", required_argument, nullptr, kRule},
    {"proto-add", required_argument, nullptr, kProtoAdd},
    {"config", required_argument, nullptr, kConfig},
    {"attr", required_argument, nullptr, kAttr},
    {"json", no_argument, nullptr, kJson},
    {"changes", required_argument, nullptr, kChanges},
    {"ipfix", required_argument, nullptr, kIpfix},
    {"features", no_argument, nullptr, kFeatures},
    {"user", required_argument, nullptr, kUser},
    {"no-sandbox", no_argument, nullptr, kNoSandbox},
    {"output", required_argument, nullptr, kOutput},
    {"rotate", required_argument, nullptr, kRotate},
    {"stats", required_argument, nullptr, kStats},
    {"stats-file", required_argument, nullptr, kStatsFile},
    {"config-file", required_argument, nullptr, kConfigFile},
    {"version", no_argument, nullptr, kVersion},
    {"pcap", no_argument, nullptr, kPcap},
    {nullptr, 0, nullptr, 0},
};

// A count with a unit suffix: "100M" (k, M, G, T: bytes, powers of 1024),
// "30s", "15min", "1h", "1d" (seconds). `seconds` tells which it was.
bool ParseAmount(const char *text, uint64_t &value, bool &seconds) {
  char *end = nullptr;
  const unsigned long long n = std::strtoull(text, &end, 10);
  if (end == text || *text == '-' || n == 0 || n > (1ull << 40)) {
    return false;
  }
  const std::string unit(end);
  static const struct {
    const char *unit;
    uint64_t factor;
    bool seconds;
  } kUnits[] = {{"", 1, false},           {"k", 1ull << 10, false}, {"K", 1ull << 10, false},
                {"M", 1ull << 20, false}, {"G", 1ull << 30, false}, {"T", 1ull << 40, false},
                {"s", 1, true},           {"min", 60, true},        {"h", 3600, true},
                {"d", 86400, true}};
  for (const auto &u : kUnits) {
    if (unit == u.unit) {
      value = n * u.factor;
      seconds = u.seconds;
      return true;
    }
  }
  return false;
}

} // namespace

const char *UsageText() {
  return "Usage: kestcap [options] FILE [FILTER]\n"
         "   or: kestcap [options] -i IFACE [FILTER]\n"
         "   or: kestcap [--plugins DIR] --list-plugins\n"
         "\n"
         "Classifies the connections of a capture file (pcap or pcapng; \"-\" reads\n"
         "standard input) or of a live interface with libkest and its plug-ins.\n"
         "FILTER is a BPF expression applied before classification.\n"
         "\n"
         "  -i, --interface IFACE  capture live from IFACE until interrupted\n"
         "                         (repeatable: several interfaces at once); on\n"
         "                         Linux each thread reads its own share through\n"
         "                         AF_PACKET, and the progress line and the totals\n"
         "                         count the packets the kernel dropped\n"
         "      --pcap             capture live through libpcap, one reading thread\n"
         "                         handing packets on (one interface)\n"
         "  -t, --threads N        classify on N threads (default 1); packets are\n"
         "                         spread by their outer IP addresses, so both\n"
         "                         directions, fragments and tunnelled flows stay on\n"
         "                         one thread\n"
         "      --plugins DIR      plug-in folder (default: the one of this kestcap's\n"
         "                         installation, or of its build tree); it needs\n"
         "                         tcp.plg and udp.plg, and wire.plg for whole packets\n"
         "      --list-plugins     list each plug-in of the folder with its version\n"
         "                         and status, and the files in it that are not\n"
         "                         plug-ins, then stop\n"
         "      --json             one JSON object per connection on standard output\n"
         "                         when it ends, instead of the table\n"
         "      --features         with --json: each line's \"features\" holds per\n"
         "                         direction packet, byte, length, inter-arrival and\n"
         "                         TCP flag statistics and the first 16 packets\n"
         "      --attr NAME        also report attribute NAME (repeatable)\n"
         "      --proto-add NAME   register the custom protocol NAME (repeatable)\n"
         "      --rule 'PROTO MODULE TEXT'\n"
         "                         add a custom rule: connections matching TEXT in\n"
         "                         MODULE (TCP, UDP, ...) are named PROTO (repeatable)\n"
         "      --config KEY=VALUE set a library setting (repeatable)\n"
         "      --changes FILE     make the changes in FILE while the capture runs,\n"
         "                         from a control thread, each after the number of\n"
         "                         packets it names: lines 'N config KEY=VALUE',\n"
         "                         'N proto-add|proto-remove NAME', 'N rule-add|\n"
         "                         rule-remove PROTO MODULE TEXT'\n"
         "      --ipfix HOST:PORT  also send each connection as it ends to an IPFIX\n"
         "                         collector over UDP: one bidirectional record with\n"
         "                         the application, stack and service (docs/ipfix.md)\n"
         "\n"
         "Running as a service:\n"
         "      --user USER[:GROUP]\n"
         "                         once the capture, the plug-ins and the output\n"
         "                         files are open, run as USER (and GROUP, else\n"
         "                         USER's group) with no capability left; root's\n"
         "                         live captures drop to user kestcap by default,\n"
         "                         or nobody when kestcap does not exist\n"
         "      --no-sandbox       do not confine the classifying threads to the\n"
         "                         system calls they need (for debugging)\n"
         "      --output FILE      write the JSON lines to FILE (implies --json);\n"
         "                         SIGHUP reopens it\n"
         "      --rotate SIZE|TIME start a new output file, the old one renamed\n"
         "                         FILE.YYYYMMDDTHHMMSS, past SIZE (100M, 2G) or\n"
         "                         every TIME (30s, 15min, 1h, 1d); both may be given\n"
         "      --stats SECONDS    a JSON statistics line every SECONDS and at the\n"
         "                         end, to the output or to --stats-file\n"
         "      --stats-file FILE  where the statistics lines go\n"
         "      --config-file FILE read options from FILE first, one a line as on\n"
         "                         the command line ('--threads 4'); '#' starts a\n"
         "                         comment; the command line comes after it\n"
         "      --version          the version, then stop\n"
         "  -h, --help             this text\n"
         "\n"
         "Signals: SIGHUP reopens the output files; SIGUSR1 writes a statistics\n"
         "line to standard error; SIGINT and SIGTERM end the capture and write\n"
         "every connection still open.\n"
         "\n"
         "Exit codes: 0 done (also for a capture cut short, with a warning);\n"
         "1 bad option or argument; 2 the input could not be opened or read, or\n"
         "its link type is not supported; 3 no plug-ins found, no TCP or UDP\n"
         "decoder among them, or the library refused a setting or did not start;\n"
         "4 the user, the sandbox or an output file could not be set up; 159 a\n"
         "classifying thread made a system call outside the sandbox.\n";
}

bool ParseOptions(int argc, char **argv, Options &out, std::string &error) {
  optind = 1;
  opterr = 0;
  int c;
  while ((c = getopt_long(argc, argv, ":i:t:h", kLong, nullptr)) != -1) {
    switch (c) {
    case 'i':
      if (out.interface.empty()) {
        out.interface = optarg;
      }
      out.interfaces.emplace_back(optarg);
      break;
    case kPcap:
      out.pcap = true;
      break;
    case 't': {
      char *end = nullptr;
      const long n = std::strtol(optarg, &end, 10);
      if (*optarg == '\0' || *end != '\0' || n < 1 || n > 64) {
        error = std::string("--threads wants a number from 1 to 64, not \"") + optarg + "\"";
        return false;
      }
      out.threads = static_cast<int>(n);
      break;
    }
    case 'h':
      out.help = true;
      return true;
    case kPlugins:
      out.plugins = optarg;
      break;
    case kListPlugins:
      out.list_plugins = true;
      break;
    case kRule:
      out.rules.emplace_back(optarg);
      break;
    case kProtoAdd:
      out.protos.emplace_back(optarg);
      break;
    case kConfig:
      if (std::string(optarg).find('=') == std::string::npos) {
        error = std::string("--config wants KEY=VALUE, not \"") + optarg + "\"";
        return false;
      }
      out.configs.emplace_back(optarg);
      break;
    case kAttr:
      out.attrs.emplace_back(optarg);
      break;
    case kJson:
      out.json = true;
      break;
    case kChanges:
      out.changes = optarg;
      break;
    case kIpfix:
      out.ipfix = optarg;
      break;
    case kFeatures:
      out.features = true;
      break;
    case kUser:
      out.user = optarg;
      break;
    case kNoSandbox:
      out.no_sandbox = true;
      break;
    case kOutput:
      out.output = optarg;
      out.json = true;
      break;
    case kRotate: {
      uint64_t value = 0;
      bool seconds = false;
      if (!ParseAmount(optarg, value, seconds)) {
        error = std::string("--rotate wants a size (100M) or a time (1h), not \"") + optarg + "\"";
        return false;
      }
      (seconds ? out.rotate_seconds : out.rotate_bytes) = value;
      break;
    }
    case kStats: {
      uint64_t value = 0;
      bool seconds = false;
      if (!ParseAmount(optarg, value, seconds) || value > 86400) {
        error = std::string("--stats wants seconds from 1 to 86400, not \"") + optarg + "\"";
        return false;
      }
      out.stats_seconds = value;
      break;
    }
    case kStatsFile:
      out.stats_file = optarg;
      break;
    case kConfigFile:
      // Read before the command line (ExpandConfigFile); nothing is left.
      break;
    case kVersion:
      out.version = true;
      return true;
    case ':':
      error = std::string("option ") + argv[optind - 1] + " needs an argument";
      return false;
    default:
      error = std::string("unknown option ") + argv[optind - 1];
      return false;
    }
  }
  if ((out.rotate_bytes != 0 || out.rotate_seconds != 0) && out.output.empty()) {
    error = "--rotate needs --output FILE";
    return false;
  }
  if (!out.stats_file.empty() && out.stats_seconds == 0) {
    error = "--stats-file needs --stats SECONDS";
    return false;
  }
  std::vector<std::string> rest(argv + optind, argv + argc);
  if (out.interface.empty() && !out.list_plugins) {
    if (rest.empty()) {
      error = "no capture file given (try --help)";
      return false;
    }
    out.input = rest.front();
    rest.erase(rest.begin());
  }
  for (const std::string &word : rest) {
    out.filter += (out.filter.empty() ? "" : " ") + word;
  }
  return true;
}

} // namespace kestcap
