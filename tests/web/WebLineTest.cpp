// First lines of messages, with methods "GET" and "POST" and the word "HTTP":
// the rows of first_lines.txt, and the same lines fed a byte at a time.
#include "LeakCheck.h"
#include "WebTestSupport.h"
#include "tests/flow/TableFile.h"

#include <kest/WebLine.h>

#include <map>
#include <sstream>

namespace {

using kest_test::FedFlow;

class WebLineTest : public kest_test::LeakCheck {
protected:
  void SetUp() override {
    LeakCheck::SetUp();
    methods.push_back(oru::WebMethod{"GET", 3});
    methods.push_back(oru::WebMethod{"POST", 4});
  }
  void TearDown() override {
    methods.clear();
    LeakCheck::TearDown();
  }
  oru::WebMethodTable methods;
};

TEST_F(WebLineTest, RequestsResponsesAndStrangers) {
  const std::map<std::string, int> types = {{"request", oru::WebLine::LINE_REQUEST},
                                            {"response", oru::WebLine::LINE_RESPONSE},
                                            {"unknown", oru::WebLine::LINE_UNKNOWN},
                                            {"undecided", oru::WebLine::LINE_UNDECIDED}};
  for (const std::string &row : kest_test::TableRows(__FILE__, "first_lines.txt")) {
    SCOPED_TRACE(row);
    const size_t arrow = row.find(" => ");
    std::istringstream in(row.substr(arrow + 4));
    int check = 0, decided = 0;
    std::string type, tokens;
    uint64_t want_pos = 0;
    in >> check >> decided >> type >> want_pos;
    std::getline(in >> std::ws, tokens);
    FedFlow f;
    f.Feed(kest_test::Unescape(row.substr(0, arrow)));
    oru::WebLine line(&methods, "HTTP");
    unsigned long long pos = 0;
    EXPECT_EQ(line.Parse(f.flow, pos, check != 0), decided != 0);
    EXPECT_EQ(line.m_type, types.at(type));
    EXPECT_EQ(pos, want_pos);
    if (!tokens.empty()) {
      auto text = [&](const oru::FlowString &s) { return f.Text(s.pos, s.pos + s.length); };
      EXPECT_EQ(text(line.m_first) + "|" + text(line.m_second) + "|" + text(line.m_third), tokens);
    }
  }
}

// A line fed a byte at a time is decided at its newline, the same way.
TEST_F(WebLineTest, DecidedOnlyWhenWhole) {
  for (const std::string text : {"POST /a HTTP/1.1\r\n", "HTTP/1.0 404 Not Found\r\n"}) {
    FedFlow f;
    for (size_t i = 0; i < text.size(); ++i) {
      f.Feed(text.substr(i, 1));
      oru::WebLine line(&methods, "HTTP");
      unsigned long long pos = 0;
      const bool decided = line.Parse(f.flow, pos, false);
      ASSERT_EQ(decided, i + 1 == text.size()) << text << " at " << i;
      if (decided) {
        EXPECT_EQ(pos, text.size());
        EXPECT_NE(line.m_type, oru::WebLine::LINE_UNKNOWN);
      }
    }
  }
}

} // namespace
