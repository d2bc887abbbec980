#include "records/list_directed.h"

#include <limits>

namespace lockstep::records {
namespace {

bool ends_value(char c) { return c == ' ' || c == '\t' || c == ',' || c == '/'; }
bool is_digit(char c) { return c >= '0' && c <= '9'; }

bool all_digits(std::string_view text) {
  if (text.empty()) return false;
  for (const char c : text) {
    if (!is_digit(c)) return false;
  }
  return true;
}

ListValue convert(std::string_view text) {
  bool negative = false;
  if (!text.empty() && (text.front() == '+' || text.front() == '-')) {
    negative = text.front() == '-';
    text.remove_prefix(1);
  }
  if (!all_digits(text)) return {ListValue::Kind::kSyntaxError};
  // The magnitude of the most negative value is one more than the maximum.
  const std::int64_t limit =
      std::int64_t{std::numeric_limits<std::int32_t>::max()} + (negative ? 1 : 0);
  std::int64_t magnitude = 0;
  for (const char c : text) {
    magnitude = magnitude * 10 + (c - '0');
    if (magnitude > limit) return {ListValue::Kind::kConversionError};
  }
  return {ListValue::Kind::kInteger, static_cast<std::int32_t>(negative ? -magnitude : magnitude)};
}

}  // namespace

ListValue parse_list_value(std::string_view text) {
  if (text.empty() || text.front() == ',' || text.front() == '/') return {ListValue::Kind::kNull};
  std::size_t end = 0;
  while (end < text.size() && !ends_value(text[end])) ++end;
  std::string_view value = text.substr(0, end);

  if (const std::size_t star = value.find('*'); star != std::string_view::npos) {
    const std::string_view repeat = value.substr(0, star);
    if (!all_digits(repeat) || repeat.find_first_not_of('0') == std::string_view::npos) {
      return {ListValue::Kind::kSyntaxError};
    }
    value.remove_prefix(star + 1);
    if (value.empty()) return {ListValue::Kind::kNull};
  }
  return convert(value);
}

}  // namespace lockstep::records
