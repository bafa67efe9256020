// kest_open with each copy mode of the plug-in loader: the same packed
// decoders load and classify as with the default copy, and no copy outlives
// the open, neither in /tmp nor in $TMPDIR.
#include "PluginFolder.h"
#include "ScopedEnv.h"
#include "tests/decoders/DecoderTestSupport.h"

#include <filesystem>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;
using Strings = std::vector<std::string>;

int Record(kest_handle_t h, kest_result_t *result, int code, kest_conn_id_t, void *user, int) {
  static_cast<Strings *>(user)->push_back(kest_test::StackNames(h, *result) + " " +
                                          std::to_string(code));
  return 0;
}

// The answers to an HTTP request and its response on one TCP connection.
Strings ClassifyHttp(kest_handle_t h) {
  kest_endpoint_t src{KEST_FAMILY_IPV4, htons(40000), {10, 0, 0, 1}};
  kest_endpoint_t dst{KEST_FAMILY_IPV4, htons(80), {10, 0, 0, 2}};
  kest_conn_t conn = nullptr;
  EXPECT_EQ(kest_conn_create(h, &src, &dst, 6, &conn), 0);
  Strings seen;
  const std::string sides[] = {"GET / HTTP/1.1\r\nHost: a\r\n\r\n",
                               "HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n"};
  for (int side = 0; side < 2; ++side) {
    kest_classify(h, KEST_SELECTOR_CONN, sides[side].data(),
                  static_cast<uint16_t>(sides[side].size()), conn, side, Record, &seen);
  }
  kest_conn_destroy(h, conn);
  return seen;
}

// Files named like the default copies of this process.
Strings SharedCopies() {
  const std::string prefix = std::to_string(getpid()) + "_";
  Strings found;
  for (const auto &entry : fs::directory_iterator("/tmp")) {
    if (entry.path().filename().string().rfind(prefix, 0) == 0) {
      found.push_back(entry.path());
    }
  }
  return found;
}

class PluginCopyModeTest : public kest_test::PluginFolderFixture {};

TEST_F(PluginCopyModeTest, EveryModeLoadsAndClassifiesAsTheDefault) {
  const std::string folder = Folder({KEST_TEST_TCP_PLG, KEST_TEST_UDP_PLG, KEST_TEST_HTTP_PLG});
  const std::string private_root = folder + "/private";
  fs::create_directory(private_root);
  kest_test::ScopedEnv tmpdir("TMPDIR", private_root.c_str());
  kest_test::ScopedEnv mode("KEST_PLUGIN_COPY", nullptr);
  const struct {
    const char *value;
    std::string printed;
  } rows[] = {
      {nullptr, ""},
      {"memfd", ""},
      {"private", ""},
      {"bogus", "unknown KEST_PLUGIN_COPY value bogus, using private\n"},
  };
  Strings by_default;
  for (const auto &row : rows) {
    SCOPED_TRACE(row.value != nullptr ? row.value : "unset");
    mode.Set(row.value);
    const kest_handle_t h = kest_open(folder.c_str());
    ASSERT_GT(h, 0);
    EXPECT_EQ(kest_test::TakePrinted(), row.printed);
    EXPECT_EQ(SharedCopies(), Strings{});
    EXPECT_TRUE(fs::is_empty(private_root));
    EXPECT_GT(kest_proto_find_index(h, "HTTP"), 0);
    ASSERT_EQ(kest_init(h), 0);
    const Strings seen = ClassifyHttp(h);
    if (row.value == nullptr) {
      by_default = seen;
    }
    EXPECT_EQ(seen, by_default);
    EXPECT_EQ(kest_fini(h), 0);
    EXPECT_EQ(kest_close(h), 0);
  }
  // HTTP is named from the request on.
  EXPECT_EQ(by_default, (Strings{"TCP/HTTP 3", "TCP/HTTP 1"}));
}

} // namespace
