#include "project/endpoint.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <thread>
#include <utility>
#include <vector>

#include "records/file_system.h"
#include "records/status.h"

namespace lockstep::project {
namespace {

constexpr std::chrono::milliseconds kPollInterval{1};
constexpr std::int32_t kRequestCode = 1;
constexpr std::int32_t kResetCode = -1000;

// The whole of a small file; empty when it is missing or unreadable, which
// the caller treats like a file being rewritten.
std::string read_small_file(records::FileSystem& fs, const std::string& path) {
  const int fd = fs.open(path, records::OpenMode::kReadOnly);
  if (fd < 0) return {};
  records::Descriptor descriptor(fs, fd);
  std::string content;
  std::array<char, 256> chunk{};
  for (;;) {
    const ssize_t got = fs.read(fd, chunk.data(), chunk.size());
    if (got <= 0) return content;
    content.append(chunk.data(), static_cast<std::size_t>(got));
  }
}

bool write_small_file(const std::string& path, std::string_view content, int& os_error) {
  records::PosixFileSystem fs;
  const int fd = fs.open(path, records::OpenMode::kReplace);
  if (fd < 0) {
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

}  // namespace

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

std::unique_ptr<Endpoint> Endpoint::open(const std::string& directory, std::string& error, Wakeup wakeup) {
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
  // Without inotify the wait still polls; only the prompt wake-up is lost.
  int watch_fd = wakeup == Wakeup::kChangesAndPolling ? inotify_init1(IN_NONBLOCK | IN_CLOEXEC) : -1;
  if (watch_fd >= 0 &&
      inotify_add_watch(watch_fd, directory.c_str(), IN_CLOSE_WRITE | IN_MODIFY | IN_MOVED_TO | IN_CREATE) < 0) {
    ::close(watch_fd);
    watch_fd = -1;
  }
  return std::unique_ptr<Endpoint>(new Endpoint(directory, watch_fd));
}

Endpoint::Endpoint(std::string directory, int watch_fd) : directory_(std::move(directory)), watch_fd_(watch_fd) {}

Endpoint::~Endpoint() {
  if (watch_fd_ >= 0) ::close(watch_fd_);
}

bool Endpoint::pending(Request& request) {
  records::PosixFileSystem fs;
  // go2.dat first: the driver resets go.dat before go2.dat, so once go2.dat
  // holds the reset, go.dat holds the reset or the new request, never the
  // request already served.
  if (parse_go_record(read_small_file(fs, directory_ + "/go2.dat")).kind != GoRecord::Kind::kReset) {
    malformed_since_.reset();
    return false;
  }
  const std::string content = read_small_file(fs, directory_ + "/go.dat");
  const GoRecord record = parse_go_record(content);
  if (record.kind == GoRecord::Kind::kRequest) {
    malformed_since_.reset();
    request = record.request;
    return true;
  }
  if (record.kind == GoRecord::Kind::kMalformed || record.kind == GoRecord::Kind::kOther) {
    const auto now = std::chrono::steady_clock::now();
    if (!malformed_since_) malformed_since_ = now;
    if (now - *malformed_since_ >= kMalformedGrace) {
      error_ = directory_ + "/go.dat holds no request: \"" + content.substr(0, content.size() - 1) + "\"";
    }
  } else {
    malformed_since_.reset();
  }
  return false;
}

void Endpoint::sleep_until_change() {
  if (watch_fd_ < 0) {
    std::this_thread::sleep_for(kPollInterval);
    return;
  }
  pollfd watch{watch_fd_, POLLIN, 0};
  if (::poll(&watch, 1, static_cast<int>(kPollInterval.count())) > 0) {
    // The events only wake the wait; the files themselves are read again.
    std::array<char, 4096> events{};
    while (::read(watch_fd_, events.data(), events.size()) > 0) {
    }
  }
}

WaitResult Endpoint::poll(Request& request) {
  if (pending(request)) return WaitResult::kRequest;
  return error_.empty() ? WaitResult::kStopped : WaitResult::kError;
}

WaitResult Endpoint::wait(Request& request, const std::function<bool()>& stop) {
  error_.clear();
  malformed_since_.reset();
  for (;;) {
    if (const WaitResult result = poll(request); result != WaitResult::kStopped) return result;
    if (stop && stop()) return WaitResult::kStopped;
    sleep_until_change();
  }
}

bool Endpoint::report_done() {
  const std::string temporary = directory_ + "/.go2.dat." + std::to_string(::getpid()) + ".tmp";
  int os_error = 0;
  if (!write_small_file(temporary, "0\n", os_error)) {
    error_ = "cannot write " + temporary + ": " + records::os_error_text(os_error);
    ::unlink(temporary.c_str());
    return false;
  }
  if (::rename(temporary.c_str(), (directory_ + "/go2.dat").c_str()) != 0) {
    error_ = "cannot rename " + temporary + " to go2.dat: " + records::os_error_text(errno);
    ::unlink(temporary.c_str());
    return false;
  }
  return true;
}

}  // namespace lockstep::project
