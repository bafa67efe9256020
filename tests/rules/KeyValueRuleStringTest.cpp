#include "TestHooks.h"

#include <gtest/gtest.h>
#include <kest/KeyValueRuleString.h>

#include <string>

namespace {

using oru::KeyValueRuleString;

class KeyValueRuleStringTest : public ::testing::Test {
protected:
  void SetUp() override { kest_test::InstallHooks(); }
};

TEST_F(KeyValueRuleStringTest, ValidTextsAreSplitAndTrimmed) {
  struct Row {
    const char *text;
    const char *key;
    const char *value;
  };
  const Row rows[] = {
      {"User-Agent = *bot*", "User-Agent", "*bot*"},
      {"a=b", "a", "b"},
      {"  a  =b", "a", "b"},
      {"a = b = c", "a", "b = c"},
      {"\tHost:\t= x y \t", "Host:", "x y"},
  };
  for (const Row &row : rows) {
    SCOPED_TRACE(row.text);
    const KeyValueRuleString parsed(row.text);
    EXPECT_TRUE(parsed.valid);
    EXPECT_EQ(std::string(parsed.key.c_str()), row.key);
    EXPECT_EQ(std::string(parsed.value.c_str()), row.value);
  }
}

TEST_F(KeyValueRuleStringTest, InvalidTexts) {
  for (const char *text : {"", "   ", "=x", "  =x", "x=", "x= ", "no equals sign"}) {
    SCOPED_TRACE(text);
    EXPECT_FALSE(KeyValueRuleString(text).valid);
  }
}

TEST_F(KeyValueRuleStringTest, WithoutMemoryAPartComesOutEmptyAndTheTextInvalid) {
  for (long n : {1, 2}) {
    SCOPED_TRACE(n);
    kest_test::FailNthAllocation(n);
    EXPECT_FALSE(KeyValueRuleString("key = value").valid);
    kest_test::FailNthAllocation(0);
  }
}

TEST_F(KeyValueRuleStringTest, ValidatorJudgesTheRuleTextInsideTheKey) {
  EXPECT_TRUE(KeyValueRuleString::ValidateRule("customrule.web.Host = a.b.c", "", "7"));
  EXPECT_FALSE(KeyValueRuleString::ValidateRule("customrule.web.Host =", "", "7"));
  EXPECT_FALSE(KeyValueRuleString::ValidateRule("customrule.web.=x", "", "7"));
}

} // namespace
