#include "ctl/text.h"

#include <gtest/gtest.h>

namespace lockstep::ctl {
namespace {

// What reaches a terminal, for well-formed UTF-8 of every length and for
// the byte sequences that only look like it.
TEST(TextTest, WellFormedUtf8PassesEverythingElseIsEscaped) {
  struct Case {
    const char* name;
    std::string bytes;
    std::string printable;
  };
  const Case cases[] = {
      {"plain", "step.sh", "step.sh"},
      {"two to four bytes", "\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80", "\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80"},
      {"lowest of three and four bytes", "\xe0\xa0\x80\xf0\x90\x80\x80", "\xe0\xa0\x80\xf0\x90\x80\x80"},
      {"controls", "a\x1b[0m\tb\x7f", "a\\x1b[0m\\x09b\\x7f"},
      {"C1 control", "\xc2\x9b" "2J", "\\xc2\\x9b2J"},
      {"overlong", "\xc0\xaf", "\\xc0\\xaf"},
      {"surrogate", "\xed\xa0\x80", "\\xed\\xa0\\x80"},
      {"cut short", "x\xe2\x82", "x\\xe2\\x82"},
      {"above U+10FFFF", "\xf4\x90\x80\x80", "\\xf4\\x90\\x80\\x80"},
  };
  for (const Case& c : cases) EXPECT_EQ(text::printable(c.bytes), c.printable) << c.name;
}

}  // namespace
}  // namespace lockstep::ctl
