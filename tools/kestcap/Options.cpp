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
  kPcap
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
    {"pcap", no_argument, nullptr, kPcap},
    {nullptr, 0, nullptr, 0},
};

} // namespace

const char *UsageText() {
  return "usage: kestcap [options] FILE [FILTER]\n"
         "       kestcap [options] -i IFACE [FILTER]\n"
         "       kestcap [--plugins DIR] --list-plugins\n"
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
         "  -h, --help             this text\n"
         "\n"
         "Exit codes: 0 done (also for a capture cut short, with a warning);\n"
         "1 bad option or argument; 2 the input could not be opened or read, or\n"
         "its link type is not supported; 3 no plug-ins found, no TCP or UDP\n"
         "decoder among them, or the library refused a setting or did not start.\n";
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
    case ':':
      error = std::string("option ") + argv[optind - 1] + " needs an argument";
      return false;
    default:
      error = std::string("unknown option ") + argv[optind - 1];
      return false;
    }
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
