#include "TestHooks.h"

#include <gtest/gtest.h>
#include <kest/KeyValueRuleString.h>

namespace {

using oru::KeyValueRuleString;

TEST(KeyValueRuleStringTest, ParseTable) {
  kest_test::InstallHooks();
  const struct {
    const char *text;
    bool valid;
    const char *key, *value;
  } rows[] = {
      {"User-Agent = *bot*", true, "User-Agent", "*bot*"},
      {"  a  =b", true, "a", "b"},
      {"a = b = c", true, "a", "b = c"},
      {"\tHost:\t= x y \t", true, "Host:", "x y"},
      {"", false, "", ""},
      {"   ", false, "", ""},
      {"=x", false, "", ""},
      {"x=", false, "x", ""},
      {"x= ", false, "x", ""},
      {"no equals", false, "", ""},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.text);
    const KeyValueRuleString parsed(row.text);
    EXPECT_EQ(parsed.valid, row.valid);
    EXPECT_STREQ(parsed.key.c_str(), row.key);
    EXPECT_STREQ(parsed.value.c_str(), row.value);
  }
}

} // namespace
