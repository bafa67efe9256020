// URL-encoding a flow string and decoding Base64 that lies in a flow, with
// values spread over several blocks.
#include "LeakCheck.h"

#include <kest/Base64Decoder.h>
#include <kest/FlowString.h>

#include <string>
#include <vector>

namespace {

// `text` held in blocks of `block` bytes from position 0.
struct Held {
  std::string text;
  oru::FlowBuffer flow;
  Held(std::string t, size_t block) : text(std::move(t)) {
    for (size_t at = 0; at < text.size(); at += block) {
      const size_t n = std::min(block, text.size() - at);
      flow.AddBlock(at, text.data() + at, static_cast<uint16_t>(n), false);
      flow.m_last_start = at;
    }
    flow.m_next_pos = text.size();
  }
};

class FlowStringTest : public kest_test::LeakCheck {};

TEST_F(FlowStringTest, UrlEncode) {
  struct Row {
    std::string text;
    uint32_t extra; // bytes asked for beyond the data
    std::string encoded;
  } rows[] = {
      {"", 0, ""},
      {"a b", 0, "a+b"},
      {"a/b?c=d", 0, "a%2fb%3fc%3dd"},
      {"-_.~", 0, "-_.~"},
      {std::string("\0\xff", 2), 0, "%00%ff"},
      {"Az09", 2, "Az09%00%00"},
  };
  for (const Row &row : rows) {
    for (size_t block : {1, 2, 64}) {
      Held held(row.text, block);
      const oru::FlowString s(&held.flow, 0, static_cast<uint32_t>(row.text.size()) + row.extra);
      EXPECT_EQ(std::string(s.UrlEncode().c_str()), row.encoded) << block;
    }
  }
  EXPECT_TRUE(oru::FlowString().UrlEncode().empty());
  Held held("abc", 8);
  kest_test::FailNthAllocation(1);
  EXPECT_TRUE(oru::FlowString(&held.flow, 0, 3).UrlEncode().empty());
}

TEST_F(FlowStringTest, Base64) {
  struct Row {
    std::string encoded;
    unsigned room; // GetDecodedLen
    bool ok;
    std::string decoded;
  } rows[] = {
      {"QUJD", 4, true, "ABC"},
      {"QU\r\nJD", 4, true, "ABC"},
      {"QUI=", 4, true, "AB"},
      {"QQ==", 4, true, "A"},
      {"QQ==\r\n", 0, true, "A"}, // the length looks at the last four bytes as they are
      {"QUJDRA==", 7, true, "ABCD"},
      {"aGk/Pn4=", 7, true, "hi?>~"}, // the rest of the alphabet: lower case, digits,
      {"+/+/LWtlc3Q6OQ==", 13, true, "\xfb\xff\xbf-kest:9"}, // '+' and '/'
      {"QUJDR", 0, true, "ABC"}, // five bytes: no room, though it decodes
      {"Q===", 0, false, ""},
      {"QUJ*", 4, false, ""}, // outside the alphabet
      {"QQ=A", 4, false, ""}, // data after "="
      {"", 1, true, ""},
  };
  for (const Row &row : rows) {
    for (size_t block : {1, 3, 64}) {
      SCOPED_TRACE(row.encoded + " in blocks of " + std::to_string(block));
      Held held(row.encoded, block);
      oru::Base64Decoder d(&held.flow, 0, static_cast<uint32_t>(row.encoded.size()));
      EXPECT_EQ(d.GetDecodedLen(), row.room);
      char out[16] = {};
      EXPECT_EQ(d.Decode(out), row.ok);
      if (row.ok) {
        EXPECT_EQ(std::string(out), row.decoded);
      }
    }
  }
  Held held("QUJD", 4);
  EXPECT_FALSE(oru::Base64Decoder(&held.flow, 0, 4).Decode(nullptr));
}

} // namespace
