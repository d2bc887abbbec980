#include "ctl/drivers.h"

#include <unistd.h>

#include <fstream>
#include <string>

namespace lockstep::ctl {
namespace {

bool is_lockstep(const std::string& word) { return std::filesystem::path(word).filename() == "lockstep"; }

// By its program's name, by argv[0], or as the program that valgrind runs.
bool named_lockstep(const std::filesystem::path& process) {
  std::ifstream comm(process / "comm");
  std::string name;
  if (std::getline(comm, name) && name == "lockstep") return true;
  std::ifstream cmdline(process / "cmdline", std::ios::binary);
  std::string word;
  if (!std::getline(cmdline, word, '\0')) return false;
  if (is_lockstep(word)) return true;
  if (name.rfind("memcheck", 0) != 0 && name != "valgrind") return false;
  while (std::getline(cmdline, word, '\0')) {
    if (!word.empty() && word.front() != '-') return is_lockstep(word);
  }
  return false;
}

}  // namespace

std::vector<pid_t> running_drivers(const std::filesystem::path& run_directory) {
  std::vector<pid_t> drivers;
  std::error_code error;
  const std::filesystem::path wanted = std::filesystem::canonical(run_directory, error);
  if (error) return drivers;
  for (const auto& entry : std::filesystem::directory_iterator("/proc", error)) {
    const std::string name = entry.path().filename().string();
    if (name.empty() || name.find_first_not_of("0123456789") != std::string::npos) continue;
    const pid_t pid = static_cast<pid_t>(std::stol(name));
    if (pid == ::getpid()) continue;
    std::error_code unreadable;
    const std::filesystem::path cwd = std::filesystem::read_symlink(entry.path() / "cwd", unreadable);
    if (unreadable || cwd != wanted || !named_lockstep(entry.path())) continue;
    drivers.push_back(pid);
  }
  return drivers;
}

}  // namespace lockstep::ctl
