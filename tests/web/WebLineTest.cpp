// First lines of messages, with methods "GET" and "POST" and the word "HTTP":
// the rows of first_lines.txt. That a line is decided only once whole, the
// message inspector's split-invariance test finds at every cut point.
#include "LeakCheck.h"
#include "TableFile.h"
#include "WebTestSupport.h"

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

} // namespace
