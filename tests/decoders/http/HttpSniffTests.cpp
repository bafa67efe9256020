// The first-line judgement of the HTTP decoder as a pure function of the
// bytes: a table of lines, the same lines cut at every byte, and agreement
// with the message inspector's own line reader on what is decided.
#include "LeakCheck.h"
#include "WebTestSupport.h"

#include "message/MessageLine.h"

#include <kest/WebLine.h>
#include <string.h>

namespace {

using kest_message::FirstLine;
using kest_message::kHttp;
using kest_test::FedFlow;

struct Row {
  std::string text;
  FirstLine expected;
};

const std::vector<Row> &Rows() {
  static const std::vector<Row> rows = {
      {"GET / HTTP/1.1\r\n", FirstLine::kRequest},
      {"GET /index.html?q=1 HTTP/1.0\r\nHost: a\r\n\r\n", FirstLine::kRequest},
      {"HEAD /x HTTP/1.1\n", FirstLine::kRequest},
      {"\r\nPOST /form HTTP/1.1\r\n", FirstLine::kRequest},
      {"CONNECT example.test:443 HTTP/1.1\r\n", FirstLine::kRequest},
      {"OPTIONS * HTTP/1.1\r\n", FirstLine::kRequest},
      {"PROPFIND /dav/ HTTP/1.1\r\n", FirstLine::kRequest},
      {"VERSION-CONTROL /v HTTP/1.1\r\n", FirstLine::kRequest},
      {"GET /caf\xc3\xa9 HTTP/1.1\r\n", FirstLine::kRequest},
      {"HTTP/1.1 200 OK\r\n", FirstLine::kResponse},
      {"HTTP/1.0 404 Not Found\r\nServer: x\r\n", FirstLine::kResponse},
      {"HTTP/1.1 204 \r\n", FirstLine::kResponse},
      {"HTTP/1.1 100 Continue\n", FirstLine::kResponse},
      {"HTTP/1.1 200 \xc3\xa9t\xc3\xa9\tok\r\n", FirstLine::kResponse},
      // Beginnings that may still grow into either.
      {"", FirstLine::kNeedMore},
      {"\r\n", FirstLine::kNeedMore},
      {"G", FirstLine::kNeedMore},
      {"GET", FirstLine::kNeedMore},
      {"GET /very/long/path", FirstLine::kNeedMore},
      {"GET / HTTP/1.1", FirstLine::kNeedMore},
      {"GET / HTTP/1.1\r", FirstLine::kNeedMore},
      {"H", FirstLine::kNeedMore},
      {"HTTP/1.1 2", FirstLine::kNeedMore},
      {"HTTP/1.1 200 OK", FirstLine::kNeedMore},
      {"UNSUB", FirstLine::kNeedMore},
      // Near misses.
      {"GETX / HTTP/1.1\r\n", FirstLine::kNo},
      {"get / HTTP/1.1\r\n", FirstLine::kNo},
      {"GET/ HTTP/1.1\r\n", FirstLine::kNo},
      {"GET /HTTP/1.1\r\n", FirstLine::kNo},
      {"GET  / HTTP/1.1\r\n", FirstLine::kNo},
      {"GET / HTTP/2.0\r\n", FirstLine::kNo},
      {"GET / HTTP/1.1 \r\n", FirstLine::kNo},
      {"GET / HTTP/1.1\rX", FirstLine::kNo},
      {"GET /a\x01 HTTP/1.1\r\n", FirstLine::kNo},
      {"PRI * HTTP/2.0\r\n\r\nSM\r\n\r\n", FirstLine::kNo},
      {"OPTIONS rtsp://cam/ RTSP/1.0\r\n", FirstLine::kNo},
      {"SSH-2.0-OpenSSH_9.6\r\n", FirstLine::kNo},
      {"HTTP/1.1 20 OK\r\n", FirstLine::kNo},
      {"HTTP/1.1 2000 OK\r\n", FirstLine::kNo},
      {"HTTP/1.1 200\r\n", FirstLine::kNo},
      {std::string("HTTP/1.1 200 O\x00K\r\n", 18), FirstLine::kNo},
      {"HTTP/2 200\r\n", FirstLine::kNo},
      {"RTSP/1.0 200 OK\r\n", FirstLine::kNo},
      {"220 smtp.example ESMTP\r\n", FirstLine::kNo},
      {std::string("\x16\x03\x01\x02\x00\x01\x00\x01\xfc\x03\x03", 11), FirstLine::kNo},
      {std::string("\x00\x00\x00\x00GET / HTTP/1.1\r\n", 20), FirstLine::kNo},
  };
  return rows;
}

const char *Name(FirstLine f) {
  switch (f) {
  case FirstLine::kNeedMore:
    return "need-more";
  case FirstLine::kRequest:
    return "request";
  case FirstLine::kResponse:
    return "response";
  case FirstLine::kNo:
    return "no";
  }
  return "?";
}

// The judgement of `text` fed in pieces that end at the given cuts.
FirstLine Sniff(const std::string &text, const std::vector<size_t> &cuts = {}) {
  FedFlow fed;
  size_t from = 0;
  for (size_t cut : cuts) {
    fed.Feed(text.substr(from, cut - from));
    from = cut;
  }
  fed.Feed(text.substr(from));
  return kest_message::SniffFirstLine(fed.flow, 0, fed.flow.End(), kHttp);
}

class HttpSniffTest : public kest_test::LeakCheck {};

TEST_F(HttpSniffTest, Table) {
  for (const Row &row : Rows()) {
    EXPECT_STREQ(Name(Sniff(row.text)), Name(row.expected)) << row.text;
  }
}

// Cut anywhere, or fed a byte at a time, a line is judged as when whole; and
// every beginning of it is either still open or already what the whole is.
TEST_F(HttpSniffTest, SplitInvariance) {
  for (const Row &row : Rows()) {
    for (size_t cut = 1; cut < row.text.size(); ++cut) {
      EXPECT_EQ(Sniff(row.text, {cut}), row.expected) << row.text << " cut at " << cut;
      const FirstLine prefix = Sniff(row.text.substr(0, cut));
      EXPECT_TRUE(prefix == FirstLine::kNeedMore || prefix == row.expected)
          << row.text << " prefix " << cut << " " << Name(prefix);
    }
    std::vector<size_t> every;
    for (size_t i = 1; i < row.text.size(); ++i) {
      every.push_back(i);
    }
    EXPECT_EQ(Sniff(row.text, every), row.expected) << row.text << " byte by byte";
  }
}

// What the judgement decides, the message inspector's line reader reads the
// same way with the decoder's methods, so a connection named HTTP is read.
TEST_F(HttpSniffTest, AgreesWithTheLineReader) {
  oru::WebMethodTable methods;
  for (size_t i = 0; i < kHttp.method_count; ++i) {
    ASSERT_TRUE(methods.push_back(oru::WebMethod{kHttp.methods[i].text, kHttp.methods[i].length}));
  }
  for (const Row &row : Rows()) {
    if (row.expected != FirstLine::kRequest && row.expected != FirstLine::kResponse) {
      continue;
    }
    FedFlow fed;
    fed.Feed(row.text);
    oru::WebLine line(&methods, "HTTP");
    unsigned long long pos = 0;
    ASSERT_TRUE(line.Parse(fed.flow, pos, true)) << row.text;
    EXPECT_EQ(line.m_type, row.expected == FirstLine::kRequest ? oru::WebLine::LINE_REQUEST
                                                               : oru::WebLine::LINE_RESPONSE)
        << row.text;
  }
  methods.clear();
}

// The line reader stops at the first method a token begins with: no method
// may begin another.
TEST_F(HttpSniffTest, NoMethodBeginsAnother) {
  for (size_t i = 0; i < kHttp.method_count; ++i) {
    const kest_message::Word &a = kHttp.methods[i];
    EXPECT_EQ(strlen(a.text), a.length) << a.text;
    for (size_t j = 0; j < kHttp.method_count; ++j) {
      const kest_message::Word &b = kHttp.methods[j];
      if (i != j && a.length <= b.length) {
        EXPECT_NE(strncmp(a.text, b.text, a.length), 0) << a.text << " begins " << b.text;
      }
    }
  }
}

// A line is waited for up to the limit, blank lines before it included.
TEST_F(HttpSniffTest, BoundedWait) {
  const std::string head = "GET /";
  const std::string tail = " HTTP/1.1\r\n";
  const size_t room = kHttp.max_first_line - head.size() - tail.size();
  EXPECT_EQ(Sniff(head + std::string(room, 'a') + tail), FirstLine::kRequest);
  EXPECT_EQ(Sniff(head + std::string(room + 1, 'a') + tail), FirstLine::kNo);
  EXPECT_EQ(Sniff(head + std::string(room + 100, 'a')), FirstLine::kNo);
  EXPECT_EQ(Sniff(std::string(kHttp.max_first_line, '\n')), FirstLine::kNo);
  EXPECT_EQ(Sniff(std::string(kHttp.max_first_line - 1, '\n')), FirstLine::kNeedMore);
}

} // namespace
