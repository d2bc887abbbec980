#include "project/endpoint.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "project/directory_lock.h"
#include "records/file_system.h"
#include "records/status.h"
#include "resume/checkpoint.h"
#include "resume/record.h"

namespace lockstep::project {
namespace {

constexpr std::int32_t kRequestCode = 1;
constexpr std::int32_t kResetCode = -1000;

// Writes `content` to a new temporary file beside `path`, named in
// `temporary` once created (to be removed when this fails), else empty.
bool write_small_temporary(const std::string& path, std::string_view content, std::string& temporary,
                           int& os_error) {
  records::PosixFileSystem fs;
  const int fd = records::create_temporary(fs, path, temporary);
  if (fd < 0) {
    temporary.clear();
    os_error = -fd;
    return false;
  }
  records::Descriptor descriptor(fs, fd);
  const ssize_t written = fs.write(fd, content.data(), content.size());
  if (written != static_cast<ssize_t>(content.size())) {
    os_error = written < 0 ? static_cast<int>(-written) : EIO;
    return false;
  }
  const int closed = descriptor.close();
  os_error = -closed;
  return closed == 0;
}

// The order of the driver's requests within a run: cycle, then time step
// (the cycle-end request last), then stage.
std::tuple<std::int64_t, std::int64_t, std::int64_t> position(const Request& request) {
  const std::int64_t time_step = request.cycle_end() ? std::int64_t{1} << 32 : request.time_step;
  return {request.cycle, time_step, request.stage};
}

}  // namespace

bool comes_after(const Request& later, const Request& earlier) { return position(later) > position(earlier); }

std::string file_kind(unsigned mode) {
  switch (mode & S_IFMT) {
    case S_IFIFO: return "a FIFO";
    case S_IFDIR: return "a directory";
    case S_IFCHR: return "a character device";
    case S_IFBLK: return "a block device";
    case S_IFSOCK: return "a socket";
    default: return "not a regular file";
  }
}

GoFileRead read_go_file(const std::string& path, bool past_cache) {
  GoFileRead result;
  // O_NONBLOCK: opening a FIFO must not wait for a writer.
  const int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) {
    result.os_error = errno;
    result.outcome = errno == ENOENT ? GoFileRead::Outcome::kMissing : GoFileRead::Outcome::kUnreadable;
    return result;
  }
  records::PosixFileSystem fs;
  records::Descriptor descriptor(fs, fd);
  struct stat info {};
  if (::fstat(fd, &info) != 0) {
    result.os_error = errno;
    result.outcome = GoFileRead::Outcome::kUnreadable;
    return result;
  }
  if (!S_ISREG(info.st_mode)) {
    result.kind = file_kind(info.st_mode);
    result.outcome = GoFileRead::Outcome::kNotRegular;
    return result;
  }
  // A hint: where it fails nothing better can be done than to read.
  if (past_cache) ::posix_fadvise(fd, 0, 0, POSIX_FADV_DONTNEED);
  std::array<char, kGoFileLimit + 1> buffer{};
  std::size_t have = 0;
  while (have < buffer.size()) {
    const ssize_t got = fs.read(fd, buffer.data() + have, buffer.size() - have);
    if (got < 0) {
      result.os_error = static_cast<int>(-got);
      result.outcome = GoFileRead::Outcome::kUnreadable;
      return result;
    }
    if (got == 0) break;
    have += static_cast<std::size_t>(got);
  }
  if (have > kGoFileLimit) {
    result.outcome = GoFileRead::Outcome::kTooLong;
    return result;
  }
  result.content.assign(buffer.data(), have);
  return result;
}

std::string describe(const Request& request) {
  if (request.cycle_end()) return "the cycle-end request of cycle " + std::to_string(request.cycle);
  return "cycle " + std::to_string(request.cycle) + ", time step " + std::to_string(request.time_step) +
         ", stage " + std::to_string(request.stage);
}

GoRecord parse_go_record(std::string_view content) {
  if (content.empty() || content.back() != '\n') return {GoRecord::Kind::kIncomplete, {}};
  content.remove_suffix(1);
  if (!content.empty() && content.back() == '\r') content.remove_suffix(1);

  std::vector<std::int32_t> fields;
  std::size_t at = 0;
  while (at < content.size()) {
    if (content[at] == ' ' || content[at] == '\t') {
      ++at;
      continue;
    }
    std::int32_t value = 0;
    const char* begin = content.data() + at;
    const auto [end, error] = std::from_chars(begin, content.data() + content.size(), value);
    if (error != std::errc() || (end != content.data() + content.size() && *end != ' ' && *end != '\t')) {
      return {GoRecord::Kind::kMalformed, {}};
    }
    fields.push_back(value);
    at = static_cast<std::size_t>(end - content.data());
  }
  if (fields.size() != 4) return {GoRecord::Kind::kMalformed, {}};
  if (fields[0] == kRequestCode) return {GoRecord::Kind::kRequest, {fields[1], fields[2], fields[3]}};
  if (fields[0] == kResetCode) return {GoRecord::Kind::kReset, {}};
  return {GoRecord::Kind::kOther, {}};
}

std::string network_file_system(const std::string& directory) {
  struct statfs info {};
  if (::statfs(directory.c_str(), &info) != 0) return {};
  return records::network_file_system_kind(static_cast<unsigned long>(info.f_type));
}

std::unique_ptr<Endpoint> Endpoint::open(const std::string& directory, std::string& error, WaitSettings settings) {
  struct stat info {};
  if (::stat(directory.c_str(), &info) != 0) {
    error = "project directory " + directory + ": " + records::os_error_text(errno);
    return nullptr;
  }
  if (!S_ISDIR(info.st_mode)) {
    error = "project directory " + directory + ": not a directory";
    return nullptr;
  }
  if (::access(directory.c_str(), W_OK | X_OK) != 0) {
    error = "project directory " + directory + " is not writable: " + records::os_error_text(errno);
    return nullptr;
  }
  resume::Record resumed;
  const resume::ReadOutcome record = resume::read_record(directory, resumed, error);
  if (record == resume::ReadOutcome::kError) return nullptr;
  const std::string file_system = network_file_system(directory);
  const WaitMode mode = settings.mode.value_or(file_system.empty() ? WaitMode::kChanges : WaitMode::kPolling);
  // Without inotify (none to be had) the wait polls.
  int watch_fd = mode == WaitMode::kChanges ? inotify_init1(IN_NONBLOCK | IN_CLOEXEC) : -1;
  if (watch_fd >= 0 &&
      inotify_add_watch(watch_fd, directory.c_str(), IN_CLOSE_WRITE | IN_MODIFY | IN_MOVED_TO | IN_CREATE) < 0) {
    ::close(watch_fd);
    watch_fd = -1;
  }
  std::unique_ptr<Endpoint> endpoint(new Endpoint(directory, watch_fd, file_system, settings));
  if (record == resume::ReadOutcome::kRead) {
    endpoint->resumes_after_ = resumed.after_cycle;
    endpoint->run_cycles_ = resumed.cycle_num;
  }
  return endpoint;
}

Request Endpoint::from_driver(Request request) const {
  request.cycle += resumes_after_.value_or(0);
  return request;
}

const std::string& Endpoint::cannot_resume(const std::string& reason) {
  const std::string after = std::to_string(resumes_after_.value_or(0));
  error_ = directory_ + " cannot resume after cycle " + after + ": " + reason +
           "; the run needs every solver's state after that cycle: stop lockstep, then resume after a cycle whose "
           "state every solver kept (lockstepctl resume --after-cycle C RUN_DIR)";
  return error_;
}

Request Endpoint::start() const {
  if (resumes_after_) return Request{*resumes_after_, -1, 5};
  return Request{0, 0, 0};
}

bool Endpoint::checkpoint() {
  if (!handed_out_ || !handed_out_->cycle_end() || reported_done_ == handed_out_) {
    error_ = "a checkpoint is recorded in a cycle-end request, before it is reported done; " +
             (handed_out_ ? describe(*handed_out_) + (reported_done_ == handed_out_ ? ", reported done," : "")
                          : std::string("no request")) +
             " is what " + directory_ + " serves now";
    return false;
  }
  return resume::record_checkpoint(directory_, handed_out_->cycle, error_);
}

Endpoint::Endpoint(std::string directory, int watch_fd, std::string file_system, const WaitSettings& settings)
    : directory_(std::move(directory)),
      watch_fd_(watch_fd),
      file_system_(std::move(file_system)),
      ceiling_(std::max(settings.ceiling, std::chrono::milliseconds{1})),
      safety_poll_(std::max(settings.safety_poll, std::chrono::milliseconds{1})),
      stale_warning_(settings.stale_warning) {}

Endpoint::~Endpoint() {
  if (watch_fd_ >= 0) ::close(watch_fd_);
}

std::string Endpoint::describe_mode() const {
  if (mode() == WaitMode::kChanges) return "inotify";
  return "polling (" + (file_system_.empty() ? std::string("local") : file_system_) + "), at most every " +
         std::to_string(ceiling_.count()) + " ms";
}

bool Endpoint::lock() {
  lock_ = DirectoryLock::acquire(directory_, error_);
  return lock_ != nullptr;
}

// A go file that cannot be read now holds the wait up; past kTroubleGrace
// the owner hears of it, once per reason.
bool Endpoint::readable(const GoFileRead& read, const std::string& name) {
  if (read.outcome != GoFileRead::Outcome::kUnreadable) return true;
  const auto now = std::chrono::steady_clock::now();
  if (!trouble_since_) trouble_since_ = now;
  const std::string message = "cannot read " + directory_ + "/" + name + ": " + records::os_error_text(read.os_error);
  if (now - *trouble_since_ >= kTroubleGrace && message != trouble_reported_) {
    tell(message + "; still trying");
    trouble_reported_ = message;
  }
  return false;
}

void Endpoint::tell(const std::string& message) const {
  if (report_trouble_) {
    report_trouble_(message);
  } else if (!message.empty()) {
    std::fprintf(stderr, "lockstep: %s\n", message.c_str());
  }
}

void Endpoint::notice_stale(const Request& request) {
  const auto now = std::chrono::steady_clock::now();
  if (!stale_since_) stale_since_ = now;
  if (stale_reported_ || now - *stale_since_ < stale_warning_) return;
  stale_reported_ = true;
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(now - *stale_since_).count();
  tell(directory_ + "/go.dat has shown " + describe(request) + ", reported done here, for " +
       std::to_string(seconds) + " s while go2.dat shows the driver's reset. Either this machine sees a cached "
       "copy of go.dat (sshfs with auto_cache or kernel_cache, NFS with nocto or a long actimeo, SMB with "
       "cache=loose): mount the run tree without those options; the wait goes on meanwhile. Or the driver was "
       "restarted at that very request: stop this process and start it again to serve it afresh");
}

bool Endpoint::pending(Request& request) {
  // go2.dat first: the driver resets go.dat before go2.dat, so once go2.dat
  // holds the reset, go.dat holds the reset or the new request, never the
  // request already served.
  const bool past_cache = !file_system_.empty();
  const GoFileRead done = read_go_file(directory_ + "/go2.dat", past_cache);
  // go.dat matters only once go2.dat holds the reset: one open per look
  // while a project waits for its next request.
  const bool reset = done.outcome == GoFileRead::Outcome::kRead &&
                     parse_go_record(done.content).kind == GoRecord::Kind::kReset;
  const GoFileRead go = reset ? read_go_file(directory_ + "/go.dat", past_cache) : GoFileRead{};
  if (!readable(done, "go2.dat") || !readable(go, "go.dat")) return false;
  // A go2.dat may be missing before the first request; the directory may not.
  if (done.outcome == GoFileRead::Outcome::kMissing) {
    struct stat info {};
    if (::stat(directory_.c_str(), &info) != 0 || !S_ISDIR(info.st_mode)) {
      error_ = "the project directory " + directory_ + " has gone (removed or renamed) while waiting for a request";
      return false;
    }
  }
  // A change means the driver is at work: look again soon.
  if (std::string seen = done.content + '\0' + go.content; seen != last_seen_) {
    last_seen_ = std::move(seen);
    interval_ = std::chrono::milliseconds{1};
  }
  trouble_since_.reset();
  if (!trouble_reported_.empty()) {
    trouble_reported_.clear();
    tell("");
  }
  for (const auto& [read, name] : {std::pair{&done, "go2.dat"}, std::pair{&go, "go.dat"}}) {
    if (read->outcome == GoFileRead::Outcome::kNotRegular) {
      error_ = directory_ + "/" + name + " is " + read->kind + ", not a regular file";
      return false;
    }
    if (read->outcome == GoFileRead::Outcome::kTooLong) {
      error_ = directory_ + "/" + name + " is longer than " + std::to_string(kGoFileLimit) +
               " bytes; a go file holds one short line";
      return false;
    }
  }
  if (!reset) {
    malformed_since_.reset();
    return false;
  }
  const GoRecord record = parse_go_record(go.content);
  if (record.kind == GoRecord::Kind::kRequest) {
    malformed_since_.reset();
    request = from_driver(record.request);
    return true;
  }
  if (record.kind == GoRecord::Kind::kMalformed || record.kind == GoRecord::Kind::kOther) {
    const auto now = std::chrono::steady_clock::now();
    if (!malformed_since_) malformed_since_ = now;
    if (now - *malformed_since_ >= kMalformedGrace) {
      error_ = directory_ + "/go.dat holds no request: \"" + go.content.substr(0, go.content.size() - 1) + "\"";
    }
  } else {
    malformed_since_.reset();
  }
  return false;
}

void Endpoint::sleep_until_change(std::optional<std::chrono::steady_clock::time_point> deadline) {
  const auto left = [&](std::chrono::milliseconds longest) {
    if (!deadline) return longest;
    const auto remaining = std::chrono::ceil<std::chrono::milliseconds>(*deadline - std::chrono::steady_clock::now());
    return std::clamp(remaining, std::chrono::milliseconds{0}, longest);
  };
  if (watch_fd_ < 0) {
    std::this_thread::sleep_for(left(interval_));
    interval_ = std::min(interval_ * 2, ceiling_);
    return;
  }
  pollfd watch{watch_fd_, POLLIN, 0};
  if (::poll(&watch, 1, static_cast<int>(left(safety_poll_).count())) > 0) {
    // The events only wake the wait; the files themselves are read again.
    std::array<char, 4096> events{};
    while (::read(watch_fd_, events.data(), events.size()) > 0) {
    }
  }
}

WaitResult Endpoint::poll(Request& request) {
  error_.clear();
  if (!pending(request)) return error_.empty() ? WaitResult::kStopped : WaitResult::kError;
  if (resumes_after_ && request.cycle > run_cycles_) {
    error_ = "the driver asks for cycle " + std::to_string(request.cycle - *resumes_after_) + ", the run's cycle " +
             std::to_string(request.cycle) + ", past its last, cycle " + std::to_string(run_cycles_) +
             ": the settings were changed after lockstepctl resume (their cycle_num must be " +
             std::to_string(run_cycles_ - *resumes_after_) + "); stop lockstep and run lockstepctl check";
    return WaitResult::kError;
  }
  // The request reported done last, still pending: the driver's next one
  // has not reached this machine's view yet.
  if (handed_out_ == request && reported_done_ == request) {
    notice_stale(request);
    return WaitResult::kStopped;
  }
  stale_since_.reset();
  stale_reported_ = false;
  const std::optional<Request> previous = std::exchange(handed_out_, request);
  handed_out_before_ = previous;
  if (previous && !comes_after(request, *previous)) {
    error_ = "the driver asks for " + describe(request) + ", which does not come after " + describe(*previous) +
             ", the last request served here: was the driver restarted?";
    return WaitResult::kOutOfOrder;
  }
  return WaitResult::kRequest;
}

WaitResult Endpoint::wait(Request& request, const std::function<bool()>& stop,
                          std::optional<std::chrono::steady_clock::time_point> deadline) {
  malformed_since_.reset();
  for (;;) {
    if (const WaitResult result = poll(request); result != WaitResult::kStopped) return result;
    if (stop && stop()) return WaitResult::kStopped;
    if (deadline && std::chrono::steady_clock::now() >= *deadline) return WaitResult::kStopped;
    sleep_until_change(deadline);
  }
}

DoneResult Endpoint::report_done() {
  if (!handed_out_) {
    error_ = "no request has been handed out in " + directory_ + " to report done";
    return DoneResult::kError;
  }
  // Still pending: go2.dat holds the reset and go.dat the same request. The
  // driver may move on between this look and the rename below; that window
  // is as short as the two reads.
  Request current;
  const bool same = pending(current) && current == *handed_out_;
  if (!same) {
    GoRecord now = parse_go_record(read_go_file(directory_ + "/go.dat", !file_system_.empty()).content);
    now.request = from_driver(now.request);
    if (now.kind == GoRecord::Kind::kRequest && now.request == *handed_out_ && reported_done_ == handed_out_) {
      error_ = describe(*handed_out_) + " in " + directory_ + " was already reported done here";
    } else if (now.kind == GoRecord::Kind::kRequest && now.request == *handed_out_) {
      error_ = describe(*handed_out_) + " in " + directory_ + " was reported done meanwhile by another process";
    } else {
      error_ = describe(*handed_out_) + " was served too late in " + directory_ +
               ": the driver no longer waits for it and " +
               (now.kind == GoRecord::Kind::kRequest ? "now asks for " + describe(now.request)
                                                     : std::string("has reset the go files")) +
               "; not reported done";
    }
    return DoneResult::kOverrun;
  }
  std::string temporary;
  int os_error = 0;
  if (!write_small_temporary(directory_ + "/go2.dat", "0\n", temporary, os_error)) {
    error_ = "cannot write " + (temporary.empty() ? directory_ + "/go2.dat" : temporary) + ": " +
             records::os_error_text(os_error);
    if (!temporary.empty()) ::unlink(temporary.c_str());
    return DoneResult::kError;
  }
  if (::rename(temporary.c_str(), (directory_ + "/go2.dat").c_str()) != 0) {
    error_ = "cannot rename " + temporary + " to go2.dat: " + records::os_error_text(errno);
    ::unlink(temporary.c_str());
    return DoneResult::kError;
  }
  reported_done_ = handed_out_;
  // The next request follows within a stage's launches.
  interval_ = std::chrono::milliseconds{1};
  return DoneResult::kDone;
}

}  // namespace lockstep::project
