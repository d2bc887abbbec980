#include "records/input.h"

#include <cerrno>
#include <cstring>
#include <utility>

#include "records/list_directed.h"

namespace lockstep::records {
namespace {

constexpr std::size_t kInitialBuffer = 4096;
// Far beyond any real record; what reaches it is a device or a runaway file,
// and it must end in a diagnostic, not in exhausted memory.
constexpr std::size_t kRecordLimit = std::size_t{64} << 20;

bool is_list_blank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

}  // namespace

Status InputFile::failure(int number, std::string_view operation, int os_error) const {
  std::string context(operation);
  if (os_error != 0) context += ": " + os_error_text(os_error);
  Status status = Status::failure(number, unit_, full_path_name(fs_, name_), os_error);
  return std::move(status).within(std::move(context));
}

Status InputFile::open(int unit, std::string name, Access access) {
  descriptor_.reset();
  unit_ = unit;
  name_ = std::move(name);
  begin_ = end_ = 0;
  records_read_ = 0;
  if (buffer_.empty()) buffer_.resize(kInitialBuffer);

  int fd;
  if (access == Access::kRead) {
    fd = fs_.open(name_, OpenMode::kReadOnly);
    if (fd < 0) return failure(open_error_number(-fd), "open for reading", -fd);
  } else {
    fd = fs_.open(name_, OpenMode::kReadWriteCreate);
    if (fd == -EACCES || fd == -EROFS) fd = fs_.open(name_, OpenMode::kReadOnly);
    if (fd < 0) return failure(open_error_number(-fd), "open for reading and writing", -fd);
  }
  descriptor_ = Descriptor(fs_, fd);
  return {};
}

Status InputFile::next_record(std::string_view operation, std::string_view& record) {
  const auto take = [&](std::size_t length, std::size_t next) {
    if (length > 0 && buffer_[begin_ + length - 1] == '\r') --length;
    record = std::string_view(buffer_.data() + begin_, length);
    begin_ = next;
    ++records_read_;
  };
  const auto context = [&] {
    return std::string(operation) + ", record " + std::to_string(records_read_ + 1);
  };
  for (;;) {
    const auto* start = buffer_.data() + begin_;
    if (const auto* line_feed = static_cast<const char*>(std::memchr(start, '\n', end_ - begin_))) {
      const auto length = static_cast<std::size_t>(line_feed - start);
      take(length, begin_ + length + 1);
      return {};
    }
    if (begin_ > 0) {
      std::memmove(buffer_.data(), start, end_ - begin_);
      end_ -= begin_;
      begin_ = 0;
    }
    if (end_ == buffer_.size()) {
      if (buffer_.size() >= kRecordLimit) {
        return failure(error::kReadError, context() + ": no line end within the first 64 MiB");
      }
      buffer_.resize(2 * buffer_.size());
    }

    const std::size_t asked = buffer_.size() - end_;
    const ssize_t got = fs_.read(descriptor_.get(), buffer_.data() + end_, asked);
    if (got < 0) return failure(error::kReadError, context(), static_cast<int>(-got));
    if (got == 0) {
      // Bytes left without a line end can only follow a read that filled the
      // buffer exactly; they are the file's last record.
      if (end_ == begin_) return failure(error::kEndOfFile, context());
      take(end_ - begin_, end_);
      return {};
    }
    end_ += static_cast<std::size_t>(got);
    // A short read ends the file as it stands now: its last line, complete or
    // still being written, becomes a record.
    if (static_cast<std::size_t>(got) < asked && buffer_[end_ - 1] != '\n') buffer_[end_++] = '\n';
  }
}

Status InputFile::read_text(std::size_t width, std::string& text) {
  std::string_view record;
  if (Status status = next_record("fixed-width text read", record); !status.ok()) return status;
  text.assign(record.substr(0, width));
  text.resize(width, ' ');
  return {};
}

Status InputFile::read_integer(std::optional<std::int32_t>& value) {
  constexpr std::string_view kOperation = "list-directed integer read";
  std::string_view record;
  std::size_t first = 0;
  do {
    if (Status status = next_record(kOperation, record); !status.ok()) return status;
    first = 0;
    while (first < record.size() && is_list_blank(record[first])) ++first;
  } while (first == record.size());

  const ListValue parsed = parse_list_value(record.substr(first));
  const auto in_record = [&] { return std::string(kOperation) + ", record " + std::to_string(records_read_); };
  switch (parsed.kind) {
    case ListValue::Kind::kInteger: value = parsed.value; return {};
    case ListValue::Kind::kNull: return {};
    case ListValue::Kind::kSyntaxError: return failure(error::kSyntaxError, in_record());
    case ListValue::Kind::kConversionError: return failure(error::kConversionError, in_record());
  }
  return {};
}

Status InputFile::close() {
  const int result = descriptor_.close();
  if (result < 0) return failure(error::kReadError, "close", -result);
  return {};
}

}  // namespace lockstep::records
