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

#include "api.h"

namespace lockstep::project {

class DirectoryLock;

struct Request {
  std::int32_t cycle = 0;
  std::int32_t time_step = 0;  // -1 in the cycle-end request
  std::int32_t stage = 0;      // 5 in the cycle-end request
  bool cycle_end() const { return time_step == -1 && stage == 5; }
  bool operator==(const Request&) const = default;
};

// True when the driver sends `later` after `earlier` in one run.
LOCKSTEP_API bool comes_after(const Request& later, const Request& earlier);

// "cycle 1, time step 2, stage 3", or "the cycle-end request of cycle 2".
LOCKSTEP_API std::string describe(const Request& request);

// What a go file holds, read as the driver writes it: a complete line of
// four integers. Anything else, an empty file or a line still being written
// included, is kIncomplete or kMalformed.
struct GoRecord {
  enum class Kind { kRequest, kReset, kOther, kIncomplete, kMalformed };
  Kind kind;
  Request request;
};
LOCKSTEP_API GoRecord parse_go_record(std::string_view content);

// The most of a go file that is ever read; the driver's records are far
// shorter.
inline constexpr std::size_t kGoFileLimit = 4096;

// A go file read without blocking and without reading more than
// kGoFileLimit bytes. `past_cache` drops the file's cached pages first: a
// network file system's client may otherwise serve an earlier content that
// has the same size and time stamp.
struct GoFileRead {
  enum class Outcome {
    kRead,        // `content` holds the file
    kMissing,     // no such file
    kUnreadable,  // cannot be opened or read now (`os_error`)
    kNotRegular,  // a FIFO, device, directory or socket (`kind`)
    kTooLong,     // longer than kGoFileLimit
  };
  Outcome outcome = Outcome::kRead;
  std::string content;
  int os_error = 0;
  std::string kind;  // "a FIFO", "a directory", ...
};
LOCKSTEP_API GoFileRead read_go_file(const std::string& path, bool past_cache = false);

// "a FIFO", "a directory", "a character device", ... for a stat mode that
// is not a regular file's.
LOCKSTEP_API std::string file_kind(unsigned mode);

enum class WaitResult {
  kRequest,
  kStopped,
  kError,
  // A request that does not come after the last one handed out here (and
  // is not that one, reported done): the driver was restarted, or the tree
  // reset. `request` holds it and it is
  // handed out; serving it is the caller's decision.
  kOutOfOrder,
};

enum class DoneResult {
  kDone,
  kError,
  // The request handed out is no longer pending (the driver stopped waiting
  // for it, or the tree was reset): nothing was written.
  kOverrun,
};

// How a wait learns that the driver wrote.
enum class WaitMode {
  // inotify sees every write on a local file system: sleep until a change,
  // with a safety look every WaitSettings::safety_poll.
  kChanges,
  // Network file systems, where inotify misses other machines' writes: poll,
  // every millisecond right after a change or a done report, backing off
  // to a ceiling.
  kPolling,
};

struct WaitSettings {
  std::optional<WaitMode> mode;  // by default chosen from the file system
  std::chrono::milliseconds ceiling{20};        // kPolling: the longest pause
  std::chrono::milliseconds safety_poll{500};  // kChanges: the longest sleep
  // How long go.dat may go on showing the request reported done last, with
  // go2.dat reset, before the wait says why it may be stuck.
  std::chrono::milliseconds stale_warning{10000};
};

// The file system type of `directory` when it is one whose writes on other
// machines inotify cannot see ("nfs", "lustre", ...); empty otherwise.
LOCKSTEP_API std::string network_file_system(const std::string& directory);

class LOCKSTEP_API Endpoint {
 public:
  // How long go.dat may hold a complete line that is no go record before
  // waiting turns into an error.
  static constexpr std::chrono::seconds kMalformedGrace{2};
  // How long a go file may stay unreadable before `on_trouble` hears of it.
  static constexpr std::chrono::seconds kTroubleGrace{2};

  // Fails, with the reason in `error`, when the directory is missing or not
  // writable.
  static std::unique_ptr<Endpoint> open(const std::string& directory, std::string& error,
                                        WaitSettings settings = {});
  ~Endpoint();
  Endpoint(const Endpoint&) = delete;
  Endpoint& operator=(const Endpoint&) = delete;

  // Takes the directory's lock, so that no other endpoint serves it; false
  // with the reason in error() when another holds it.
  bool lock();

  // Called with a message when a go file has been unreadable for
  // kTroubleGrace (permission, no descriptors left), and with an empty
  // message once it can be read again; and with a message when go.dat has
  // shown the request reported done last for WaitSettings::stale_warning.
  // The wait goes on meanwhile. By default the messages go to stderr.
  void on_trouble(std::function<void(const std::string&)> report) { report_trouble_ = std::move(report); }

  // Blocks until a request is pending: go2.dat holds the reset record and
  // go.dat a request, looking as mode() says. go.dat still showing the
  // request reported done last is not yet the new one: the view of a
  // caching file system lags behind the driver's writes. `stop` is asked between looks
  // (and after a signal interrupts a sleep); kStopped once it says so or the
  // deadline has passed.
  WaitResult wait(Request& request, const std::function<bool()>& stop = {},
                  std::optional<std::chrono::steady_clock::time_point> deadline = {});

  // One look, without waiting: kRequest with the pending request, kStopped
  // when there is none yet, kError or kOutOfOrder as for wait. For callers
  // with an event loop of their own.
  WaitResult poll(Request& request);

  // Reports the request handed out done, if it is still the one pending:
  // the done record goes to a temporary file in the directory, which is
  // renamed over go2.dat.
  DoneResult report_done();

  const std::string& directory() const { return directory_; }
  WaitMode mode() const { return watch_fd_ >= 0 ? WaitMode::kChanges : WaitMode::kPolling; }
  // "inotify", or "polling (nfs), at most every 20 ms".
  std::string describe_mode() const;
  // The last request handed out, and the one handed out before it.
  const std::optional<Request>& handed_out() const { return handed_out_; }
  const std::optional<Request>& handed_out_before() const { return handed_out_before_; }
  // Set when the run resumes after this cycle of its own (lockstepctl
  // resume): every request is then handed out in the run's cycle numbers,
  // the driver's plus this, and the solver must start from its state after
  // that cycle.
  const std::optional<std::int32_t>& resumes_after() const { return resumes_after_; }
  // What comes before the first request: cycle 0, or the cycle-end request
  // of the cycle the run resumes after.
  Request start() const;
  // In the cycle-end request handed out, before it is reported done, once
  // the solver has saved its own state: records that this project can
  // restart after this cycle, with its fields as they stand now. False with
  // the reason in error().
  bool checkpoint();
  // For a solver that cannot load its state after resumes_after(): sets
  // error() to what is wrong (`reason`) and what to do, and returns it.
  const std::string& cannot_resume(const std::string& reason);

  // The reason for the last kError, kOutOfOrder, kOverrun or failed lock.
  const std::string& error() const { return error_; }

 private:
  Endpoint(std::string directory, int watch_fd, std::string file_system, const WaitSettings& settings);
  Request from_driver(Request request) const;
  bool pending(Request& request);
  bool readable(const GoFileRead& read, const std::string& name);
  void notice_stale(const Request& request);
  void tell(const std::string& message) const;
  void sleep_until_change(std::optional<std::chrono::steady_clock::time_point> deadline);

  std::string directory_;
  int watch_fd_;  // inotify descriptor in kChanges mode, else -1
  std::string file_system_;  // the network file system's type, if any
  std::chrono::milliseconds ceiling_;
  std::chrono::milliseconds safety_poll_;
  std::chrono::milliseconds stale_warning_;
  std::chrono::milliseconds interval_{1};  // the next pause when polling
  std::string last_seen_;                  // the go files at the last look
  std::string error_;
  std::optional<std::chrono::steady_clock::time_point> malformed_since_;
  std::optional<Request> handed_out_;
  std::optional<Request> handed_out_before_;
  std::optional<Request> reported_done_;  // the last request this endpoint reported done
  std::unique_ptr<DirectoryLock> lock_;
  std::function<void(const std::string&)> report_trouble_;
  std::optional<std::chrono::steady_clock::time_point> trouble_since_;
  std::string trouble_reported_;
  std::optional<std::chrono::steady_clock::time_point> stale_since_;
  bool stale_reported_ = false;
  std::optional<std::int32_t> resumes_after_;
  std::int32_t run_cycles_ = 0;  // the run's own cycle count, when resumed
};

}  // namespace lockstep::project
