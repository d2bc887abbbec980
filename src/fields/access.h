// Reading and writing fields for the solver and the interaction program:
// the values given as type, shape and order, the stamp checked on reading.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "format.h"
#include "rules.h"
#include "store.h"

namespace lockstep::fields {

enum class Outcome {
  kOk,
  kStale,  // the field is not the one this request needs: the message says why
  kError,
};

// Values in the caller's memory.
struct Values {
  Type type = Type::kFloat64;
  std::vector<std::int64_t> shape;
  bool column_major = false;
  void* data = nullptr;
  // Each rank's row count when the values are the parts of a parallel
  // project's ranks (Header::parts); empty otherwise.
  std::vector<std::int64_t> parts = {};
};

// Where read values go: given the file's header, a buffer for them in the
// file's order, or nullptr with the reason.
using Destination = std::function<void*(const Header&, std::string& error)>;

// The project index a directory's name gives by lockstep's naming rule
// ("main", "sub1" ... "sub99", "sub**"); nullopt for any other name.
std::optional<int> project_index(const std::string& directory);
// "../main" for 0, "../sub3" for 3, "../sub**" for 100: from the driver's
// working directory.
std::string project_directory(int project);

// Writes `values` to `path` with `stamp`, after checking `name`.
Outcome put_field(const std::string& name, const std::string& path, const Stamp& stamp, const Values& values,
                  std::string& error);

// How long a read on a network file system looks again while the field is
// stale, missing or torn, in case the view lags behind the writer's machine
// (sshfs keeps a file's attributes for 20 s by default).
struct Settle {
  std::chrono::milliseconds limit{30000};
  std::chrono::milliseconds longest_pause{100};
};

// Reads `path`, asks `check` whether its stamp (nullopt when the file is
// missing) may be used (empty: yes), then reads its values to `destination`.
Outcome get_field(const std::string& name, const std::string& path,
                  const std::function<std::string(const std::optional<Stamp>&)>& check,
                  const Destination& destination, Header& header, std::string& error, const Settle& settle = {});

// A destination that takes exactly `values`' type and shape, rearranged to
// its order; `scratch` holds values that need rearranging meanwhile.
LOCKSTEP_API Destination into(const Values& values, std::vector<char>& scratch);
// After a read into(values, scratch): moves rearranged values in place.
LOCKSTEP_API void finish_into(const Values& values, const Header& header, const std::vector<char>& scratch);

}  // namespace lockstep::fields
