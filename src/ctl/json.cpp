#include "ctl/json.h"

#include <cstdio>

namespace lockstep::ctl::json {

std::string quoted(std::string_view text) {
  std::string out = "\"";
  for (const char c : text) {
    switch (c) {
      case '"': out += "\\\""; break;
      case '\\': out += "\\\\"; break;
      case '\n': out += "\\n"; break;
      case '\r': out += "\\r"; break;
      case '\t': out += "\\t"; break;
      default:
        if (static_cast<unsigned char>(c) < 0x20) {
          char escaped[8];
          std::snprintf(escaped, sizeof escaped, "\\u%04x", static_cast<unsigned>(c));
          out += escaped;
        } else {
          out += c;
        }
    }
  }
  return out + "\"";
}

std::string array(const std::vector<std::string>& elements) {
  std::string out = "[";
  for (std::size_t i = 0; i < elements.size(); ++i) out += (i == 0 ? "" : ",") + elements[i];
  return out + "]";
}

std::string strings(const std::vector<std::string>& texts) {
  std::vector<std::string> elements;
  for (const std::string& text : texts) elements.push_back(quoted(text));
  return array(elements);
}

}  // namespace lockstep::ctl::json
