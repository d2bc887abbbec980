#include "ctl/text.h"

#include <gtest/gtest.h>

#include "ctl/json.h"

namespace lockstep::ctl {
namespace {

// What reaches a terminal and what reaches JSON, for well-formed UTF-8 of
// every length and for the byte sequences that only look like it.
TEST(TextTest, WellFormedUtf8PassesEverythingElseIsEscaped) {
  struct Case {
    const char* name;
    std::string bytes;
    std::string printable;
    std::string json;
  };
  const Case cases[] = {
      {"plain", "step.sh", "step.sh", "\"step.sh\""},
      {"two to four bytes", "\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80", "\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80",
       "\"\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80\""},
      {"controls", "a\x1b[0m\tb\x7f", "a\\x1b[0m\\x09b\\x7f", "\"a\\u001b[0m\\tb\x7f\""},
      {"C1 control", "\xc2\x9b" "2J", "\\xc2\\x9b2J", "\"\xc2\x9b" "2J\""},
      {"overlong", "\xc0\xaf", "\\xc0\\xaf", "\"\\ufffd\\ufffd\""},
      {"surrogate", "\xed\xa0\x80", "\\xed\\xa0\\x80", "\"\\ufffd\\ufffd\\ufffd\""},
      {"cut short", "x\xe2\x82", "x\\xe2\\x82", "\"x\\ufffd\\ufffd\""},
      {"above U+10FFFF", "\xf4\x90\x80\x80", "\\xf4\\x90\\x80\\x80", "\"\\ufffd\\ufffd\\ufffd\\ufffd\""},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(text::printable(c.bytes), c.printable) << c.name;
    EXPECT_EQ(json::quoted(c.bytes), c.json) << c.name;
  }
}

}  // namespace
}  // namespace lockstep::ctl
