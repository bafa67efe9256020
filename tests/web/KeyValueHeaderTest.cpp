// Header blocks parsed a line at a time: the stated cases, and the same
// records whatever the packet boundaries.
#include "LeakCheck.h"
#include "WebTestSupport.h"

#include <kest/KeyValueHeader.h>

#include <random>

namespace {

using kest_test::FedFlow;
using Records = std::vector<std::string>;

// Each record as "key=value".
Records Read(const FedFlow &f, const oru::KeyValueHeader &h) {
  Records out;
  for (const oru::KeyValueRecord &r : h.m_records) {
    out.push_back(f.Text(r.key_start, r.key_end) + "=" + f.Text(r.value_start, r.value_end));
  }
  return out;
}

class KeyValueHeaderTest : public kest_test::LeakCheck {};

TEST_F(KeyValueHeaderTest, Lines) {
  struct Row {
    std::string text;
    bool complete;
    uint64_t pos;
    Records records;
  } rows[] = {
      {"", false, 0, {}},
      {"a: b", false, 0, {}},
      {"\n", true, 1, {}},
      {"\r\nrest", true, 2, {}},
      {"a: b\r\n\r\n", true, 8, {"a=b"}},
      {"a: b\n", false, 5, {"a=b"}},
      {"a:\r\n\r\n", true, 6, {"a="}},
      {"a :  b  \r\nno separator\r\n", true, 10, {"a =b  "}},
      {"a: b\r\n c\r\n\r\n", true, 12, {"a=b\r\n c"}},
      {"a: b\r\n c:d\r\n\r\n", true, 14, {"a=b", " c=d"}},
      {"a: b\r\n ", false, 0, {}},     // a continuation not yet whole
      {"a: b\r\n", false, 6, {"a=b"}}, // recorded at once
  };
  for (const Row &row : rows) {
    SCOPED_TRACE(row.text);
    FedFlow f;
    f.Feed(row.text);
    oru::KeyValueHeader h(':');
    unsigned long long pos = 0;
    EXPECT_EQ(h.Parse(f.flow, pos), row.complete);
    EXPECT_EQ(pos, row.pos);
    EXPECT_EQ(Read(f, h), row.records);
    EXPECT_EQ(h.m_state, row.complete ? 2 : 1);
    if (row.complete) {
      EXPECT_TRUE(h.Parse(f.flow, pos)); // a complete header stays as it is
      EXPECT_EQ(pos, row.pos);
    }
  }
}

// Split anywhere, fed packet by packet, a header without folding gives the
// records of the whole text.
TEST_F(KeyValueHeaderTest, SplitInvariance) {
  std::mt19937 random(9);
  for (int round = 0; round < 300; ++round) {
    std::string text;
    const int lines = static_cast<int>(random() % 6);
    for (int i = 0; i < lines; ++i) {
      text += "K" + std::to_string(i) + (random() % 2 ? ": " : ":") +
              std::string(random() % 5, "xy z"[random() % 4]) + (random() % 2 ? "\r\n" : "\n");
    }
    text += random() % 2 ? "\r\n" : "\n";
    FedFlow whole;
    whole.Feed(text);
    oru::KeyValueHeader expected(':');
    ASSERT_TRUE(expected.Parse(whole.flow));
    FedFlow f;
    oru::KeyValueHeader h(':');
    bool complete = false;
    for (size_t at = 0; at < text.size();) {
      const size_t n = std::min<size_t>(1 + random() % 7, text.size() - at);
      f.Feed(text.substr(at, n));
      at += n;
      complete = h.Parse(f.flow);
      ASSERT_EQ(complete, at == text.size()) << text;
    }
    EXPECT_EQ(Read(f, h), Read(whole, expected)) << text;
    EXPECT_EQ(f.flow.m_read_pos, text.size());
  }
}

} // namespace
