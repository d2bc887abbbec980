// A field file: a NumPy .npy file (format 1.0) whose header dictionary is
// followed, inside the header's padding, by a comment that holds the stamp.
// numpy.load reads the values as they are; the library reads the stamp too.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "endpoint.h"

namespace lockstep::fields {

enum class Type { kFloat64, kInt32, kInt64 };
enum class Role { kOutput, kInput };

// The most dimensions a field may have, and the longest name.
inline constexpr std::size_t kMaxRank = 8;
inline constexpr std::size_t kMaxNameLength = 64;

// Who wrote a field, and for which request. Outputs published before the
// first request carry the request {0, 0, 0}.
struct Stamp {
  int project = 0;
  Role role = Role::kOutput;
  project::Request request;
  bool operator==(const Stamp&) const = default;
};

inline constexpr project::Request kStartRequest{0, 0, 0};

struct Header {
  Type type = Type::kFloat64;
  bool column_major = false;  // NumPy's fortran_order
  std::vector<std::int64_t> shape;
  Stamp stamp;
  // A field put by the ranks of a parallel project: each rank's row count,
  // in rank order, summing to shape[0]. Empty for a field put whole.
  std::vector<std::int64_t> parts = {};
};

// The most parts a field may have.
inline constexpr std::size_t kMaxParts = std::size_t{1} << 20;

LOCKSTEP_API std::size_t element_size(Type type);
// "float64", "int32", "int64".
LOCKSTEP_API std::string type_name(Type type);
// The number of values a shape holds; false when it overflows.
LOCKSTEP_API bool value_count(const std::vector<std::int64_t>& shape, std::size_t& count);

// "(3, 2)", "(7,)" or "()", as Python writes a shape.
LOCKSTEP_API std::string shape_text(const std::vector<std::int64_t>& shape);

// "the starting outputs", or the request as project::describe says it.
std::string describe_request(const project::Request& request);
// "output of sub1 for cycle 5, time step 2, stage 3".
std::string describe(const Stamp& stamp);
// "main" for 0, "sub3" for 3: the name of a project's directory.
LOCKSTEP_API std::string project_name(int project);

// A field name is 1 to kMaxNameLength letters, digits, '_', '-' and '.',
// not starting with '.'. Empty when valid, else why not.
LOCKSTEP_API std::string check_name(std::string_view name);

// The bytes before the values: magic, version, header length, header.
// Format 1.0, or 2.0 (a four-byte length) when the parts make the header
// longer than 1.0 allows; NumPy reads both.
std::string encode_header(const Header& header);

// What is read first, which holds every header without parts.
inline constexpr std::size_t kHeaderLimit = 4096;
// The longest header of any field; longer ones are not field files.
inline constexpr std::size_t kLongestHeader = 32 * std::size_t{1} << 20;

// The size of the header that `bytes` starts with (magic to padding), read
// from its preamble; 0 when `bytes` is too short to tell or no field file.
std::size_t header_size(std::string_view bytes);

// "250*3,251,0": the parts, a run of one row count as COUNT*REPEAT.
LOCKSTEP_API std::string parts_text(const std::vector<std::int64_t>& parts);

// Parses the start of a field file. On success `data_offset` is where the
// values begin; on failure `error` says what is wrong.
bool decode_header(std::string_view bytes, Header& header, std::size_t& data_offset, std::string& error);

// Rearranges `count` values of `size` bytes between row-major and
// column-major order of `shape` (which is the same either way).
LOCKSTEP_API void reorder(const std::vector<std::int64_t>& shape, std::size_t size, bool to_column_major, const void* from,
             void* to);

}  // namespace lockstep::fields
