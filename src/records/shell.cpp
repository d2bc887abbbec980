#include "records/shell.h"

#include <sys/select.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace lockstep::records {
namespace {

thread_local LastError last_failure;

void record_failure(int system_error) {
  last_failure = LastError{0, system_error};
  errno = system_error;
}

std::size_t trimmed_length(const char* text, std::int32_t length) {
  if (text == nullptr || length <= 0) return 0;
  auto n = static_cast<std::size_t>(length);
  while (n > 0 && text[n - 1] == ' ') --n;
  return n;
}

// Fills `line` (room for program_size + argument_size + 4 bytes) and returns
// the command line's length.
std::size_t fill_command_line(char* line, const char* program, std::size_t program_size, const char* arguments,
                              std::size_t argument_size) {
  line[0] = '"';
  std::memmove(line + 1, program, program_size);
  line[program_size + 1] = '"';
  line[program_size + 2] = ' ';
  if (argument_size > 0) std::memmove(line + program_size + 3, arguments, argument_size);
  line[program_size + 3 + argument_size] = '\0';
  return program_size + 3 + argument_size;
}

}  // namespace

const LastError& last_error() { return last_failure; }

char* allocCstr(const char* text, std::int32_t length) {
  if (text == nullptr) {
    record_failure(EINVAL);
    return nullptr;
  }
  const std::size_t n = trimmed_length(text, length);
  // The slack keeps room for callers that append a few bytes in place.
  auto* copy = static_cast<char*>(std::malloc(n + 23));
  if (copy == nullptr) {
    record_failure(ENOMEM);
    return nullptr;
  }
  std::memmove(copy, text, n);
  copy[n] = '\0';
  return copy;
}

void deallocCstr(char* copy) { std::free(copy); }

std::string command_line(const char* program, const char* arguments, std::int32_t program_length,
                         std::int32_t argument_length) {
  char* program_copy = allocCstr(program, program_length);
  if (program_copy == nullptr) return {};
  const std::size_t program_size = std::strlen(program_copy);
  const std::size_t argument_size = trimmed_length(arguments, argument_length);
  std::string line(program_size + argument_size + 4, '\0');
  line.resize(fill_command_line(line.data(), program_copy, program_size, arguments, argument_size));
  deallocCstr(program_copy);
  return line;
}

std::int32_t runqq(const char* program, const char* arguments, std::int32_t program_length,
                   std::int32_t argument_length) {
  char* program_copy = allocCstr(program, program_length);
  if (program_copy == nullptr) {
    record_failure(ENOMEM);
    return -1;
  }
  const std::size_t program_size = std::strlen(program_copy);
  const std::size_t argument_size = trimmed_length(arguments, argument_length);
  auto* line = static_cast<char*>(std::malloc(program_size + argument_size + 4));
  if (line == nullptr) {
    deallocCstr(program_copy);
    record_failure(ENOMEM);
    return -1;
  }
  fill_command_line(line, program_copy, program_size, arguments, argument_size);
  const int status = std::system(line);
  deallocCstr(program_copy);
  deallocCstr(line);
  return static_cast<std::int16_t>(static_cast<std::uint16_t>(static_cast<unsigned>(status) & 0xFFFFu));
}

void sleepqq(const std::int32_t* milliseconds) {
  const std::int32_t ms = *milliseconds;
  if (ms < 0) return;
  timeval timeout{};
  timeout.tv_sec = ms / 1000;
  timeout.tv_usec = (ms % 1000) * 1000;
  // Only the time-out matters: an interrupting signal ends the pause early.
  static_cast<void>(::select(5, nullptr, nullptr, nullptr, &timeout));
}

}  // namespace lockstep::records
