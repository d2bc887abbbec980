#include "mapping/weights.h"

#include <algorithm>
#include <atomic>
#include <cstring>

#include <sys/mman.h>

#include "mapping/cores.h"

namespace lockstep::mapping {

void* allocate_huge(std::size_t bytes) {
  constexpr std::size_t kPage = Uninitialised<char>::kHugeBytes;
  if (bytes > SIZE_MAX - kPage) return nullptr;
  void* memory = std::aligned_alloc(kPage, (bytes + kPage - 1) / kPage * kPage);
  // Advice only: without huge pages the memory serves as well.
  if (memory != nullptr) ::madvise(memory, bytes, MADV_HUGEPAGE);
  return memory;
}

void Weights::add_row(const std::vector<Column>& row_columns, const std::vector<double>& row_values) {
  column_of.insert(column_of.end(), row_columns.begin(), row_columns.end());
  value.insert(value.end(), row_values.begin(), row_values.end());
  row_start.push_back(static_cast<std::int64_t>(value.size()));
  ++rows;
}

Weights Weights::transposed() const {
  Weights other;
  other.rows = columns;
  other.columns = rows;
  other.row_start.assign(columns + 1, 0);
  for (const Column column : column_of) ++other.row_start[static_cast<std::size_t>(column) + 1];
  for (std::size_t i = 0; i < columns; ++i) other.row_start[i + 1] += other.row_start[i];
  other.column_of.resize(value.size());
  other.value.resize(value.size());
  std::vector<std::int64_t> next(other.row_start.begin(), other.row_start.end() - 1);
  for (std::size_t row = 0; row < rows; ++row) {
    for (auto at = static_cast<std::size_t>(row_start[row]); at < static_cast<std::size_t>(row_start[row + 1]); ++at) {
      const auto to = static_cast<std::size_t>(next[static_cast<std::size_t>(column_of[at])]++);
      other.column_of[to] = static_cast<Column>(row);
      other.value[to] = value[at];
    }
  }
  return other;
}

WeightsView Weights::view() const {
  return {rows, columns, value.size(), row_start.data(), column_of.data(), value.data()};
}

namespace {

// A weight's word in the checksum: its value's bits, its column spread over
// all 64 bits.
std::uint64_t checksum_word(Column column, double value) {
  std::uint64_t bits;
  std::memcpy(&bits, &value, sizeof bits);
  return bits ^ (static_cast<std::uint64_t>(static_cast<std::uint32_t>(column)) * 0x9e3779b97f4a7c15ULL);
}

// Rows [first, last) of target = weights * source for one component, with
// each row's sum and, when audited, the checksum of what was read. Four
// partial sums: with one, the chain of additions, not the reads, would set
// the pace. False when a column lies outside the source mesh.
template <bool kAudit>
bool apply_rows(const WeightsView& weights, const double* source, double* target, std::size_t first, std::size_t last,
                double* row_sums, Checksum& checksum) {
  const std::int64_t* const row_start = weights.row_start;
  const Column* const column_of = weights.column_of;
  const double* const value = weights.value;
  const std::size_t columns = weights.columns;
  for (std::size_t row = first; row < last; ++row) {
    const auto begin = static_cast<std::size_t>(row_start[row]), end = static_cast<std::size_t>(row_start[row + 1]);
    double sum[4] = {}, total[4] = {};
    std::uint64_t words = 0, placed = 0;
    const auto add = [&](std::size_t at, int lane) {
      const auto column = static_cast<std::size_t>(column_of[at]);
      if (column >= columns) return false;
      sum[lane] += value[at] * source[column];
      total[lane] += value[at];
      if constexpr (kAudit) {
        const std::uint64_t word = checksum_word(column_of[at], value[at]);
        words += word;
        placed += word * at;
      }
      return true;
    };
    std::size_t at = begin;
    for (; at + 4 <= end; at += 4) {
      if (!(add(at, 0) && add(at + 1, 1) && add(at + 2, 2) && add(at + 3, 3))) return false;
    }
    for (; at < end; ++at) {
      if (!add(at, 0)) return false;
    }
    target[row] = (sum[0] + sum[1]) + (sum[2] + sum[3]);
    if constexpr (kAudit) {
      row_sums[row] = (total[0] + total[1]) + (total[2] + total[3]);
      checksum.add_sums(words, placed);
      checksum.add(end, weights.count + row);
    }
  }
  return true;
}

// The same for several components a point, one weight at a time.
bool apply_rows(const WeightsView& weights, const double* source, std::size_t components, double* target,
                std::size_t first, std::size_t last, double* row_sums, Checksum* checksum) {
  for (std::size_t row = first; row < last; ++row) {
    const auto begin = static_cast<std::size_t>(weights.row_start[row]);
    const auto end = static_cast<std::size_t>(weights.row_start[row + 1]);
    double total = 0;
    std::uint64_t words = 0, placed = 0;
    double* out = target + row * components;
    std::fill(out, out + components, 0.0);
    for (std::size_t at = begin; at < end; ++at) {
      const auto column = static_cast<std::size_t>(weights.column_of[at]);
      if (column >= weights.columns) return false;
      for (std::size_t k = 0; k < components; ++k) out[k] += weights.value[at] * source[column * components + k];
      total += weights.value[at];
      if (checksum != nullptr) {
        const std::uint64_t word = checksum_word(weights.column_of[at], weights.value[at]);
        words += word;
        placed += word * at;
      }
    }
    if (checksum != nullptr) {
      row_sums[row] = total;
      checksum->add_sums(words, placed);
      checksum->add(end, weights.count + row);
    }
  }
  return true;
}

}  // namespace

bool WeightsView::apply(const double* source, std::size_t components, double* target, Audit* audit) const {
  // Rows in blocks over every core: a stage's product reads every weight
  // once, and memory, not arithmetic, bounds it.
  const unsigned cores = count * components < 1000000 ? 1 : core_count();
  if (audit != nullptr) audit->row_sums.resize(rows);
  double* const row_sums = audit != nullptr ? audit->row_sums.data() : nullptr;
  std::vector<Checksum> checksums(cores);
  std::atomic<bool> sound{true};
  run_parts(cores, [&](unsigned part) {
    const std::size_t first = part_begin(rows, part, cores), last = part_begin(rows, part + 1, cores);
    Checksum& checksum = checksums[part];
    bool fine;
    if (components != 1) {
      fine = apply_rows(*this, source, components, target, first, last, row_sums, audit != nullptr ? &checksum : nullptr);
    } else if (audit != nullptr) {
      fine = apply_rows<true>(*this, source, target, first, last, row_sums, checksum);
    } else {
      fine = apply_rows<false>(*this, source, target, first, last, row_sums, checksum);
    }
    if (!fine) sound = false;
  });
  if (audit != nullptr) {
    audit->checksum = {};
    for (const Checksum& part : checksums) audit->checksum.add(part);
  }
  return sound;
}

Checksum WeightsView::checksum() const {
  // A sum: its parts are summed on every core.
  const unsigned cores = count < 1000000 ? 1 : core_count();
  std::vector<Checksum> parts(cores);
  run_parts(cores, [&](unsigned part) {
    for (std::size_t row = part_begin(rows, part, cores); row < part_begin(rows, part + 1, cores); ++row) {
      const auto end = static_cast<std::size_t>(row_start[row + 1]);
      for (auto at = static_cast<std::size_t>(row_start[row]); at < end; ++at) {
        parts[part].add(checksum_word(column_of[at], value[at]), at);
      }
      parts[part].add(end, count + row);
    }
  });
  Checksum checksum;
  for (const Checksum& part : parts) checksum.add(part);
  return checksum;
}

const char* Weights::defect() const {
  if (row_start.size() != rows + 1 || column_of.size() != value.size()) return "its row offsets do not match its values";
  if (const char* wrong = view().defect(); wrong != nullptr) return wrong;
  for (const Column column : column_of) {
    if (column < 0 || static_cast<std::size_t>(column) >= columns) return "a column lies outside the source mesh";
  }
  return nullptr;
}

const char* WeightsView::defect() const {
  if (row_start[0] != 0 || row_start[rows] < 0 || static_cast<std::size_t>(row_start[rows]) != count) {
    return "its row offsets do not match its values";
  }
  for (std::size_t row = 0; row < rows; ++row) {
    if (row_start[row + 1] < row_start[row]) return "its row offsets fall";
  }
  return nullptr;
}

}  // namespace lockstep::mapping
