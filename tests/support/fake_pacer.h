// A pacer whose clock moves only when it pauses.
#pragma once

#include <functional>

#include "handshake/pacer.h"

namespace lockstep::testing {

class FakePacer final : public handshake::Pacer {
 public:
  Clock::time_point now() override { return now_; }
  void pause(std::chrono::milliseconds duration) override {
    ++pauses;
    now_ += duration;
    if (on_pause) on_pause();
  }

  long pauses = 0;
  std::function<void()> on_pause;

 private:
  Clock::time_point now_{};
};

}  // namespace lockstep::testing
