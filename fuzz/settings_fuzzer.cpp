// The settings reader on any file: it returns settings, the search failure
// or a record error, and never crashes.
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string>

#include "memory_file_system.h"
#include "config/settings.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  lockstep::testing::MemoryFileSystem fs;
  fs.logging = false;
  fs.set_file("analysis_settings.dat", std::string(reinterpret_cast<const char*>(data), size));
  std::optional<lockstep::config::Settings> settings;
  const lockstep::records::Status status = lockstep::config::read_settings(fs, settings);
  if (!status.ok() && settings) std::abort();
  return 0;
}
