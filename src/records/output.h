// Record output: free-form and fixed-form records, and files opened for
// replacement.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "records/file_system.h"
#include "records/status.h"

namespace lockstep::records {

// Items laid out the free-form way: a leading blank before a first text
// item, 12-column integer fields, one blank between an integer and a
// following text, nothing between two texts.
class FreeFormRecord {
 public:
  FreeFormRecord& text(std::string_view item);
  FreeFormRecord& integer(std::int32_t item);
  // The record with its line feed.
  std::string line() const { return bytes_ + '\n'; }

 private:
  enum class Previous { kNone, kText, kInteger };
  std::string bytes_;
  Previous previous_ = Previous::kNone;
};

// Literal fields and integer fields of given widths, nothing before the
// first field.
class FixedFormRecord {
 public:
  FixedFormRecord& literal(std::string_view field);
  FixedFormRecord& integer(std::int32_t value, std::size_t width);
  std::string line() const { return bytes_ + '\n'; }

 private:
  std::string bytes_;
};

// A file opened for replacement: the same file, truncated in place, created
// with 0666 less the umask when missing; never removed or renamed.
class OutputFile {
 public:
  explicit OutputFile(FileSystem& fs) : fs_(fs) {}

  Status open_for_replacement(int unit, std::string name);
  // Writes `line` whole, continuing after short writes.
  Status write(std::string_view line);
  Status close();

 private:
  Status failure(int number, std::string_view operation, int os_error) const;

  FileSystem& fs_;
  int unit_ = 0;
  std::string name_;
  Descriptor descriptor_;
};

// Writes one record to standard output at once, unbuffered.
Status write_standard_output(FileSystem& fs, std::string_view line);

}  // namespace lockstep::records
