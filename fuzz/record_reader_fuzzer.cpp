// Records of any bytes, read in any chunking by a mix of fixed-width text
// and list-directed integer reads: no crash, and every text read yields
// exactly its width.
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string>

#include "memory_file_system.h"
#include "records/input.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 2) return 0;
  const std::size_t chunk = data[0] % 17;
  const unsigned pattern = data[1];
  lockstep::testing::MemoryFileSystem fs;
  fs.logging = false;
  fs.read_chunk = chunk;
  fs.set_file("analysis_settings.dat", std::string(reinterpret_cast<const char*>(data) + 2, size - 2));
  lockstep::records::InputFile file(fs);
  if (!file.open(23, "analysis_settings.dat", lockstep::records::Access::kUnspecified).ok()) std::abort();
  for (unsigned step = 0; step < 1000; ++step) {
    lockstep::records::Status status;
    if ((pattern >> (step % 8)) & 1u) {
      std::optional<std::int32_t> value;
      status = file.read_integer(value);
    } else {
      const std::size_t width = 1 + (step * 7 + pattern) % 40;
      std::string text;
      status = file.read_text(width, text);
      if (status.ok() && text.size() != width) std::abort();
    }
    if (status.end_of_file()) break;
  }
  return 0;
}
