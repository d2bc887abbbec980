#include "records/field.h"

namespace lockstep::records {

std::string format_integer(std::int64_t value, std::size_t width) {
  std::string digits = std::to_string(value);
  if (digits.size() > width) return std::string(width, '*');
  return std::string(width - digits.size(), ' ') + digits;
}

std::string format_integer_or_full(std::int64_t value, std::size_t width) {
  std::string digits = std::to_string(value);
  if (digits.size() >= width) return digits;
  return std::string(width - digits.size(), ' ') + digits;
}

std::string concatenate(std::initializer_list<std::string_view> pieces, std::size_t length) {
  std::string text;
  text.reserve(length);
  for (const std::string_view piece : pieces) text.append(piece);
  text.resize(length, ' ');
  return text;
}

}  // namespace lockstep::records
