// Running a command line through the shell, and the millisecond pause.
#pragma once

#include <cstdint>
#include <string>

namespace lockstep::records {

// The last failure of runqq or allocCstr on this thread.
struct LastError {
  int io_error = 0;
  int system_error = 0;
};
const LastError& last_error();

// A heap copy of a blank-padded text without its trailing blanks, with a
// terminating zero byte, or null (errno set) on failure.
char* allocCstr(const char* text, std::int32_t length);
void deallocCstr(char* copy);

// The command line runqq hands the shell: the program text in double quotes,
// a blank, then the argument text, each cut of its trailing blanks.
std::string command_line(const char* program, const char* arguments, std::int32_t program_length,
                         std::int32_t argument_length);

// Runs the command line through the shell and waits for it. Returns the
// wait status cut to 16 bits and sign-extended, or -1 (errno set) when no
// memory could be had.
std::int32_t runqq(const char* program, const char* arguments, std::int32_t program_length,
                   std::int32_t argument_length);

// Pauses for *milliseconds; a negative count returns at once. A signal ends
// the pause early.
void sleepqq(const std::int32_t* milliseconds);

}  // namespace lockstep::records
