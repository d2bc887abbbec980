#include "process.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "handshake/go_files.h"

namespace lockstep::testing {
namespace {

// The programs under test (lockstep, lockstepctl) run behind the words of
// LOCKSTEP_TEST_WRAPPER when it is set, for instance under valgrind, also
// when another program (setpriv) starts them.
std::vector<std::string> wrapped(std::vector<std::string> argv) {
  const char* wrapper = std::getenv("LOCKSTEP_TEST_WRAPPER");
  auto program = std::find_if(argv.begin(), argv.end(), [](const std::string& word) {
    const std::string name = std::filesystem::path(word).filename().string();
    return name == "lockstep" || name == "lockstepctl";
  });
  if (wrapper == nullptr || program == argv.end()) return argv;
  std::istringstream split(wrapper);
  for (std::string word; split >> word;) program = argv.insert(program, word) + 1;
  return argv;
}

std::uintmax_t file_size_or_zero(const std::filesystem::path& path) {
  std::error_code missing;
  const std::uintmax_t size = std::filesystem::file_size(path, missing);
  return missing ? 0 : size;
}

// Standard input is /dev/null; an empty `out` or `err` keeps the test's own.
pid_t spawn(const std::vector<std::string>& command, const std::filesystem::path& directory, const std::string& out,
            const std::string& err) {
  const std::vector<std::string> argv = wrapped(command);
  const pid_t pid = fork();
  if (pid < 0) throw std::runtime_error("fork failed");
  if (pid > 0) return pid;
  if (chdir(directory.c_str()) != 0) _exit(126);
  for (const auto& [name, target] : {std::pair{std::string("/dev/null"), 0}, std::pair{out, 1}, std::pair{err, 2}}) {
    if (name.empty()) continue;
    const int fd = target == 0 ? open(name.c_str(), O_RDONLY) : open(name.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd < 0) _exit(126);
    dup2(fd, target);
    close(fd);
  }
  std::vector<char*> args;
  for (const std::string& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
  args.push_back(nullptr);
  execvp(args[0], args.data());
  _exit(127);
}

}  // namespace

TempDir::TempDir() {
  std::string pattern = (std::filesystem::temp_directory_path() / "lockstep-test-XXXXXX").string();
  if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
  path_ = pattern;
  // Readable by everybody, so tests may run the driver as another user.
  std::filesystem::permissions(path_, std::filesystem::perms::all & ~std::filesystem::perms::others_write &
                                          ~std::filesystem::perms::group_write);
}

TempDir::~TempDir() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

std::string read_file(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream content;
  content << in.rdbuf();
  return content.str();
}

void write_file(const std::filesystem::path& path, const std::string& content) {
  std::filesystem::create_directories(path.parent_path());
  std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
}

void make_executable(const std::filesystem::path& path) {
  std::filesystem::permissions(path, std::filesystem::perms::owner_exec | std::filesystem::perms::group_exec |
                                         std::filesystem::perms::others_exec,
                               std::filesystem::perm_options::add);
}

ino_t inode(const std::filesystem::path& path) {
  struct stat info {};
  return ::stat(path.c_str(), &info) == 0 ? info.st_ino : 0;
}

void plant(const std::filesystem::path& path, const std::string& content) {
  using std::filesystem::perms;
  if (content == "<read-only>") {
    const perms read_and_search = perms::owner_read | perms::owner_exec | perms::group_read | perms::group_exec |
                                  perms::others_read | perms::others_exec;
    return std::filesystem::permissions(path, std::filesystem::is_directory(path) ? read_and_search : perms::owner_read);
  }
  std::filesystem::remove_all(path);
  if (content == "<fifo>") {
    if (mkfifo(path.c_str(), 0666) != 0) throw std::runtime_error("mkfifo failed");
  } else if (content == "<directory>") {
    std::filesystem::create_directory(path);
  } else if (content.rfind("-> ", 0) == 0) {
    std::filesystem::create_symlink(content.substr(3), path);
  } else if (content != "<missing>") {
    write_file(path, content);
  }
}

void hand_out(const std::filesystem::path& project, const std::string& request) {
  write_file(project / "go.dat", handshake::reset_record());
  write_file(project / "go2.dat", handshake::reset_record());
  write_file(project / "go.dat", request);
}

bool wait_until(const std::function<bool()>& condition, const std::function<std::string()>& progress,
                std::chrono::seconds stall) {
  std::string last = progress ? progress() : "";
  auto last_change = std::chrono::steady_clock::now();
  while (!condition()) {
    const auto now = std::chrono::steady_clock::now();
    if (std::string seen = progress ? progress() : ""; seen != last) {
      last = std::move(seen);
      last_change = now;
    }
    if (now - last_change > stall) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

Exit run_program(const std::vector<std::string>& argv, const std::filesystem::path& directory,
                 std::chrono::seconds stall, const std::vector<std::filesystem::path>& growing) {
  TempDir capture;
  const std::string out = (capture.path() / "out").string();
  const std::string err = (capture.path() / "err").string();
  const pid_t pid = spawn(argv, directory, out, err);
  int raw_status = 0;
  rusage usage{};
  if (!wait_until([&] { return wait4(pid, &raw_status, WNOHANG, &usage) == pid; },
                  [&] {  // all only grow
                    std::uintmax_t size = 0;
                    for (const std::filesystem::path& file : growing) size += file_size_or_zero(file);
                    return std::to_string(file_size_or_zero(out) + file_size_or_zero(err) + size);
                  },
                  stall)) {
    kill(pid, SIGKILL);
    wait4(pid, &raw_status, 0, &usage);
  }
  Exit result;
  result.max_rss_kib = usage.ru_maxrss;
  result.cpu_seconds = static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
                       static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
  if (WIFEXITED(raw_status)) result.status = WEXITSTATUS(raw_status);
  result.out = read_file(out);
  result.err = read_file(err);
  return result;
}

Background::Background(const std::vector<std::string>& argv, const std::filesystem::path& directory,
                       const std::filesystem::path& err)
    : pid_(spawn(argv, directory, "/dev/null", err.string())) {}

Background::~Background() {
  if (pid_ > 0) {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
}

std::optional<int> Background::wait(std::chrono::seconds timeout) {
  int raw_status = 0;
  if (!wait_until([&] { return waitpid(pid_, &raw_status, WNOHANG) == pid_; }, {}, timeout)) return std::nullopt;
  pid_ = -1;
  return WIFEXITED(raw_status) ? WEXITSTATUS(raw_status) : -1;
}

}  // namespace lockstep::testing
