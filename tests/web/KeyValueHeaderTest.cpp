// Header blocks parsed a line at a time: the rows of header_lines.txt, and the
// same records whatever the packet boundaries.
#include "LeakCheck.h"
#include "TableFile.h"
#include "WebTestSupport.h"

#include <kest/KeyValueHeader.h>

#include <random>
#include <sstream>

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
  for (const std::string &row : kest_test::TableRows(__FILE__, "header_lines.txt")) {
    SCOPED_TRACE(row);
    const size_t arrow = row.find(" => ");
    std::istringstream in(row.substr(arrow + 4));
    int complete = 0;
    uint64_t want_pos = 0;
    Records records;
    in >> complete >> want_pos;
    in.get(); // the space before the records, which may start with one
    for (std::string record; std::getline(in, record, '|');) {
      records.push_back(kest_test::Unescape(record));
    }
    FedFlow f;
    f.Feed(kest_test::Unescape(row.substr(0, arrow)));
    oru::KeyValueHeader h(':');
    unsigned long long pos = 0;
    EXPECT_EQ(h.Parse(f.flow, pos), complete != 0);
    EXPECT_EQ(pos, want_pos);
    EXPECT_EQ(Read(f, h), records);
    EXPECT_EQ(h.m_state, complete != 0 ? 2 : 1);
    if (complete != 0) {
      EXPECT_TRUE(h.Parse(f.flow, pos)); // a complete header stays as it is
      EXPECT_EQ(pos, want_pos);
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
