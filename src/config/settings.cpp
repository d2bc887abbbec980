#include "config/settings.h"

#include <string>
#include <string_view>

#include "records/input.h"
#include "records/output.h"

namespace lockstep::config {
namespace {

constexpr const char* kSettingsFile = "analysis_settings.dat";

enum class Search { kFound, kLimitReached };

// Reads lines until one starts with `key` and then the integer after it.
records::Status find_value(records::FileSystem& fs, std::string_view key, Search& search,
                           std::int32_t& value) {
  records::InputFile file(fs);
  if (records::Status status = file.open(records::unit::kSettings, kSettingsFile, records::Access::kUnspecified);
      !status.ok()) {
    return status;
  }
  std::string line;
  search = Search::kLimitReached;
  for (int read = 0; read < kSearchLimit; ++read) {
    if (records::Status status = file.read_text(key.size(), line); !status.ok()) return status;
    if (line == key) {
      search = Search::kFound;
      break;
    }
  }
  // At the limit the file is left to the process exit, which follows at once.
  if (search == Search::kLimitReached) return {};

  std::optional<std::int32_t> read_value;
  if (records::Status status = file.read_integer(read_value); !status.ok()) return status;
  if (!read_value) {
    // A null value would leave the setting undefined; refuse it the way a
    // malformed value is refused.
    return file.failure(records::error::kSyntaxError, "null value where an integer is required");
  }
  value = *read_value;
  return file.close();
}

}  // namespace

std::int32_t Settings::closing_time_step() const {
  return static_cast<std::int32_t>(static_cast<std::uint32_t>(time_step) + 1u);
}

records::Status read_settings(records::FileSystem& fs, std::optional<Settings>& settings) {
  struct Key {
    std::string_view text;
    std::int32_t Settings::*field;
  };
  static constexpr Key kKeys[] = {
      {"time_step=", &Settings::time_step},
      {"cycle_num=", &Settings::cycle_num},
      {"num_subprojects=", &Settings::num_subprojects},
  };

  Settings read;
  for (const Key& key : kKeys) {
    Search search = Search::kFound;
    if (records::Status status = find_value(fs, key.text, search, read.*key.field); !status.ok()) {
      return std::move(status).within("settings reader, key \"" + std::string(key.text) + "\"");
    }
    if (search == Search::kLimitReached) {
      settings.reset();
      return records::write_standard_output(fs, records::FreeFormRecord().text("Parameter reading failed!").line())
          .within("settings reader, search failure message");
    }
  }
  settings = read;
  return {};
}

}  // namespace lockstep::config
