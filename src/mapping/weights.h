// A mapping's weights: a sparse matrix in compressed rows, one row per
// target point, one column per source point. Applying it maps values on
// the source mesh to values on the target mesh.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <new>
#include <utility>
#include <vector>

namespace lockstep::mapping {

// A source point's index in the weights: meshes hold fewer than 2^31
// points, and four bytes a weight less is a quarter less to read per stage.
using Column = std::int32_t;

// Huge pages for one allocation of at least `bytes`, else null.
void* allocate_huge(std::size_t bytes);

// A vector whose resize leaves new elements uninitialised: weights run to
// hundreds of megabytes, each value written once where it is computed, and
// zeroing them first would cost as much again. Large ones take huge pages:
// a fault per 2 MB instead of per 4 kB.
template <typename T>
struct Uninitialised : std::allocator<T> {
  template <typename U>
  struct rebind {
    using other = Uninitialised<U>;
  };
  Uninitialised() = default;
  template <typename U>
  Uninitialised(const Uninitialised<U>&) noexcept {}
  T* allocate(std::size_t count) {
    if (count <= kHugeBytes / sizeof(T)) return std::allocator<T>::allocate(count);
    if (void* memory = allocate_huge(count * sizeof(T))) return static_cast<T*>(memory);
    throw std::bad_alloc();
  }
  void deallocate(T* memory, std::size_t count) {
    if (count > kHugeBytes / sizeof(T)) {
      std::free(memory);
    } else {
      std::allocator<T>::deallocate(memory, count);
    }
  }
  template <typename U, typename... Arguments>
  void construct(U* place, Arguments&&... arguments) {
    if constexpr (sizeof...(Arguments) == 0) {
      ::new (static_cast<void*>(place)) U;
    } else {
      ::new (static_cast<void*>(place)) U(std::forward<Arguments>(arguments)...);
    }
  }
  static constexpr std::size_t kHugeBytes = std::size_t{2} << 20;
};
template <typename T>
using Array = std::vector<T, Uninitialised<T>>;

// A checksum of weights as kept on disk: every column and value with its
// place, and every row's end, so that a changed index, a swap or a shifted
// row shows, while costing an addition or two per weight.
struct Checksum {
  std::uint64_t sum = 0, weighted = 0;

  void add(std::uint64_t word, std::uint64_t place) {
    sum += word;
    weighted += word * (place + 1);
  }
  void add(const Checksum& other) {
    sum += other.sum;
    weighted += other.weighted;
  }
  // The words summed and summed each times its place, with one addition
  // more per word (place + 1) for the latter: what add would make of them.
  void add_sums(std::uint64_t words, std::uint64_t placed) {
    sum += words;
    weighted += placed + words;
  }
  bool operator==(const Checksum&) const = default;
};

// What a pass that applies weights read back from disk also learns: each
// row's sum and the checksum of the whole.
struct Audit {
  std::vector<double> row_sums;
  Checksum checksum;
};

// The same matrix in memory someone else owns (mapped weight files).
struct WeightsView {
  std::size_t rows = 0, columns = 0, count = 0;  // count: the number of weights
  const std::int64_t* row_start = nullptr;       // rows + 1
  const Column* column_of = nullptr;             // count
  const double* value = nullptr;                 // count

  // target (rows x components) = this * source (columns x components),
  // both row by row, and, given `audit`, what it holds, in the same pass.
  // False, with `target` undefined, when a column lies outside the source
  // mesh: checked here, in the one pass over them.
  bool apply(const double* source, std::size_t components, double* target, Audit* audit = nullptr) const;
  Checksum checksum() const;
  // nullptr when the row offsets are sound (rising from 0 to the number of
  // values), else what is wrong.
  const char* defect() const;
};

// Room for a computation's columns and values that someone else owns: the
// store offers the files that keep them, mapped, so that hundreds of
// megabytes are written once, where they stay.
class Room {
 public:
  virtual ~Room() = default;
  // Places for `count` columns and values, or false: the weights then take
  // memory of their own.
  virtual bool take(std::size_t count, Column*& columns, double*& values) = 0;
};

struct Weights {
  std::size_t rows = 0, columns = 0;
  std::vector<std::int64_t> row_start{0};  // rows + 1 offsets into column_of and value
  Array<Column> column_of;
  Array<double> value;

  // Appends the next row.
  void add_row(const std::vector<Column>& row_columns, const std::vector<double>& row_values);
  // The matrix of the other direction: rows become columns.
  Weights transposed() const;
  WeightsView view() const;
  bool apply(const double* source, std::size_t components, double* target) const {
    return view().apply(source, components, target);
  }
  // nullptr when sound (row offsets, and every column within the columns).
  const char* defect() const;
};

}  // namespace lockstep::mapping
