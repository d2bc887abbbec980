#include "records/shell.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <string>

namespace lockstep::records {
namespace {

std::string line_of(const std::string& program, const std::string& arguments) {
  return command_line(program.data(), arguments.data(), static_cast<std::int32_t>(program.size()),
                      static_cast<std::int32_t>(arguments.size()));
}

// The launcher's tests cover the usual lines; these are the odd ones.
TEST(ShellTest, CommandLineQuotesTheTrimmedProgramAndKeepsLeadingBlanks) {
  EXPECT_EQ(line_of("   ", "  a b  "), "\"\"   a b");
  EXPECT_EQ(line_of("prog", "    "), "\"prog\" ");
  EXPECT_EQ(line_of("  lead\ttab\t ", "x"), "\"  lead\ttab\t\" x");
  // The program copy ends at its first zero byte.
  EXPECT_EQ(line_of(std::string("ab\0cd", 5), "x"), "\"ab\" x");
  EXPECT_EQ(command_line("prog", nullptr, 4, 0), "\"prog\" ");
}

TEST(ShellTest, RunqqReturnsTheWaitStatusInSixteenBits) {
  const auto run = [](const std::string& arguments) {
    return runqq("sh", arguments.data(), 2, static_cast<std::int32_t>(arguments.size()));
  };
  EXPECT_EQ(run("-c 'exit 0'   "), 0);
  EXPECT_EQ(run("-c 'exit 1'"), 256);
  EXPECT_EQ(run("-c 'exit 255'"), -256);
  EXPECT_EQ(run("-c 'exit 137'"), -30464);
}

TEST(ShellTest, AllocCstrTrimsAndReportsANullText) {
  char* copy = allocCstr("abc   ", 6);
  ASSERT_NE(copy, nullptr);
  EXPECT_STREQ(copy, "abc");
  deallocCstr(copy);
  copy = allocCstr("abc", -4);
  ASSERT_NE(copy, nullptr);
  EXPECT_STREQ(copy, "");
  deallocCstr(copy);
  deallocCstr(nullptr);

  errno = 0;
  EXPECT_EQ(allocCstr(nullptr, 3), nullptr);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(last_error().system_error, EINVAL);
  EXPECT_EQ(last_error().io_error, 0);
}

TEST(ShellTest, SleepqqPausesAtLeastTheCount) {
  const auto measure = [](std::int32_t milliseconds) {
    const auto start = std::chrono::steady_clock::now();
    sleepqq(&milliseconds);
    return std::chrono::steady_clock::now() - start;
  };
  EXPECT_GE(measure(30), std::chrono::milliseconds(30));
  measure(-5);  // returns
}

}  // namespace
}  // namespace lockstep::records
