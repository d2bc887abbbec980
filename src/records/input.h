// Record input: one connection to a text file, read record by record.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "records/file_system.h"
#include "records/status.h"

namespace lockstep::records {

enum class Access {
  kUnspecified,  // read-write, created when missing, read-only fallback
  kRead,         // read-only; the file must exist
};

// A connection: unit number, file name, access, position and read-ahead
// buffer. Every operation returns a status and prints nothing; the caller
// decides whether a failure is fatal. A failed read leaves the file open.
class InputFile {
 public:
  explicit InputFile(FileSystem& fs) : fs_(fs) {}

  Status open(int unit, std::string name, Access access);
  // The next record's first `width` characters, blank-padded when shorter.
  Status read_text(std::size_t width, std::string& text);
  // One list-directed integer from the next record on; a null value leaves
  // `value` unchanged.
  Status read_integer(std::optional<std::int32_t>& value);
  Status close();

  bool is_open() const { return descriptor_.valid(); }
  // Records consumed since the open: the line number of the last one read.
  long records_read() const { return records_read_; }
  // Failure status naming this connection's unit, full path and operation.
  Status failure(int number, std::string_view operation, int os_error = 0) const;

 private:
  Status next_record(std::string_view operation, std::string_view& record);

  FileSystem& fs_;
  int unit_ = 0;
  std::string name_;
  Descriptor descriptor_;
  std::vector<char> buffer_;
  std::size_t begin_ = 0;  // first unconsumed byte
  std::size_t end_ = 0;    // one past the last buffered byte
  long records_read_ = 0;
};

}  // namespace lockstep::records
