// A mapping's weights: a sparse matrix in compressed rows, one row per
// target point, one column per source point. Applying it maps values on
// the source mesh to values on the target mesh.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace lockstep::mapping {

struct Weights {
  std::size_t rows = 0, columns = 0;
  std::vector<std::int64_t> row_start{0};  // rows + 1 offsets into column_of and value
  std::vector<std::int64_t> column_of;
  std::vector<double> value;

  // Appends the next row.
  void add_row(const std::vector<std::int64_t>& row_columns, const std::vector<double>& row_values);
  // The matrix of the other direction: rows become columns.
  Weights transposed() const;
  // target (rows x components) = this * source (columns x components),
  // both row by row.
  void apply(const double* source, std::size_t components, double* target) const;
  // nullptr when the structure is sound (offsets rising from 0 to the
  // number of values, every column within the columns), else what is wrong.
  const char* defect() const;
};

}  // namespace lockstep::mapping
