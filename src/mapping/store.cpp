#include "mapping/store.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "fields/store.h"
#include "records/file_system.h"
#include "records/status.h"

namespace lockstep::mapping {
namespace {

namespace fs = std::filesystem;

// Two 64-bit multiply-and-mix streams over the bytes: 128 bits, enough that
// two different meshes never share a key by chance.
class Hash {
 public:
  void add(const void* data, std::size_t size) {
    const auto* bytes = static_cast<const unsigned char*>(data);
    for (std::size_t i = 0; i < size; ++i) {
      first_ = (first_ ^ bytes[i]) * 0x100000001b3ULL;
      second_ = (second_ + bytes[i] + 1) * 0x9e3779b97f4a7c15ULL;
      second_ ^= second_ >> 31;
    }
  }
  void add(const std::string& text) {
    const std::uint64_t size = text.size();
    add(&size, sizeof size);
    add(text.data(), text.size());
  }
  template <typename T>
  void add(const std::vector<T>& values) {
    const std::uint64_t size = values.size();
    add(&size, sizeof size);
    add(values.data(), values.size() * sizeof(T));
  }
  std::string hex() const {
    char text[33];
    std::snprintf(text, sizeof text, "%016llx%016llx", static_cast<unsigned long long>(first_),
                  static_cast<unsigned long long>(second_));
    return text;
  }

 private:
  std::uint64_t first_ = 0xcbf29ce484222325ULL;
  std::uint64_t second_ = 0x84222325cbf29ce4ULL;
};

void add_points(Hash& hash, const Points* points) {
  hash.add(points == nullptr ? std::string("none") : "points " + std::to_string(points->dimension));
  if (points != nullptr) hash.add(points->coordinates);
}

void add_cells(Hash& hash, const Cells* cells) {
  hash.add(cells == nullptr ? std::string("none") : "cells " + std::to_string(cells->corners));
  if (cells != nullptr) hash.add(cells->indices);
}

const fields::Stamp kNoStamp{0, fields::Role::kOutput, fields::kStartRequest};

template <typename T>
bool write_array(const std::string& path, fields::Type type, const std::vector<T>& values, std::string& error) {
  const fields::Header header{type, false, {static_cast<std::int64_t>(values.size())}, kNoStamp};
  return fields::write_field(path, header, values.data(), error);
}

// Reads a one-dimensional array of `type` into `values`.
template <typename T>
bool read_array(const std::string& path, fields::Type type, std::vector<T>& values) {
  fields::Header header;
  std::string error;
  return fields::read_field(path, header,
                            [&](const fields::Header& found, std::string&) -> void* {
                              if (found.type != type || found.shape.size() != 1) return nullptr;
                              values.resize(static_cast<std::size_t>(found.shape[0]));
                              return values.data();
                            },
                            error) == fields::ReadOutcome::kRead;
}

bool load(const std::string& directory, const Mapping& mapping, Weights& weights) {
  Weights found;
  found.rows = mapping.to->count;
  found.columns = mapping.from->count;
  found.row_start.clear();
  return read_array(directory + "/indptr.npy", fields::Type::kInt64, found.row_start) &&
         read_array(directory + "/indices.npy", fields::Type::kInt64, found.column_of) &&
         read_array(directory + "/data.npy", fields::Type::kFloat64, found.value) && found.defect() == nullptr &&
         (weights = std::move(found), true);
}

std::string describe(const Mapping& mapping, const Weights& weights) {
  return mapping.description + "\n" + mapping.method.canonical() + "\nrows " + std::to_string(weights.rows) +
         " (target points), columns " + std::to_string(weights.columns) + " (source points), values " +
         std::to_string(weights.value.size()) + "\n";
}

}  // namespace

std::string weights_key(const Mapping& mapping) {
  Hash hash;
  hash.add(mapping.method.canonical());
  add_points(hash, mapping.from);
  add_cells(hash, mapping.from_cells);
  add_points(hash, mapping.to);
  add_cells(hash, mapping.to_cells);
  return hash.hex();
}

std::string weights_for(const std::string& directory, const Mapping& mapping, Weights& weights, Source& source) {
  const std::string root = directory + "/" + kWeightsDirectory;
  const std::string final_path = root + "/" + weights_key(mapping);
  if (load(final_path, mapping, weights)) {
    source = Source::kLoaded;
    return {};
  }
  std::string error = compute_weights(mapping.method, *mapping.from, mapping.from_cells, *mapping.to,
                                      mapping.to_cells, weights);
  if (!error.empty()) return error;
  source = Source::kComputed;
  // Kept for the stages to come; a failure to keep them costs only time.
  if (::mkdir(root.c_str(), 0777) != 0 && errno != EEXIST) return {};
  std::string building;
  if (records::create_temporary_directory(final_path, building) != 0) return {};
  const bool written = write_array(building + "/indptr.npy", fields::Type::kInt64, weights.row_start, error) &&
                       write_array(building + "/indices.npy", fields::Type::kInt64, weights.column_of, error) &&
                       write_array(building + "/data.npy", fields::Type::kFloat64, weights.value, error) &&
                       static_cast<bool>(std::ofstream(building + "/about.txt") << describe(mapping, weights));
  std::error_code ignored;
  // Another program may have put the same weights in place meanwhile, or
  // a damaged copy may be there: the first is as good as these, the second
  // goes.
  if (written && ::rename(building.c_str(), final_path.c_str()) != 0 && (errno == EEXIST || errno == ENOTEMPTY) &&
      !load(final_path, mapping, weights)) {
    fs::remove_all(final_path, ignored);
    ::rename(building.c_str(), final_path.c_str());
  }
  fs::remove_all(building, ignored);
  return {};
}

}  // namespace lockstep::mapping
