#include "fields/format.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <limits>

namespace lockstep::fields {
namespace {

constexpr std::string_view kMagic{"\x93NUMPY\x01\x00", 8};
constexpr std::size_t kPreamble = kMagic.size() + 2;  // magic, version, header length
// Format 2.0's preamble, with a four-byte header length.
constexpr std::size_t kLongPreamble = kMagic.size() + 4;
constexpr std::size_t kShortHeaderLimit = 65535;
// NumPy aligns the values to 64 bytes; so do we.
constexpr std::size_t kAlignment = 64;
constexpr std::string_view kStampMark = "# lockstep field:";

std::string_view descr(Type type) {
  switch (type) {
    case Type::kFloat64: return "<f8";
    case Type::kInt32: return "<i4";
    case Type::kInt64: return "<i8";
  }
  return {};
}

std::string_view trim(std::string_view text) {
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
  while (!text.empty() && (text.back() == ' ' || text.back() == '\t')) text.remove_suffix(1);
  return text;
}

// The text after `'key':` up to the next top-level comma or brace.
bool dictionary_value(std::string_view dictionary, std::string_view key, std::string_view& value) {
  std::string quoted(1, '\'');
  quoted.append(key).push_back('\'');
  std::size_t at = dictionary.find(quoted);
  if (at == std::string_view::npos) return false;
  at = dictionary.find(':', at + quoted.size());
  if (at == std::string_view::npos) return false;
  std::size_t end = at + 1;
  int depth = 0;
  while (end < dictionary.size()) {
    const char c = dictionary[end];
    if (c == '(') ++depth;
    if (c == ')') --depth;
    if (depth == 0 && (c == ',' || c == '}')) break;
    ++end;
  }
  value = trim(dictionary.substr(at + 1, end - at - 1));
  return true;
}

bool parse_int(std::string_view text, std::int64_t& value) {
  text = trim(text);
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  return error == std::errc() && end == text.data() + text.size();
}

bool parse_shape(std::string_view text, std::vector<std::int64_t>& shape) {
  if (text.size() < 2 || text.front() != '(' || text.back() != ')') return false;
  text = text.substr(1, text.size() - 2);
  shape.clear();
  while (!trim(text).empty()) {
    const std::size_t comma = text.find(',');
    std::int64_t extent = 0;
    if (!parse_int(text.substr(0, comma), extent) || extent < 0) return false;
    shape.push_back(extent);
    if (comma == std::string_view::npos) break;
    text.remove_prefix(comma + 1);
  }
  return shape.size() <= kMaxRank;
}

// "key=value" words of the stamp comment.
bool stamp_value(std::string_view stamp, std::string_view key, std::string_view& value) {
  std::string word(1, ' ');
  word.append(key).push_back('=');
  const std::size_t at = stamp.find(word);
  if (at == std::string_view::npos) return false;
  value = stamp.substr(at + word.size());
  value = value.substr(0, value.find(' '));
  return true;
}

bool parse_stamp(std::string_view text, Stamp& stamp) {
  std::string_view value;
  std::int64_t numbers[4] = {};
  const std::string_view keys[4] = {"project", "cycle", "time_step", "stage"};
  for (std::size_t i = 0; i < 4; ++i) {
    if (!stamp_value(text, keys[i], value) || !parse_int(value, numbers[i]) ||
        numbers[i] < std::numeric_limits<std::int32_t>::min() || numbers[i] > std::numeric_limits<std::int32_t>::max()) {
      return false;
    }
  }
  if (!stamp_value(text, "role", value) || (value != "output" && value != "input")) return false;
  stamp.project = static_cast<int>(numbers[0]);
  stamp.role = value == "output" ? Role::kOutput : Role::kInput;
  stamp.request = {static_cast<std::int32_t>(numbers[1]), static_cast<std::int32_t>(numbers[2]),
                   static_cast<std::int32_t>(numbers[3])};
  return true;
}

// The parts as parts_text writes them, at most kMaxParts and summing to
// `rows`.
bool parse_parts(std::string_view text, std::int64_t rows, std::vector<std::int64_t>& parts) {
  parts.clear();
  std::int64_t left = rows;
  while (!text.empty()) {
    const std::size_t comma = text.find(',');
    const std::string_view run = text.substr(0, comma);
    const std::size_t star = run.find('*');
    std::int64_t count = 0, repeat = 1;
    if (!parse_int(run.substr(0, star), count) || count < 0 ||
        (star != std::string_view::npos && (!parse_int(run.substr(star + 1), repeat) || repeat < 1))) {
      return false;
    }
    // Checked before anything is added or multiplied: nothing may wrap.
    if (static_cast<std::uint64_t>(repeat) > kMaxParts - parts.size() || (count > 0 && repeat > left / count)) {
      return false;
    }
    parts.insert(parts.end(), static_cast<std::size_t>(repeat), count);
    left -= count * repeat;
    if (comma == std::string_view::npos) break;
    text.remove_prefix(comma + 1);
  }
  return !parts.empty() && left == 0;
}

}  // namespace

std::size_t header_size(std::string_view bytes) {
  if (bytes.size() < kPreamble || bytes.substr(0, 6) != kMagic.substr(0, 6)) return 0;
  const auto byte = [&](std::size_t at) { return static_cast<std::size_t>(static_cast<unsigned char>(bytes[at])); };
  if (bytes[6] == 2 && bytes[7] == 0) {
    if (bytes.size() < kLongPreamble) return 0;
    return kLongPreamble + (byte(8) | byte(9) << 8 | byte(10) << 16 | byte(11) << 24);
  }
  return kPreamble + (byte(8) | byte(9) << 8);
}

std::string parts_text(const std::vector<std::int64_t>& parts) {
  std::string text;
  for (std::size_t at = 0; at < parts.size();) {
    std::size_t end = at + 1;
    while (end < parts.size() && parts[end] == parts[at]) ++end;
    if (!text.empty()) text += ',';
    text += std::to_string(parts[at]);
    if (end - at > 1) text += '*' + std::to_string(end - at);
    at = end;
  }
  return text;
}

std::size_t element_size(Type type) { return type == Type::kInt32 ? 4 : 8; }

std::string type_name(Type type) {
  switch (type) {
    case Type::kFloat64: return "float64";
    case Type::kInt32: return "int32";
    case Type::kInt64: return "int64";
  }
  return {};
}

bool value_count(const std::vector<std::int64_t>& shape, std::size_t& count) {
  count = 1;
  for (const std::int64_t extent : shape) {
    if (extent < 0) return false;
    const auto size = static_cast<std::size_t>(extent);
    // At most 2^63 bytes of values: a header and the values then fit a file offset.
    if (size != 0 && count > static_cast<std::size_t>(std::numeric_limits<std::int64_t>::max()) / 8 / size) return false;
    count *= size;
  }
  return true;
}

std::string shape_text(const std::vector<std::int64_t>& shape) {
  std::string text = "(";
  for (std::size_t i = 0; i < shape.size(); ++i) text += (i > 0 ? ", " : "") + std::to_string(shape[i]);
  return text + (shape.size() == 1 ? ",)" : ")");
}

std::string describe_request(const project::Request& request) {
  if (request == kStartRequest) return "the starting outputs";
  return project::describe(request);
}

std::string project_name(int project) { return project == 0 ? "main" : "sub" + std::to_string(project); }

std::string describe(const Stamp& stamp) {
  return std::string(stamp.role == Role::kOutput ? "output of " : "input of ") + project_name(stamp.project) +
         (stamp.request == kStartRequest ? std::string(", published before the first request")
                                         : " for " + project::describe(stamp.request));
}

std::string check_name(std::string_view name) {
  if (name.empty()) return "a field name cannot be empty";
  if (name.size() > kMaxNameLength) {
    return "the field name \"" + std::string(name.substr(0, kMaxNameLength)) + "...\" is longer than " +
           std::to_string(kMaxNameLength) + " characters";
  }
  const bool allowed = std::all_of(name.begin(), name.end(), [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' || c == '-' ||
           c == '.';
  });
  if (!allowed || name.front() == '.') {
    return "the field name \"" + std::string(name) +
           "\" is not allowed: use letters, digits, '_', '-' and '.', not starting with '.'";
  }
  return {};
}

std::string encode_header(const Header& header) {
  std::string text = "{'descr': '" + std::string(descr(header.type)) +
                     "', 'fortran_order': " + (header.column_major ? "True" : "False") + ", 'shape': (";
  for (const std::int64_t extent : header.shape) text += std::to_string(extent) + ", ";
  if (header.shape.size() > 1) text.resize(text.size() - 2);
  if (header.shape.size() == 1) text.pop_back();
  text += "), } " + std::string(kStampMark) + " project=" + std::to_string(header.stamp.project) +
          " role=" + (header.stamp.role == Role::kOutput ? "output" : "input") +
          " cycle=" + std::to_string(header.stamp.request.cycle) +
          " time_step=" + std::to_string(header.stamp.request.time_step) +
          " stage=" + std::to_string(header.stamp.request.stage);
  if (!header.parts.empty()) text += " parts=" + parts_text(header.parts);
  std::size_t preamble = kPreamble;
  std::size_t total = (preamble + text.size() + 1 + kAlignment - 1) / kAlignment * kAlignment;
  if (total - preamble > kShortHeaderLimit) {
    preamble = kLongPreamble;
    total = (preamble + text.size() + 1 + kAlignment - 1) / kAlignment * kAlignment;
  }
  text.append(total - preamble - text.size() - 1, ' ');
  text += '\n';
  std::string bytes(kMagic);
  if (preamble == kLongPreamble) bytes[6] = 2;
  for (std::size_t at = 0; at < preamble - kMagic.size(); ++at) {
    bytes += static_cast<char>((text.size() >> (8 * at)) & 0xff);
  }
  return bytes + text;
}

bool decode_header(std::string_view bytes, Header& header, std::size_t& data_offset, std::string& error) {
  if (bytes.size() < kPreamble || bytes.substr(0, 6) != kMagic.substr(0, 6)) {
    error = "not a field file (no NumPy .npy header)";
    return false;
  }
  if ((bytes[6] != 1 && bytes[6] != 2) || bytes[7] != 0) {
    error = "a NumPy file of format " + std::to_string(static_cast<unsigned char>(bytes[6])) + "." +
            std::to_string(static_cast<unsigned char>(bytes[7])) + ", not the 1.0 or 2.0 that field files use";
    return false;
  }
  const std::size_t preamble = bytes[6] == 1 ? kPreamble : kLongPreamble;
  const std::size_t size = header_size(bytes);
  if (size > kLongestHeader) {
    error = "a header of " + std::to_string(size) + " bytes, longer than a field's can be";
    return false;
  }
  if (size == 0 || bytes.size() < size || size == preamble) {
    error = "the header is cut short";
    return false;
  }
  const std::string_view text = bytes.substr(preamble, size - preamble);
  const std::size_t close = text.find('}');
  std::string_view value;
  if (close == std::string_view::npos || text.front() != '{' || text.back() != '\n') {
    error = "the header is not a NumPy header";
    return false;
  }
  const std::string_view dictionary = text.substr(0, close + 1);
  if (!dictionary_value(dictionary, "descr", value)) {
    error = "the header names no type";
    return false;
  }
  if (value == "'<f8'") {
    header.type = Type::kFloat64;
  } else if (value == "'<i4'") {
    header.type = Type::kInt32;
  } else if (value == "'<i8'") {
    header.type = Type::kInt64;
  } else {
    error = "values of type " + std::string(value) + "; fields hold float64, int32 or int64, little-endian";
    return false;
  }
  if (!dictionary_value(dictionary, "fortran_order", value) || (value != "True" && value != "False")) {
    error = "the header has no fortran_order";
    return false;
  }
  header.column_major = value == "True";
  if (!dictionary_value(dictionary, "shape", value) || !parse_shape(value, header.shape)) {
    error = "the header has no valid shape (at most " + std::to_string(kMaxRank) + " dimensions)";
    return false;
  }
  const std::size_t mark = text.find(kStampMark, close);
  if (mark == std::string_view::npos) {
    error = "no stamp: it was not written by lockstep";
    return false;
  }
  if (!parse_stamp(text.substr(mark + kStampMark.size(), text.size() - 1 - mark - kStampMark.size()),
                   header.stamp)) {
    error = "its stamp cannot be read";
    return false;
  }
  header.parts.clear();
  const std::string_view stamp_text = text.substr(mark, text.size() - 1 - mark);
  if (stamp_value(stamp_text, "parts", value) &&
      (header.shape.empty() || !parse_parts(value, header.shape[0], header.parts))) {
    error = "its parts (" + std::string(value.substr(0, 80)) + ") do not add up to its rows";
    return false;
  }
  data_offset = size;
  return true;
}

void reorder(const std::vector<std::int64_t>& shape, std::size_t size, bool to_column_major, const void* from,
             void* to) {
  std::size_t count = 0;
  value_count(shape, count);
  const auto* source = static_cast<const char*>(from);
  auto* target = static_cast<char*>(to);
  const std::size_t rank = shape.size();
  if (rank < 2) {
    std::memcpy(target, source, count * size);
    return;
  }
  // Walk the row-major index; its column-major position follows along.
  std::vector<std::size_t> stride(rank), index(rank, 0);
  std::size_t step = 1;
  for (std::size_t axis = 0; axis < rank; ++axis) {
    stride[axis] = step;
    step *= static_cast<std::size_t>(shape[axis]);
  }
  std::size_t column = 0;
  for (std::size_t row = 0; row < count; ++row) {
    const std::size_t from_at = to_column_major ? row : column;
    const std::size_t to_at = to_column_major ? column : row;
    std::memcpy(target + to_at * size, source + from_at * size, size);
    for (std::size_t axis = rank; axis-- > 0;) {
      column += stride[axis];
      if (++index[axis] < static_cast<std::size_t>(shape[axis])) break;
      column -= stride[axis] * index[axis];
      index[axis] = 0;
    }
  }
}

}  // namespace lockstep::fields
