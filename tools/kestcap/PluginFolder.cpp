#include "PluginFolder.h"

#include "Options.h"

#include <kest_host.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <filesystem>
#include <fstream>

namespace kestcap {

namespace fs = std::filesystem;

namespace {

// The library loads files whose names end in ".plg", in any case, after at
// least one more character.
bool IsPluginName(const std::string &name) {
  if (name.size() < 5) {
    return false;
  }
  std::string end = name.substr(name.size() - 4);
  std::transform(end.begin(), end.end(), end.begin(), [](unsigned char c) { return c | 0x20; });
  return end == ".plg";
}

bool IsSharedObject(const fs::path &path) {
  char magic[4] = {};
  std::ifstream file(path, std::ios::binary);
  return file.read(magic, 4) && magic[0] == 0x7F && magic[1] == 'E' && magic[2] == 'L' &&
         magic[3] == 'F';
}

// One row of the library's plug-in status report.
struct StatusRow {
  std::string name, file, version, status;
};

// What the library's report writes while ListPlugins collects it.
std::string g_report;

int CollectReport(const char *format, ...) {
  char line[2048];
  va_list args;
  va_start(args, format);
  const int n = std::vsnprintf(line, sizeof line, format, args);
  va_end(args);
  g_report += line;
  return n;
}

std::string Trim(const std::string &text) {
  const size_t from = text.find_first_not_of(' ');
  const size_t to = text.find_last_not_of(" \n");
  return from == std::string::npos ? "" : text.substr(from, to - from + 1);
}

// The rows of the "Plugin status:" table of the library's report: name,
// file (empty for a plug-in built into the program), version, type and
// status in columns of fixed width that long values overflow. The type is
// one word of two, so the row is split at it.
std::vector<StatusRow> ParseStatus(const std::string &report) {
  std::vector<StatusRow> rows;
  size_t at = report.find("Plugin status:\n");
  if (at == std::string::npos) {
    return rows;
  }
  at = report.find('\n', report.find('\n', at) + 1); // past the column titles
  while (at != std::string::npos && at + 1 < report.size() && report[at + 1] != '\n') {
    const size_t end = report.find('\n', at + 1);
    const std::string line = report.substr(at + 1, end - at - 1);
    at = end;
    size_t type = line.rfind(" Dynamic ");
    if (type == std::string::npos) {
      type = line.rfind(" Builtin ");
    }
    const size_t name_end = line.find(' ');
    if (type == std::string::npos || name_end == std::string::npos || name_end > type) {
      continue;
    }
    const std::string before = Trim(line.substr(name_end, type - name_end));
    const size_t version_at = before.rfind(' ');
    StatusRow row;
    row.name = line.substr(0, name_end);
    row.version = version_at == std::string::npos ? before : before.substr(version_at + 1);
    row.file = version_at == std::string::npos ? "" : Trim(before.substr(0, version_at));
    row.status = Trim(line.substr(type + 9));
    rows.push_back(row);
  }
  return rows;
}

void PrintColumns(const std::vector<std::vector<std::string>> &rows) {
  std::vector<size_t> width;
  for (const auto &row : rows) {
    width.resize(std::max(width.size(), row.size()));
    for (size_t i = 0; i < row.size(); ++i) {
      width[i] = std::max(width[i], row[i].size());
    }
  }
  for (const auto &row : rows) {
    std::string line = " ";
    for (size_t i = 0; i < row.size(); ++i) {
      line += " " + row[i];
      if (i + 1 < row.size()) {
        line.append(width[i] - row[i].size(), ' ');
      }
    }
    std::printf("%s\n", line.c_str());
  }
}

int PrintToStderr(const char *format, ...) {
  va_list args;
  va_start(args, format);
  const int n = std::vfprintf(stderr, format, args);
  va_end(args);
  return n;
}

} // namespace

void UseHostHooks() {
  kest_host_use_libc();
  kest_printf = PrintToStderr;
}

std::string DefaultPluginFolder() {
  std::error_code error;
  const fs::path self = fs::read_symlink("/proc/self/exe", error);
  if (error) {
    return "";
  }
  if (fs::equivalent(self, KESTCAP_BUILD_EXE, error) && !error) {
    return KESTCAP_BUILD_PLUGIN_DIR;
  }
  return (self.parent_path() / KESTCAP_INSTALLED_PLUGIN_DIR).lexically_normal().string();
}

FolderScan ScanFolder(const std::string &dir) {
  FolderScan scan;
  std::error_code error;
  fs::directory_iterator it(dir, error);
  scan.readable = !error;
  for (; !error && it != fs::directory_iterator(); it.increment(error)) {
    const std::string name = it->path().filename().string();
    if (name.empty() || name[0] == '.' || !it->is_regular_file(error)) {
      continue;
    }
    const bool shared = IsSharedObject(it->path());
    if (IsPluginName(name) && !shared) {
      scan.plugins.push_back(name);
    } else if (IsPluginName(name)) {
      scan.strays.push_back({name, "a shared object that was not packed: pack it with kest-plg"});
    } else if (shared) {
      const std::string stem = it->path().stem().string();
      scan.strays.push_back({name, "an unpacked shared object: \"kest-plg pack " + name + " " +
                                       stem + ".plg\" makes a plug-in of it"});
    } else {
      scan.strays.push_back({name, "not a plug-in file (only packed .plg files are loaded)"});
    }
  }
  std::sort(scan.plugins.begin(), scan.plugins.end());
  std::sort(scan.strays.begin(), scan.strays.end(),
            [](const Stray &a, const Stray &b) { return a.name < b.name; });
  return scan;
}

std::string MissingTransports(kest_handle_t h, const std::string &dir) {
  const bool tcp = kest_proto_find_index(h, "TCP") >= 0;
  const bool udp = kest_proto_find_index(h, "UDP") >= 0;
  if (tcp && udp) {
    return "";
  }
  std::string text = dir + " has ";
  text += !tcp && !udp ? "neither the TCP decoder (tcp.plg) nor the UDP decoder (udp.plg)"
          : !tcp       ? "no TCP decoder (tcp.plg)"
                       : "no UDP decoder (udp.plg)";
  text += ", and kest classifies nothing without both; copy them in beside your plug-ins";
  const std::string installed = DefaultPluginFolder();
  std::error_code error;
  if (!installed.empty() && !fs::equivalent(installed, dir, error) &&
      fs::exists(fs::path(installed) / "tcp.plg", error)) {
    text += " (from " + installed + ", with wire.plg for whole packets)";
  }
  return text;
}

int ListPlugins(const std::string &dir) {
  const FolderScan scan = ScanFolder(dir);
  if (!scan.readable) {
    std::fprintf(stderr, "kestcap: cannot read the plug-in folder %s\n", dir.c_str());
    return kExitLibrary;
  }
  std::string problem;
  std::vector<StatusRow> rows;
  if (scan.plugins.empty()) {
    problem = "no plug-ins found in " + dir;
  } else {
    UseHostHooks();
    kest_diag_printf = CollectReport;
    const kest_handle_t h = kest_open(dir.c_str());
    if (h < 0) {
      problem = "the library did not open " + dir + " (error " + std::to_string(kest_errno) + ")";
    } else {
      problem = MissingTransports(h, dir);
      if (problem.empty()) {
        if (kest_init(h) == 0 && kest_diag(h, "SYSTEM", nullptr) == 0) {
          rows = ParseStatus(g_report);
        } else {
          problem = "no classifying thread starts on " + dir + " (error " +
                    std::to_string(kest_errno) +
                    "): a plug-in failed to start; the library's messages name it";
        }
        kest_fini(h);
      }
      kest_close(h);
    }
  }
  std::printf("plug-ins in %s:\n", dir.c_str());
  std::vector<std::vector<std::string>> table;
  for (const StatusRow &row : rows) {
    table.push_back({row.name, fs::path(row.file).filename().string(), row.version, row.status});
  }
  std::vector<Stray> strays = scan.strays;
  for (const std::string &file : scan.plugins) {
    const bool listed = std::any_of(rows.begin(), rows.end(), [&](const StatusRow &row) {
      return fs::path(row.file).filename() == file;
    });
    if (rows.empty()) {
      table.push_back({file, "not started"});
    } else if (!listed) {
      strays.push_back({file, "not loaded: not a packed plug-in, or its shared object does not "
                              "load (the library's messages on standard error say why)"});
    }
  }
  std::sort(strays.begin(), strays.end(),
            [](const Stray &a, const Stray &b) { return a.name < b.name; });
  if (!rows.empty()) {
    table.insert(table.begin(), {"NAME", "FILE", "VERSION", "STATUS"});
  }
  PrintColumns(table);
  if (!strays.empty()) {
    std::printf("not plug-ins, not loaded:\n");
    std::vector<std::vector<std::string>> lines;
    for (const Stray &stray : strays) {
      lines.push_back({stray.name, stray.why});
    }
    PrintColumns(lines);
  }
  std::fflush(stdout);
  if (!problem.empty()) {
    std::fprintf(stderr, "kestcap: %s\n", problem.c_str());
    return kExitLibrary;
  }
  return kExitOk;
}

} // namespace kestcap
