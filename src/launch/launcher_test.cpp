#include "launch/launcher.h"

#include <gtest/gtest.h>

#include "records/shell.h"

namespace lockstep::launch {
namespace {

std::string padded(const std::string& record) { return record + std::string(30 - record.size(), ' '); }

// The line the shell receives for project `index`.
std::string shell_line(int index, const std::string& record, std::int32_t cycle = 1, std::int32_t time_step = 2,
                       std::int32_t stage = 3) {
  const Command command = project_command(index, padded(record), cycle, time_step, stage);
  return records::command_line(command.program.data(), command.arguments.data(),
                               static_cast<std::int32_t>(command.program.size()),
                               static_cast<std::int32_t>(command.arguments.size()));
}

TEST(LauncherTest, CommandLines) {
  const std::string thirty(30, 'x');
  const std::pair<std::string, std::string> cases[] = {
      {shell_line(0, "couple.sh"), R"("../main/couple.sh"  0     1     2     3)"},
      {shell_line(10, "couple.sh"), R"("../sub10/couple.sh"  10     1     2     3)"},
      {shell_line(0, "  run it"), R"("../main/  run it"  0     1     2     3)"},
      {shell_line(0, thirty), "\"../main/" + thirty + "\"  0     1     2     3"},
      {shell_line(2, ""), R"("../sub2/"  2     1     2     3)"},
      {shell_line(0, "a\"b"), R"("../main/a\"b"  0     1     2     3)"},
      {shell_line(0, "$HOME"), R"("../main/\$HOME"  0     1     2     3)"},
      {shell_line(0, "a`id`"), R"("../main/a\`id\`"  0     1     2     3)"},
      {shell_line(0, "a\\b"), R"("../main/a\\b"  0     1     2     3)"},
      {shell_line(0, "p", 12345, 1, 4), R"("../main/p"  0 12345     1     4)"},
      {shell_line(0, "p", 100000, 123456, 1), R"("../main/p"  0 100000 123456     1)"},
      {shell_line(100, "p"), R"("../sub**/p"  100     1     2     3)"},
  };
  for (const auto& [line, expected] : cases) EXPECT_EQ(line, expected);
}

}  // namespace
}  // namespace lockstep::launch
