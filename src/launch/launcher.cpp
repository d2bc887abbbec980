#include "launch/launcher.h"

#include <algorithm>

#include "records/field.h"
#include "records/shell.h"

namespace lockstep::launch {
namespace {

constexpr std::size_t kCounterWidth = 5;

std::string escaped_for_double_quotes(const std::string& text) {
  std::string escaped;
  escaped.reserve(text.size());
  for (const char c : text) {
    if (c == '"' || c == '$' || c == '`' || c == '\\') escaped += '\\';
    escaped += c;
  }
  return escaped;
}

std::string counter_text(std::int32_t value) { return records::format_integer_or_full(value, kCounterWidth); }

std::int32_t length_of(const std::string& text) { return static_cast<std::int32_t>(text.size()); }

}  // namespace

Command project_command(int index, const std::string& interaction_record, std::int32_t cycle,
                        std::int32_t time_step, std::int32_t stage) {
  const std::string index_argument = index == 0 ? "0" : std::to_string(index);
  return Command{
      config::project_directory(index) + escaped_for_double_quotes(interaction_record) + " ",
      " " + index_argument + " " + counter_text(cycle) + " " + counter_text(time_step) + " " +
          counter_text(stage) + " ",
  };
}

void launch_programs(const config::InteractionTable& table, int num_subprojects, std::int32_t cycle,
                     std::int32_t time_step, std::int32_t stage) {
  for (int index = 0; index <= std::max(num_subprojects, 0); ++index) {
    const Command command =
        project_command(index, table[static_cast<std::size_t>(index)], cycle, time_step, stage);
    static_cast<void>(records::runqq(command.program.c_str(), command.arguments.c_str(), length_of(command.program),
                                     length_of(command.arguments)));
  }
}

}  // namespace lockstep::launch
