#include "handshake/pacer.h"

#include <cstdint>

#include "records/shell.h"

namespace lockstep::handshake {

void SystemPacer::pause(std::chrono::milliseconds duration) {
  const auto milliseconds = static_cast<std::int32_t>(duration.count());
  records::sleepqq(&milliseconds);
}

}  // namespace lockstep::handshake
