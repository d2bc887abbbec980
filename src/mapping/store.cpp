#include "mapping/store.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>

#include "fields/store.h"
#include "mapping/check.h"
#include "records/file_system.h"
#include "records/status.h"

namespace lockstep::mapping {
namespace {

namespace fs = std::filesystem;

// Two 64-bit multiply-and-mix streams over the bytes: 128 bits, enough that
// two different meshes never share a key by chance.
class Hash {
 public:
  // Eight bytes a step: meshes are hashed in every stage.
  void add(const void* data, std::size_t size) {
    const auto* bytes = static_cast<const unsigned char*>(data);
    std::size_t at = 0;
    for (; at + 8 <= size; at += 8) {
      std::uint64_t word;
      std::memcpy(&word, bytes + at, 8);
      mix(word);
    }
    std::uint64_t rest = size - at;  // the tail, with its length
    for (; at < size; ++at) rest = rest << 8 | bytes[at];
    mix(rest);
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
  void mix(std::uint64_t word) {
    first_ = (first_ ^ word) * 0x100000001b3ULL;
    first_ ^= first_ >> 29;
    second_ = (second_ + word + 1) * 0x9e3779b97f4a7c15ULL;
    second_ ^= second_ >> 31;
  }

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

template <typename Vector>
bool write_array(const std::string& path, fields::Type type, const Vector& values, std::string& error) {
  const fields::Header header{type, false, {static_cast<std::int64_t>(values.size())}, kNoStamp};
  return fields::write_field(path, header, values.data(), error);
}

// A one-dimensional array of `type` in the file at `path`, mapped into
// memory; nullptr when it is no such array.
template <typename T>
const T* map_array(const std::string& path, fields::Type type, std::size_t& count, StoredWeights& weights) {
  fields::Header header;
  std::string error;
  // The header is checked, and the file's size against it, before mapping.
  if (fields::read_header(path, header, error) != fields::ReadOutcome::kRead || header.type != type ||
      header.shape.size() != 1 || header.shape[0] < 0 ||
      static_cast<std::uint64_t>(header.shape[0]) > SIZE_MAX / sizeof(T)) {
    return nullptr;
  }
  count = static_cast<std::size_t>(header.shape[0]);
  records::PosixFileSystem posix;
  // Neither a link (weights outside the run tree) nor a FIFO (a hang).
  records::Descriptor file(posix, ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  struct stat info {};
  if (!file.valid() || ::fstat(file.get(), &info) != 0 || !S_ISREG(info.st_mode) ||
      static_cast<std::size_t>(info.st_size) < count * sizeof(T) || info.st_size == 0) {
    return nullptr;
  }
  const auto size = static_cast<std::size_t>(info.st_size);
  void* base = ::mmap(nullptr, size, PROT_READ, MAP_PRIVATE | MAP_POPULATE, file.get(), 0);
  if (base == MAP_FAILED) return nullptr;
  weights.mapped_files.emplace_back(base, [size](const void* mapped) { ::munmap(const_cast<void*>(mapped), size); });
  return reinterpret_cast<const T*>(static_cast<const char*>(base) + size - count * sizeof(T));
}

// A new array file of `count` values at `path`, its header written and its
// values mapped for writing; nullptr when it cannot be made. Its blocks are
// allocated first: a full disk is an error here, not a SIGBUS later.
template <typename T>
T* map_new_array(const std::string& path, fields::Type type, std::size_t count, StoredWeights& weights) {
  const std::string header = fields::encode_header({type, false, {static_cast<std::int64_t>(count)}, kNoStamp});
  if (count > (SIZE_MAX - header.size()) / sizeof(T)) return nullptr;
  const std::size_t size = header.size() + count * sizeof(T);
  records::PosixFileSystem posix;
  records::Descriptor file(posix, ::open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0666));
  if (!file.valid() || ::fallocate(file.get(), 0, 0, static_cast<off_t>(size)) != 0 ||
      ::pwrite(file.get(), header.data(), header.size(), 0) != static_cast<ssize_t>(header.size())) {
    return nullptr;
  }
  void* base = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, file.get(), 0);
  if (base == MAP_FAILED) return nullptr;
  // Large pages in the page cache: later stages then map the files in a
  // few hundred steps instead of tens of thousands (20 ms a stage, not 40).
  ::madvise(base, size, MADV_HUGEPAGE);
  weights.mapped_files.emplace_back(base, [size](const void* mapped) { ::munmap(const_cast<void*>(mapped), size); });
  return reinterpret_cast<T*>(static_cast<char*>(base) + header.size());
}

// Room in the weight files themselves: indices.npy and data.npy made at
// their full size in the directory being built.
class FileRoom : public Room {
 public:
  FileRoom(std::string directory, StoredWeights& weights) : directory_(std::move(directory)), weights_(weights) {}
  bool take(std::size_t count, Column*& columns, double*& values) override {
    // Written through a mapping, the files would reach a network file
    // system's server after the rename that shows them to other machines,
    // not before: there they are written whole, as every other file.
    struct statfs info {};
    if (::statfs(directory_.c_str(), &info) != 0 ||
        !records::network_file_system_kind(static_cast<unsigned long>(info.f_type)).empty()) {
      return false;
    }
    const std::size_t mapped = weights_.mapped_files.size();
    columns = map_new_array<Column>(directory_ + "/indices.npy", fields::Type::kInt32, count, weights_);
    values = columns == nullptr ? nullptr
                                : map_new_array<double>(directory_ + "/data.npy", fields::Type::kFloat64, count, weights_);
    if (values == nullptr) {
      weights_.mapped_files.resize(mapped);
      return false;
    }
    count_ = count;
    columns_ = columns;
    values_ = values;
    return true;
  }
  bool taken() const { return values_ != nullptr; }
  WeightsView view(const Weights& weights) const {
    return {weights.rows, weights.columns, count_, weights.row_start.data(), columns_, values_};
  }

 private:
  std::string directory_;
  StoredWeights& weights_;
  std::size_t count_ = 0;
  const Column* columns_ = nullptr;
  const double* values_ = nullptr;
};

// Whether `path` is a directory itself, not a link to one elsewhere.
bool real_directory(const std::string& path) {
  struct stat info {};
  return ::lstat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

// about.txt in `directory`: a regular file only, and a bounded part of it,
// never a FIFO's hang. Empty when there is none.
std::string read_about(const std::string& directory) {
  records::PosixFileSystem posix;
  const records::Descriptor about(
      posix, ::open((directory + "/about.txt").c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  struct stat info {};
  if (!real_directory(directory) || !about.valid() || ::fstat(about.get(), &info) != 0 || !S_ISREG(info.st_mode)) {
    return {};
  }
  char buffer[4096];
  const ssize_t got = ::read(about.get(), buffer, sizeof buffer);
  return got > 0 ? std::string(buffer, static_cast<std::size_t>(got)) : std::string();
}

constexpr const char* kChecksumLine = "checksum ";

std::string checksum_line(const Checksum& checksum) {
  char line[64];
  std::snprintf(line, sizeof line, "%s%016llx%016llx\n", kChecksumLine, static_cast<unsigned long long>(checksum.sum),
                static_cast<unsigned long long>(checksum.weighted));
  return line;
}

// The checksum about.txt gives; false when it gives none.
bool kept_checksum(const std::string& about, Checksum& checksum) {
  const std::size_t at = about.find(std::string("\n") + kChecksumLine);
  unsigned long long sum = 0, weighted = 0;
  if (at == std::string::npos || std::sscanf(about.c_str() + at + 1 + std::strlen(kChecksumLine), "%16llx%16llx", &sum,
                                             &weighted) != 2) {
    return false;
  }
  checksum = {sum, weighted};
  return true;
}

bool load(const std::string& directory, const Mapping& mapping, StoredWeights& weights) {
  if (!real_directory(directory)) return false;
  StoredWeights found;
  if (!kept_checksum(read_about(directory), found.kept)) return false;
  std::size_t offsets = 0, columns = 0;
  found.view.rows = mapping.to->count;
  found.view.columns = mapping.from->count;
  found.view.row_start = map_array<std::int64_t>(directory + "/indptr.npy", fields::Type::kInt64, offsets, found);
  found.view.column_of = map_array<Column>(directory + "/indices.npy", fields::Type::kInt32, columns, found);
  found.view.value = map_array<double>(directory + "/data.npy", fields::Type::kFloat64, found.view.count, found);
  if (found.view.row_start == nullptr || found.view.column_of == nullptr || found.view.value == nullptr ||
      offsets != found.view.rows + 1 || columns != found.view.count || found.view.defect() != nullptr) {
    return false;
  }
  found.source = Source::kLoaded;
  weights = std::move(found);
  return true;
}

// The mapping's weights computed, into `room` where it takes them, and
// checked: what a stage and `lockstepctl check` both refuse.
std::string compute_checked(const Mapping& mapping, StoredWeights& weights, FileRoom* room, Deviation& largest) {
  Weights& computed = weights.computed;
  if (std::string error = compute_weights(mapping.method, *mapping.from, mapping.from_cells, *mapping.to,
                                          mapping.to_cells, computed, room);
      !error.empty()) {
    return error;
  }
  weights.view = room != nullptr && room->taken() ? room->view(computed) : computed.view();
  return check_weights(mapping.method, *mapping.from, *mapping.to, weights.view, largest);
}

std::string describe(const Mapping& mapping, const WeightsView& weights, const Deviation& largest) {
  char checked[200];
  std::snprintf(checked, sizeof checked,
                "checked: row sums at most %.3g from 1, mapped positions at most %.3g farther from their targets "
                "than the nearest source point\n",
                largest.row_sum, largest.position);
  // The basis the mesh's dimension chose, where the line names none.
  Method used = mapping.method;
  if (used.kind == Kind::kRbf || used.kind == Kind::kRbfPum) used.basis = used.basis_for(mapping.from->dimension);
  return mapping.description + "\n" + used.canonical() + "\nrows " + std::to_string(weights.rows) +
         " (target points), columns " + std::to_string(weights.columns) + " (source points), values " +
         std::to_string(weights.count) + "\n" + checked + checksum_line(weights.checksum());
}

// A writer holds a lock on its temporary directory while it builds the
// weights there; one older than this whose lock is free was left by a
// writer that died (the age covers the moment between mkdir and flock).
constexpr int kDeadAfterSeconds = 60;

// Removes what writers that died left in `root` (mappings/): on a local
// file system only, where the lock tells; on a network file system a
// writer on another machine may hold it unseen.
void remove_dead_writers(const std::string& root) {
  struct statfs info {};
  if (::statfs(root.c_str(), &info) != 0 ||
      !records::network_file_system_kind(static_cast<unsigned long>(info.f_type)).empty()) {
    return;
  }
  std::error_code error;
  for (fs::directory_iterator entry(root, error), end; !error && entry != end; entry.increment(error)) {
    const std::string path = entry->path().string();
    struct stat status {};
    if (!records::is_temporary_name(entry->path().filename().string()) || ::lstat(path.c_str(), &status) != 0 ||
        !S_ISDIR(status.st_mode) || ::time(nullptr) - status.st_mtime < kDeadAfterSeconds) {
      continue;
    }
    records::PosixFileSystem posix;
    const records::Descriptor directory(posix, ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    std::error_code ignored;
    if (directory.valid() && ::flock(directory.get(), LOCK_EX | LOCK_NB) == 0) fs::remove_all(path, ignored);
  }
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

std::string weights_for(const std::string& directory, const Mapping& mapping, StoredWeights& weights) {
  const std::string root = directory + "/" + kWeightsDirectory;
  const std::string final_path = root + "/" + weights_key(mapping);
  if (real_directory(root)) remove_dead_writers(root);
  if (load(final_path, mapping, weights)) return {};
  weights = StoredWeights{};
  // A link in the weights' place is never followed: it goes, and the
  // weights computed here take its place.
  struct stat status {};
  if (real_directory(root) && ::lstat(final_path.c_str(), &status) == 0 && S_ISLNK(status.st_mode)) {
    ::unlink(final_path.c_str());
  }
  // Built in a temporary directory and renamed into place, kept for the
  // stages to come; a failure to keep them costs only time.
  std::string building;
  const bool keep = (::mkdir(root.c_str(), 0777) == 0 || errno == EEXIST) && real_directory(root) &&
                    records::create_temporary_directory(final_path, building) == 0;
  records::PosixFileSystem posix;
  records::Descriptor writing;
  if (keep) {
    writing = records::Descriptor(posix, ::open(building.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (writing.valid()) ::flock(writing.get(), LOCK_EX);
  }
  FileRoom room(building, weights);
  Deviation largest;
  std::string error = compute_checked(mapping, weights, keep ? &room : nullptr, largest);
  std::error_code ignored;
  if (!error.empty()) {
    weights = StoredWeights{};
    if (keep) fs::remove_all(building, ignored);
    return error;
  }
  if (!keep) return {};
  const Weights& computed = weights.computed;
  const bool written = write_array(building + "/indptr.npy", fields::Type::kInt64, computed.row_start, error) &&
                       (room.taken() ||
                        (write_array(building + "/indices.npy", fields::Type::kInt32, computed.column_of, error) &&
                         write_array(building + "/data.npy", fields::Type::kFloat64, computed.value, error))) &&
                       static_cast<bool>(std::ofstream(building + "/about.txt") << describe(mapping, weights.view, largest));
  // Another program may have put the same weights in place meanwhile, or
  // a damaged copy may be there: the first is as good as these, the second
  // goes.
  if (written && ::rename(building.c_str(), final_path.c_str()) != 0 && (errno == EEXIST || errno == ENOTEMPTY)) {
    StoredWeights theirs;
    if (!load(final_path, mapping, theirs)) {
      fs::remove_all(final_path, ignored);
      ::rename(building.c_str(), final_path.c_str());
    }
  }
  fs::remove_all(building, ignored);
  return {};
}

std::string validate(const std::string& directory, const Mapping& mapping) {
  StoredWeights weights;
  if (load(directory + "/" + kWeightsDirectory + "/" + weights_key(mapping), mapping, weights)) return {};
  Deviation largest;
  return compute_checked(mapping, weights, nullptr, largest);
}

bool describe_stored(const std::string& directory, std::string& text) {
  const std::string described = read_about(directory);
  StoredWeights weights;
  std::size_t offsets = 0, columns = 0;
  weights.view.row_start = map_array<std::int64_t>(directory + "/indptr.npy", fields::Type::kInt64, offsets, weights);
  weights.view.column_of = map_array<Column>(directory + "/indices.npy", fields::Type::kInt32, columns, weights);
  weights.view.value = map_array<double>(directory + "/data.npy", fields::Type::kFloat64, weights.view.count, weights);
  weights.view.rows = offsets == 0 ? 0 : offsets - 1;
  if (described.empty() || weights.view.row_start == nullptr || weights.view.column_of == nullptr ||
      weights.view.value == nullptr || offsets == 0 || columns != weights.view.count ||
      weights.view.defect() != nullptr) {
    text = directory + " holds no weights that lockstep-exchange wrote (about.txt, indptr.npy, indices.npy, "
           "data.npy): remove it, and the next stage computes them again";
    // mappings/ itself: removing it would remove every mapping's weights.
    std::string first;
    std::size_t inside = 0;
    std::error_code error;
    for (fs::directory_iterator entry(directory, error), end; !error && entry != end; entry.increment(error)) {
      const std::string name = entry->path().filename().string();
      if (name.size() != 32 || name.find_first_not_of("0123456789abcdef") != std::string::npos) continue;
      if (first.empty() || name < first) first = name;
      ++inside;
    }
    if (inside > 0) {
      text = directory + " holds the weights of " + std::to_string(inside) + (inside == 1 ? " mapping" : " mappings") +
             " in directories of their own: give one of them (" + (fs::path(directory) / first).string() + ")";
    }
    return false;
  }
  double low = 0, high = 0;
  for (std::size_t row = 0; row < weights.view.rows; ++row) {
    double sum = 0;
    for (auto at = weights.view.row_start[row]; at < weights.view.row_start[row + 1]; ++at) {
      sum += weights.view.value[static_cast<std::size_t>(at)];
    }
    low = row == 0 ? sum : std::min(low, sum);
    high = row == 0 ? sum : std::max(high, sum);
  }
  std::uintmax_t bytes = 0;
  std::error_code ignored;
  for (const char* file : {"indptr.npy", "indices.npy", "data.npy"}) bytes += fs::file_size(directory + "/" + file, ignored);
  char summary[160];
  std::snprintf(summary, sizeof summary, "row sums from %.17g to %.17g\n%ju bytes on disk\n", low, high, bytes);
  text = described + summary;
  return true;
}

namespace {

// Whether loaded weights applied soundly: every column within the source
// mesh, the checksum the one they were written with, and every row sum
// finite and, where the method reproduces constants, 1. Computed weights
// were checked whole before.
bool sound(const Mapping& mapping, const StoredWeights& weights, const Audit& audit) {
  const bool constants = reproduces_constants(mapping.method) && !mapping.method.conservative;
  // Looser than the check of computed weights, which weighs each row's size.
  constexpr double kLoadedTolerance = 1e-6;
  return audit.checksum == weights.kept &&
         std::all_of(audit.row_sums.begin(), audit.row_sums.end(), [constants](double sum) {
           return std::isfinite(sum) && (!constants || std::abs(sum - 1) <= kLoadedTolerance);
         });
}

}  // namespace

std::string map_values(const std::string& directory, const Mapping& mapping, const double* values,
                       std::size_t components, double* mapped) {
  StoredWeights weights;
  if (std::string error = weights_for(directory, mapping, weights); !error.empty()) return error;
  Audit audit;
  if (weights.view.apply(values, components, mapped, weights.source == Source::kLoaded ? &audit : nullptr) &&
      (weights.source == Source::kComputed || sound(mapping, weights, audit))) {
    return {};
  }
  // Stored files that are damaged: removed, and the weights computed anew.
  std::error_code ignored;
  fs::remove_all(directory + "/" + kWeightsDirectory + "/" + weights_key(mapping), ignored);
  if (std::string error = weights_for(directory, mapping, weights); !error.empty()) return error;
  weights.view.apply(values, components, mapped);
  return {};
}

}  // namespace lockstep::mapping
