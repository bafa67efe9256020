// The Redis decoder's table test: each line of the cases file is a
// conversation and what the decoder must make of it, run through the library
// as a host runs it. Every case runs twice, each side's bytes in one packet
// and then one byte per packet, so that lines and strings cut anywhere read
// alike. Usage: redis_cases PLUGIN_DIR CASES_FILE
#include <kest.h>
#include <kest_host.h>

#include <arpa/inet.h>
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

namespace {

struct Seen {
  std::string app;      // the top of the connection's stack
  std::string commands; // the "redis.command" values, joined by commas
};

int OnResult(kest_handle_t h, kest_result_t *r, int, kest_conn_id_t, void *user, int) {
  char name[32];
  for (kest_proto_first(h, r); kest_proto_valid(h, r); kest_proto_next(h, r)) {
    static_cast<Seen *>(user)->app =
        kest_proto_get_name(h, kest_proto_get_index(h, r), name, sizeof name);
  }
  return 0;
}

int OnCommand(kest_handle_t, kest_conn_id_t, int, int length, const void *value, int, void *user) {
  std::string &commands = static_cast<Seen *>(user)->commands;
  commands += (commands.empty() ? "" : ",") + std::string(static_cast<const char *>(value), length);
  return 0;
}

// The fields of a line, split at " |", with the escapes \r, \n, \\ and \xHH
// turned into bytes and the spaces around each field cut.
std::vector<std::string> Fields(const std::string &line) {
  std::vector<std::string> fields(1);
  for (size_t i = 0; i < line.size(); ++i) {
    const char c = line[i] == '\\' && i + 1 < line.size() ? line[++i] : 0;
    if (line.compare(i, 2, " |") == 0 && c == 0) {
      fields.emplace_back();
      ++i;
    } else if (c == 'x') {
      fields.back() += static_cast<char>(std::stoi(line.substr(i + 1, 2), nullptr, 16));
      i += 2;
    } else {
      fields.back() += c == 'r' ? '\r' : c == 'n' ? '\n' : c != 0 ? c : line[i];
    }
  }
  for (std::string &field : fields) {
    field.erase(0, field.find_first_not_of(' '));
    field.erase(field.find_last_not_of(' ') + 1);
  }
  return fields;
}

// One conversation on a fresh TCP connection to an unusual port: the client's
// bytes, then the server's, in pieces of `piece` bytes.
Seen Run(kest_handle_t h, const std::string (&bytes)[2], size_t piece, uint16_t port) {
  Seen seen{"-", ""};
  const kest_endpoint_t client = {KEST_FAMILY_IPV4, htons(40000), {192, 0, 2, 1}};
  const kest_endpoint_t server = {KEST_FAMILY_IPV4, htons(port), {198, 51, 100, 7}};
  kest_conn_t conn;
  if (kest_conn_create(h, &client, &server, 6, &conn) != 0) {
    return seen;
  }
  for (int side = 0; side < 2; ++side) {
    for (size_t at = 0; at < bytes[side].size(); at += piece) {
      const size_t n = bytes[side].size() - at < piece ? bytes[side].size() - at : piece;
      kest_classify(h, KEST_SELECTOR_CONN, bytes[side].data() + at, n, conn, side, OnResult, &seen);
    }
  }
  kest_conn_destroy(h, conn);
  return seen;
}

} // namespace

int main(int argc, char **argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: redis_cases PLUGIN_DIR CASES_FILE\n");
    return 2;
  }
  kest_host_use_libc();
  const kest_handle_t h = kest_open(argv[1]);
  if (h < 0 || kest_init(h) != 0 || kest_attr_callback_set(h, "redis.command", OnCommand) != 0) {
    std::fprintf(stderr, "cannot start on %s (error %d)\n", argv[1], kest_errno);
    return 2;
  }
  kest_idle(h); // the listener reaches the thread
  std::ifstream file(argv[2]);
  std::string line;
  int cases = 0, failures = 0;
  for (int number = 1; std::getline(file, line); ++number) {
    if (line.empty() || line[0] == '#') {
      continue;
    }
    const std::vector<std::string> f = Fields(line);
    if (f.size() != 4) {
      std::printf("line %d: not four fields\n", number);
      ++failures;
      continue;
    }
    const std::string bytes[2] = {f[0], f[1]};
    for (size_t piece : {bytes[0].size() + bytes[1].size(), size_t{1}}) {
      const Seen seen = Run(h, bytes, piece, static_cast<uint16_t>(7000 + ++cases));
      if (seen.app != f[2] || seen.commands != f[3]) {
        std::printf("line %d, %zu-byte packets: got %s [%s], wanted %s [%s]\n", number, piece,
                    seen.app.c_str(), seen.commands.c_str(), f[2].c_str(), f[3].c_str());
        ++failures;
      }
    }
  }
  std::printf("%d runs, %d failures\n", cases, failures);
  kest_fini(h);
  kest_close(h);
  return cases > 0 && failures == 0 ? 0 : 1;
}
