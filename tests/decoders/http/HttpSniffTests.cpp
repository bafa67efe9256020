// The first-line judgement of the HTTP decoder as a pure function of the
// bytes: a table of lines, the same lines cut at every byte, and agreement
// with the message inspector's own line reader on what is decided.
#include "LeakCheck.h"
#include "WebTestSupport.h"

#include "http/HttpSniff.h"

#include <kest/WebLine.h>
#include <string.h>

namespace {

using kest_http::FirstLine;
using kest_http::SniffFirstLine;
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
      {"GETX / HTTP/1.1\r\n", FirstLine::kNotHttp},
      {"get / HTTP/1.1\r\n", FirstLine::kNotHttp},
      {"GET/ HTTP/1.1\r\n", FirstLine::kNotHttp},
      {"GET /HTTP/1.1\r\n", FirstLine::kNotHttp},
      {"GET  / HTTP/1.1\r\n", FirstLine::kNotHttp},
      {"GET / HTTP/2.0\r\n", FirstLine::kNotHttp},
      {"GET / HTTP/1.1 \r\n", FirstLine::kNotHttp},
      {"GET / HTTP/1.1\rX", FirstLine::kNotHttp},
      {"GET /a\x01 HTTP/1.1\r\n", FirstLine::kNotHttp},
      {"PRI * HTTP/2.0\r\n\r\nSM\r\n\r\n", FirstLine::kNotHttp},
      {"OPTIONS rtsp://cam/ RTSP/1.0\r\n", FirstLine::kNotHttp},
      {"SSH-2.0-OpenSSH_9.6\r\n", FirstLine::kNotHttp},
      {"HTTP/1.1 20 OK\r\n", FirstLine::kNotHttp},
      {"HTTP/1.1 2000 OK\r\n", FirstLine::kNotHttp},
      {"HTTP/1.1 200\r\n", FirstLine::kNotHttp},
      {std::string("HTTP/1.1 200 O\x00K\r\n", 18), FirstLine::kNotHttp},
      {"HTTP/2 200\r\n", FirstLine::kNotHttp},
      {"RTSP/1.0 200 OK\r\n", FirstLine::kNotHttp},
      {"220 smtp.example ESMTP\r\n", FirstLine::kNotHttp},
      {std::string("\x16\x03\x01\x02\x00\x01\x00\x01\xfc\x03\x03", 11), FirstLine::kNotHttp},
      {std::string("\x00\x00\x00\x00GET / HTTP/1.1\r\n", 20), FirstLine::kNotHttp},
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
  case FirstLine::kNotHttp:
    return "not-http";
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
  return SniffFirstLine(fed.flow, 0);
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
  for (size_t i = 0; i < kest_http::kMethodCount; ++i) {
    ASSERT_TRUE(methods.push_back(
        oru::WebMethod{kest_http::kMethods[i].name, kest_http::kMethods[i].length}));
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
  for (size_t i = 0; i < kest_http::kMethodCount; ++i) {
    const kest_http::MethodName &a = kest_http::kMethods[i];
    EXPECT_EQ(strlen(a.name), a.length) << a.name;
    for (size_t j = 0; j < kest_http::kMethodCount; ++j) {
      const kest_http::MethodName &b = kest_http::kMethods[j];
      if (i != j && a.length <= b.length) {
        EXPECT_NE(strncmp(a.name, b.name, a.length), 0) << a.name << " begins " << b.name;
      }
    }
  }
}

// A line is waited for up to the limit, blank lines before it included.
TEST_F(HttpSniffTest, BoundedWait) {
  const std::string head = "GET /";
  const std::string tail = " HTTP/1.1\r\n";
  const size_t room = kest_http::kMaxFirstLine - head.size() - tail.size();
  EXPECT_EQ(Sniff(head + std::string(room, 'a') + tail), FirstLine::kRequest);
  EXPECT_EQ(Sniff(head + std::string(room + 1, 'a') + tail), FirstLine::kNotHttp);
  EXPECT_EQ(Sniff(head + std::string(room + 100, 'a')), FirstLine::kNotHttp);
  EXPECT_EQ(Sniff(std::string(kest_http::kMaxFirstLine, '\n')), FirstLine::kNotHttp);
  EXPECT_EQ(Sniff(std::string(kest_http::kMaxFirstLine - 1, '\n')), FirstLine::kNeedMore);
}

} // namespace
