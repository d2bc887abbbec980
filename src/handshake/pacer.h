// Time as the handshake sees it: a clock and a pause, replaceable in tests.
#pragma once

#include <chrono>

namespace lockstep::handshake {

class Pacer {
 public:
  using Clock = std::chrono::steady_clock;
  virtual ~Pacer() = default;
  virtual Clock::time_point now() = 0;
  virtual void pause(std::chrono::milliseconds duration) = 0;
};

// The steady clock and sleepqq.
class SystemPacer final : public Pacer {
 public:
  Clock::time_point now() override { return Clock::now(); }
  void pause(std::chrono::milliseconds duration) override;
};

}  // namespace lockstep::handshake
