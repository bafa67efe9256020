// URL-encoding a flow string and decoding Base64 that lies in a flow, with
// values spread over blocks of several sizes; the rows are in flow_rows.txt.
#include "../web/WebTestSupport.h"
#include "LeakCheck.h"
#include "TableFile.h"

#include <kest/Base64Decoder.h>
#include <kest/FlowString.h>

namespace {

using kest_test::Field;

// `text` held in blocks of `block` bytes from position 0.
struct Held : kest_test::FedFlow {
  Held(const std::string &text, size_t block) {
    for (size_t at = 0; at < text.size(); at += block) {
      Feed(text.substr(at, block));
    }
  }
};

class FlowStringTest : public kest_test::LeakCheck {};

TEST_F(FlowStringTest, UrlEncode) {
  for (const std::string &row : kest_test::TableRows(__FILE__, "flow_rows.txt", "url")) {
    std::istringstream in(row);
    std::string text, encoded;
    uint32_t extra = 0;
    in >> text >> extra >> encoded;
    text = Field(text);
    for (size_t block : {1, 2, 64}) {
      SCOPED_TRACE(row + " in blocks of " + std::to_string(block));
      Held held(text, block);
      const oru::FlowString s(&held.flow, 0, static_cast<uint32_t>(text.size()) + extra);
      EXPECT_EQ(std::string(s.UrlEncode().c_str()), Field(encoded));
    }
  }
  EXPECT_TRUE(oru::FlowString().UrlEncode().empty());
  Held held("abc", 8);
  kest_test::FailNthAllocation(1);
  EXPECT_TRUE(oru::FlowString(&held.flow, 0, 3).UrlEncode().empty());
}

TEST_F(FlowStringTest, Base64) {
  for (const std::string &row : kest_test::TableRows(__FILE__, "flow_rows.txt", "b64")) {
    std::istringstream in(row);
    std::string encoded, decoded;
    unsigned room = 0;
    int ok = 0;
    in >> encoded >> room >> ok >> decoded;
    encoded = Field(encoded);
    for (size_t block : {1, 3, 64}) {
      SCOPED_TRACE(row + " in blocks of " + std::to_string(block));
      Held held(encoded, block);
      oru::Base64Decoder d(&held.flow, 0, static_cast<uint32_t>(encoded.size()));
      EXPECT_EQ(d.GetDecodedLen(), room);
      char out[16] = {};
      EXPECT_EQ(d.Decode(out), ok != 0);
      if (ok != 0) {
        EXPECT_EQ(std::string(out), Field(decoded));
      }
    }
  }
  Held held("QUJD", 4);
  EXPECT_FALSE(oru::Base64Decoder(&held.flow, 0, 4).Decode(nullptr));
}

} // namespace
