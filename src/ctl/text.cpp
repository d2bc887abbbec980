#include "ctl/text.h"

#include <cstdio>

namespace lockstep::ctl::text {

std::size_t utf8_length(std::string_view text, std::size_t at) {
  const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
  const unsigned char lead = byte(at);
  if (lead < 0x80) return 1;
  std::size_t length = 0;
  unsigned char low = 0x80, high = 0xbf;  // bounds of the second byte
  if (lead >= 0xc2 && lead <= 0xdf) {
    length = 2;
  } else if (lead >= 0xe0 && lead <= 0xef) {
    length = 3;
    if (lead == 0xe0) low = 0xa0;   // no overlong forms
    if (lead == 0xed) high = 0x9f;  // no surrogates
  } else if (lead >= 0xf0 && lead <= 0xf4) {
    length = 4;
    if (lead == 0xf0) low = 0x90;
    if (lead == 0xf4) high = 0x8f;  // nothing above U+10FFFF
  } else {
    return 0;
  }
  if (at + length > text.size() || byte(at + 1) < low || byte(at + 1) > high) return 0;
  for (std::size_t i = 2; i < length; ++i) {
    if (byte(at + i) < 0x80 || byte(at + i) > 0xbf) return 0;
  }
  return length;
}

std::string printable(std::string_view text) {
  std::string out;
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t length = utf8_length(text, at);
    const auto lead = static_cast<unsigned char>(text[at]);
    const bool control = lead < 0x20 || lead == 0x7f ||
                         (length == 2 && lead == 0xc2 && static_cast<unsigned char>(text[at + 1]) < 0xa0);
    if (length == 0 || control) {
      for (std::size_t i = 0; i < (length == 0 ? 1 : length); ++i) {
        char escaped[8];
        std::snprintf(escaped, sizeof escaped, "\\x%02x", static_cast<unsigned char>(text[at + i]));
        out += escaped;
      }
      at += length == 0 ? 1 : length;
    } else {
      out.append(text.substr(at, length));
      at += length;
    }
  }
  return out;
}

}  // namespace lockstep::ctl::text
