// Conversion of one list-directed integer value.
#pragma once

#include <cstdint>
#include <string_view>

namespace lockstep::records {

struct ListValue {
  enum class Kind { kInteger, kNull, kSyntaxError, kConversionError };
  Kind kind;
  std::int32_t value = 0;
};

// `text` starts at the first character that is not a blank, tab or line end.
// A comma or slash there is a null value; otherwise the value runs to the
// next blank, tab, comma, slash or the end of the text and may take the
// repeated form r*c (r* alone is a null value).
ListValue parse_list_value(std::string_view text);

}  // namespace lockstep::records
