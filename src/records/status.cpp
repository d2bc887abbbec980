#include "records/status.h"

#include <cerrno>
#include <cstring>
#include <utility>

namespace lockstep::records {

std::string_view message_format(int number) {
  switch (number) {
    case error::kPermissionDenied: return "permission to access file denied, unit %d, file %s";
    case error::kEndOfFile: return "end-of-file during read, unit %d, file %s";
    case error::kFileNotFound: return "file not found, unit %d, file %s";
    case error::kOpenFailure: return "open failure, unit %d, file %s";
    case error::kWriteError: return "error during write, unit %d, file %s";
    case error::kReadError: return "error during read, unit %d, file %s";
    case error::kNoSuchDevice: return "no such device, unit %d, file %s";
    case error::kFileNameError: return "file name specification error, unit %d, file %s";
    case error::kSyntaxError: return "list-directed I/O syntax error, unit %d, file %s";
    case error::kConversionError: return "input conversion error, unit %d, file %s";
    default: return "record error, unit %d, file %s";
  }
}

int open_error_number(int os_error) {
  switch (os_error) {
    case ENOENT: return error::kFileNotFound;
    case EACCES:
    case EROFS: return error::kPermissionDenied;
    case ENXIO: return error::kNoSuchDevice;
    case ENOTDIR:
    case ENAMETOOLONG: return error::kFileNameError;
    default: return error::kOpenFailure;
  }
}

std::string os_error_text(int os_error) {
  // strerror_r has two incompatible signatures; strerror is fine in a
  // single-threaded process.
  return std::strerror(os_error);
}

Status Status::failure(int number, int unit, std::string path_name, int os_error) {
  Status status;
  status.number_ = number;
  status.unit_ = unit;
  status.os_error_ = os_error;
  status.path_name_ = std::move(path_name);
  return status;
}

Status& Status::within(std::string context) & {
  if (!ok()) trail_.push_back(std::move(context));
  return *this;
}

Status&& Status::within(std::string context) && {
  if (!ok()) trail_.push_back(std::move(context));
  return std::move(*this);
}

std::string Status::headline() const {
  std::string line = "recio: severe (" + std::to_string(number_) + "): ";
  const std::string_view format = message_format(number_);
  for (std::size_t i = 0; i < format.size(); ++i) {
    if (format[i] == '%' && i + 1 < format.size() && format[i + 1] == 'd') {
      line += std::to_string(unit_);
      ++i;
    } else if (format[i] == '%' && i + 1 < format.size() && format[i + 1] == 's') {
      line += path_name_;
      ++i;
    } else {
      line += format[i];
    }
  }
  return line;
}

}  // namespace lockstep::records
