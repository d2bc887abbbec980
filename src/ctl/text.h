// Bytes from run trees made safe for a terminal and for JSON.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace lockstep::ctl::text {

// The length of the well-formed UTF-8 sequence starting at `at`, or 0 when
// the byte there starts none.
std::size_t utf8_length(std::string_view text, std::size_t at);

// `text` with every control character (C0, DEL, C1) and every byte that is
// not part of well-formed UTF-8 written as \xNN, so that a file's content
// cannot drive the terminal.
std::string printable(std::string_view text);

}  // namespace lockstep::ctl::text
