#include "handshake/readiness.h"

#include <cstdint>
#include <optional>

#include "records/input.h"

namespace lockstep::handshake {
namespace {

// The first integer of `path`, or -1 for a null value.
records::Status read_done_value(records::InputFile& file, Pacer& pacer, const std::string& path,
                                std::int32_t& done) {
  for (int failures = 1;; ++failures) {
    records::Status status = file.open(records::unit::kProjectFile, path, records::Access::kRead);
    std::optional<std::int32_t> value = -1;
    if (status.ok()) status = file.read_integer(value);
    if (status.ok()) {
      done = *value;
      return file.close().within("readiness wait");
    }
    if (failures >= kFailuresBeforePausing) pacer.pause(kPollPause);
  }
}

}  // namespace

records::Status wait_for_readiness(records::FileSystem& fs, Pacer& pacer, const std::vector<GoFilePaths>& paths) {
  records::InputFile file(fs);
  for (long pass = 1; pass <= kPollLimit; ++pass) {
    // Added as unsigned so that absurd done values wrap instead of overflowing.
    std::uint32_t sum = 0;
    for (const GoFilePaths& project : paths) {
      std::int32_t done = 0;
      if (records::Status status = read_done_value(file, pacer, project.go2, done); !status.ok()) return status;
      sum += static_cast<std::uint32_t>(done);
    }
    if (sum == 0) return {};
    pacer.pause(kPollPause);
  }
  return {};
}

}  // namespace lockstep::handshake
