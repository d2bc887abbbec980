// The project side of the go files: wait for the driver's next request in a
// project directory and report it done.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace lockstep::project {

struct Request {
  std::int32_t cycle = 0;
  std::int32_t time_step = 0;  // -1 in the cycle-end request
  std::int32_t stage = 0;      // 5 in the cycle-end request
  bool cycle_end() const { return time_step == -1 && stage == 5; }
};

// "cycle 1, time step 2, stage 3", or "the cycle-end request of cycle 2".
std::string describe(const Request& request);

// What a go file holds, read as the driver writes it: a complete line of
// four integers. Anything else, an empty file or a line still being written
// included, is kIncomplete or kMalformed.
struct GoRecord {
  enum class Kind { kRequest, kReset, kOther, kIncomplete, kMalformed };
  Kind kind;
  Request request;
};
GoRecord parse_go_record(std::string_view content);

enum class WaitResult { kRequest, kStopped, kError };

enum class Wakeup {
  kChangesAndPolling,  // inotify on the directory, and a poll every millisecond
  kPollingOnly,        // a poll every millisecond
};

class Endpoint {
 public:
  // How long go.dat may hold a complete line that is no go record before
  // waiting turns into an error.
  static constexpr std::chrono::seconds kMalformedGrace{2};

  // Fails, with the reason in `error`, when the directory is missing or not
  // writable.
  static std::unique_ptr<Endpoint> open(const std::string& directory, std::string& error,
                                        Wakeup wakeup = Wakeup::kChangesAndPolling);
  ~Endpoint();
  Endpoint(const Endpoint&) = delete;
  Endpoint& operator=(const Endpoint&) = delete;

  // Blocks until a request is pending: go2.dat holds the reset record and
  // go.dat a request. Wakes at once when the directory changes and polls
  // every millisecond besides, for file systems that report no changes.
  // `stop` is asked between polls.
  WaitResult wait(Request& request, const std::function<bool()>& stop = {});

  // One look, without waiting: kRequest with the pending request, kStopped
  // when there is none yet, kError as for wait. For callers with an event
  // loop of their own.
  WaitResult poll(Request& request);

  // Reports the pending request done: the done record goes to a temporary
  // file in the directory, which is renamed over go2.dat.
  bool report_done();

  const std::string& directory() const { return directory_; }
  // The reason for the last kError or failed report_done.
  const std::string& error() const { return error_; }

 private:
  Endpoint(std::string directory, int watch_fd);
  bool pending(Request& request);
  void sleep_until_change();

  std::string directory_;
  int watch_fd_;  // inotify descriptor, or -1 where none could be had
  std::string error_;
  std::optional<std::chrono::steady_clock::time_point> malformed_since_;
};

}  // namespace lockstep::project
