// A mapping's weights: a sparse matrix in compressed rows, one row per
// target point, one column per source point. Applying it maps values on
// the source mesh to values on the target mesh.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace lockstep::mapping {

// A source point's index in the weights: meshes hold fewer than 2^31
// points, and four bytes a weight less is a quarter less to read per stage.
using Column = std::int32_t;

// The same matrix in memory someone else owns (mapped weight files).
struct WeightsView {
  std::size_t rows = 0, columns = 0, count = 0;  // count: the number of weights
  const std::int64_t* row_start = nullptr;       // rows + 1
  const Column* column_of = nullptr;             // count
  const double* value = nullptr;                 // count

  // target (rows x components) = this * source (columns x components),
  // both row by row. False, with `target` undefined, when a column lies
  // outside the source mesh: checked here, in the one pass over them.
  bool apply(const double* source, std::size_t components, double* target) const;
  // nullptr when the row offsets are sound (rising from 0 to the number of
  // values), else what is wrong.
  const char* defect() const;
};

struct Weights {
  std::size_t rows = 0, columns = 0;
  std::vector<std::int64_t> row_start{0};  // rows + 1 offsets into column_of and value
  std::vector<Column> column_of;
  std::vector<double> value;

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
