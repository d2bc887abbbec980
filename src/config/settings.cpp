#include "config/settings.h"

#include <string>
#include <string_view>

#include "records/input.h"
#include "records/output.h"

namespace lockstep::config {
namespace {

constexpr const char* kSettingsFile = "analysis_settings.dat";

}  // namespace

records::Status find_setting(records::FileSystem& fs, std::string_view key, KeySearch& search) {
  search = {};
  records::InputFile file(fs);
  if (records::Status status = file.open(records::unit::kSettings, kSettingsFile, records::Access::kUnspecified);
      !status.ok()) {
    return status;
  }
  std::string line;
  for (int read = 0; read < kSearchLimit && !search.found; ++read) {
    records::Status status = file.read_text(key.size(), line);
    search.line = file.records_read();
    if (!status.ok()) return status;
    search.found = line == key;
  }
  // At the limit the file is left to the process exit, which follows at once.
  if (!search.found) return {};

  std::optional<std::int32_t> value;
  records::Status status = file.read_integer(value);
  search.line = file.records_read();
  if (!status.ok()) return status;
  if (!value) {
    // A null value would leave the setting undefined; refuse it the way a
    // malformed value is refused.
    return file.failure(records::error::kSyntaxError, "null value where an integer is required");
  }
  search.value = *value;
  return file.close();
}

std::int32_t Settings::closing_time_step() const {
  return static_cast<std::int32_t>(static_cast<std::uint32_t>(time_step) + 1u);
}

records::Status read_settings(records::FileSystem& fs, std::optional<Settings>& settings) {
  static constexpr std::int32_t Settings::*kFields[] = {&Settings::time_step, &Settings::cycle_num,
                                                        &Settings::num_subprojects};
  Settings read;
  for (std::size_t i = 0; i < kSettingKeys.size(); ++i) {
    KeySearch search;
    if (records::Status status = find_setting(fs, kSettingKeys[i], search); !status.ok()) {
      return std::move(status).within("settings reader, key \"" + std::string(kSettingKeys[i]) + "\"");
    }
    read.*kFields[i] = search.value;
    if (!search.found) {
      settings.reset();
      return records::write_standard_output(fs, records::FreeFormRecord().text("Parameter reading failed!").line())
          .within("settings reader, search failure message");
    }
  }
  settings = read;
  return {};
}

}  // namespace lockstep::config
