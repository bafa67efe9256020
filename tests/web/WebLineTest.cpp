// First lines of messages, with methods "GET" and "POST" and the word "HTTP".
#include "LeakCheck.h"
#include "WebTestSupport.h"

#include <kest/WebLine.h>

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
  using L = oru::WebLine;
  struct Row {
    std::string text;
    bool check;
    bool decided;
    int type;
    uint64_t pos;
    const char *tokens; // "first|second|third" of a decided line
  } rows[] = {
      {"GET / HTTP/1.1\r\n", false, true, L::LINE_REQUEST, 16, "GET|/|HTTP/1.1"},
      {"GET / HTTP/1.1\n", false, true, L::LINE_REQUEST, 15, "GET|/|HTTP/1.1"},
      {"\r\n\r\nPOST /x HTTP/1.0\r\n", false, true, L::LINE_REQUEST, 22, "POST|/x|HTTP/1.0"},
      {"GE", false, false, L::LINE_UNDECIDED, 0, nullptr},
      {"GET / HTTP/1.1", false, false, L::LINE_REQUEST, 0, nullptr},
      {"GETX / HTTP/1.1\r\n", false, true, L::LINE_UNKNOWN, 0, nullptr},
      {"GET / FTP/1.0\r\n", false, true, L::LINE_UNKNOWN, 0, nullptr},
      {"GET / HTTP\r\n", false, true, L::LINE_UNKNOWN, 0, nullptr},
      {"HTTP/1.1 200 OK\r\n", false, true, L::LINE_RESPONSE, 17, "HTTP/1.1|200|OK"},
      {"XYZ 200 OK\r\n", false, true, L::LINE_RESPONSE, 12, "XYZ|200|OK"},
      {"XYZ 200 OK\r\n", true, true, L::LINE_UNKNOWN, 0, nullptr},
      {"HTTP/1.1 200 OK\r\n", true, true, L::LINE_RESPONSE, 17, "HTTP/1.1|200|OK"},
      {"HTTP/1.1 200\r\n", false, true, L::LINE_UNKNOWN, 0, nullptr},
      {"HTTP/1.1 2000 OK\r\n", false, true, L::LINE_UNKNOWN, 0, nullptr},
      {"HTTP/1.1 2x0 OK\r\n", false, true, L::LINE_UNKNOWN, 0, nullptr},
      {"HTTP/1.1 20 OK\r\n", false, true, L::LINE_UNKNOWN, 0, nullptr},
      {"HTTP/1.1 200 OK, fine\r\n", false, true, L::LINE_RESPONSE, 23, "HTTP/1.1|200|OK, fine"},
      {"HTTP/1.1 200 O\rK\r\n", false, true, L::LINE_UNKNOWN, 0, nullptr},
      {"HTTP/1.1 2x", false, true, L::LINE_UNKNOWN, 0, nullptr},
      {" \r\n\t ", false, false, L::LINE_UNDECIDED, 5, nullptr},
      {"", false, false, L::LINE_UNDECIDED, 0, nullptr},
  };
  for (const Row &row : rows) {
    SCOPED_TRACE(row.text);
    FedFlow f;
    f.Feed(row.text);
    oru::WebLine line(&methods, "HTTP");
    unsigned long long pos = 0;
    EXPECT_EQ(line.Parse(f.flow, pos, row.check), row.decided);
    EXPECT_EQ(line.m_type, row.type);
    EXPECT_EQ(pos, row.pos);
    if (row.tokens != nullptr) {
      auto text = [&](const oru::FlowString &s) { return f.Text(s.pos, s.pos + s.length); };
      EXPECT_EQ(text(line.m_first) + "|" + text(line.m_second) + "|" + text(line.m_third),
                row.tokens);
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
