#include "records/output.h"

#include <utility>

#include "records/field.h"

namespace lockstep::records {
namespace {

constexpr std::size_t kFreeFormIntegerWidth = 12;

// Writes all of `line`; 0 or a negated system error number.
int write_all(FileSystem& fs, int fd, std::string_view line) {
  while (!line.empty()) {
    const ssize_t written = fs.write(fd, line.data(), line.size());
    if (written < 0) return static_cast<int>(written);
    line.remove_prefix(static_cast<std::size_t>(written));
  }
  return 0;
}

}  // namespace

FreeFormRecord& FreeFormRecord::text(std::string_view item) {
  if (previous_ != Previous::kText) bytes_ += ' ';
  bytes_ += item;
  previous_ = Previous::kText;
  return *this;
}

FreeFormRecord& FreeFormRecord::integer(std::int32_t item) {
  bytes_ += format_integer(item, kFreeFormIntegerWidth);
  previous_ = Previous::kInteger;
  return *this;
}

FixedFormRecord& FixedFormRecord::literal(std::string_view field) {
  bytes_ += field;
  return *this;
}

FixedFormRecord& FixedFormRecord::integer(std::int32_t value, std::size_t width) {
  bytes_ += format_integer(value, width);
  return *this;
}

Status OutputFile::failure(int number, std::string_view operation, int os_error) const {
  Status status = Status::failure(number, unit_, full_path_name(fs_, name_), os_error);
  return std::move(status).within(std::string(operation) + ": " + os_error_text(os_error));
}

Status OutputFile::open_for_replacement(int unit, std::string name) {
  descriptor_.reset();
  unit_ = unit;
  name_ = std::move(name);
  const int fd = fs_.open(name_, OpenMode::kReplace);
  if (fd < 0) return failure(open_error_number(-fd), "open for replacement", -fd);
  descriptor_ = Descriptor(fs_, fd);
  return {};
}

Status OutputFile::write(std::string_view line) {
  if (const int result = write_all(fs_, descriptor_.get(), line); result < 0) {
    return failure(error::kWriteError, "record write", -result);
  }
  return {};
}

Status OutputFile::close() {
  if (const int result = descriptor_.close(); result < 0) {
    return failure(error::kWriteError, "close", -result);
  }
  return {};
}

Status write_standard_output(FileSystem& fs, std::string_view line) {
  if (const int result = write_all(fs, kStandardOutputFd, line); result < 0) {
    Status status = Status::failure(error::kWriteError, unit::kStandardOutput, "standard output", -result);
    return std::move(status).within("record write: " + os_error_text(-result));
  }
  return {};
}

}  // namespace lockstep::records
