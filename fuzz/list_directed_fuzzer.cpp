// One list-directed value from any bytes, checked against the plain reading
// of the value: an optional sign and decimal digits, after an optional
// repeat count.
#include <charconv>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "records/list_directed.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  const lockstep::records::ListValue parsed = lockstep::records::parse_list_value(text);
  if (parsed.kind != lockstep::records::ListValue::Kind::kInteger) return 0;

  std::string_view value = text.substr(0, text.find_first_of(" \t,/"));
  if (const auto star = value.find('*'); star != std::string_view::npos) value.remove_prefix(star + 1);
  if (!value.empty() && value.front() == '+') value.remove_prefix(1);
  std::int32_t expected = 0;
  const auto [end, error] = std::from_chars(value.data(), value.data() + value.size(), expected);
  if (error != std::errc() || end != value.data() + value.size() || expected != parsed.value) std::abort();
  return 0;
}
