// Numbers and fixed-length texts as the records lay them out.
#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>

namespace lockstep::records {

// `value` right-aligned in exactly `width` columns, with a minus sign when
// negative; `width` asterisks when it does not fit.
std::string format_integer(std::int64_t value, std::size_t width);

// Like format_integer, but a value that does not fit is written in full
// rather than as asterisks.
std::string format_integer_or_full(std::int64_t value, std::size_t width);

// The pieces laid end to end at their full lengths, then blank-filled or cut
// to `length`.
std::string concatenate(std::initializer_list<std::string_view> pieces, std::size_t length);

}  // namespace lockstep::records
