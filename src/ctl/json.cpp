#include "ctl/json.h"

#include <cstdio>

#include "ctl/text.h"

namespace lockstep::ctl::json {

std::string quoted(std::string_view text) {
  std::string out = "\"";
  for (std::size_t at = 0; at < text.size(); ++at) {
    const char c = text[at];
    // JSON is UTF-8: a byte that is not part of it becomes U+FFFD.
    if (const std::size_t length = text::utf8_length(text, at); length == 0) {
      out += "\\ufffd";
      continue;
    } else if (length > 1) {
      out.append(text.substr(at, length));
      at += length - 1;
      continue;
    }
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
