#include "fields/store.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <filesystem>

#include "records/file_system.h"
#include "records/status.h"

namespace lockstep::fields {
namespace {

bool write_all(int fd, const char* data, std::size_t size, int& os_error) {
  while (size > 0) {
    const ssize_t written = ::write(fd, data, size);
    if (written < 0) {
      if (errno == EINTR) continue;
      os_error = errno;
      return false;
    }
    data += written;
    size -= static_cast<std::size_t>(written);
  }
  return true;
}

// Reads up to `size` bytes; fewer only at the end of the file.
ssize_t read_all(int fd, char* data, std::size_t size) {
  std::size_t have = 0;
  while (have < size) {
    const ssize_t got = ::read(fd, data + have, size - have);
    if (got < 0) {
      if (errno == EINTR) continue;
      return -1;
    }
    if (got == 0) break;
    have += static_cast<std::size_t>(got);
  }
  return static_cast<ssize_t>(have);
}

bool make_directory(const std::string& path, std::string& error) {
  if (::mkdir(path.c_str(), 0777) == 0 || errno == EEXIST) return true;
  error = "cannot create " + path + ": " + records::os_error_text(errno);
  return false;
}

std::string parent(const std::string& path) { return path.substr(0, path.rfind('/')); }

// Puts `temporary` in the field's place in one step, as rename does. Where
// the field exists, the two names are exchanged and the old field, now under
// the temporary name, goes: a rename over an existing file makes ext4 start
// writing the new file out at once, which costs close to a millisecond a
// field. Where nothing can be exchanged (a first write, NFS, FUSE), a plain
// rename. 0 or the system's error number.
int replace(const std::string& temporary, const std::string& path) {
  if (::renameat2(AT_FDCWD, temporary.c_str(), AT_FDCWD, path.c_str(), RENAME_EXCHANGE) == 0) {
    // The field is in place; a temporary file left by a failed unlink holds
    // only the old values, and is named as one.
    ::unlink(temporary.c_str());
    return 0;
  }
  return ::rename(temporary.c_str(), path.c_str()) == 0 ? 0 : errno;
}

}  // namespace

std::string field_path(const std::string& project_directory, Role role, const std::string& name) {
  return project_directory + (role == Role::kOutput ? "/fields/out/" : "/fields/in/") + name + ".npy";
}

std::string published_outputs(const std::string& project_directory, int project) {
  constexpr std::size_t kListed = 20, kLookedAt = 100000;
  std::vector<std::string> names;
  std::error_code error;
  std::size_t looked = 0;
  for (std::filesystem::directory_iterator entry(project_directory + "/fields/out", error), end;
       !error && entry != end && looked < kLookedAt; entry.increment(error), ++looked) {
    const std::string name = entry->path().filename().string();
    if (name.size() > 4 && name.front() != '.' && name.ends_with(".npy")) names.push_back(name.substr(0, name.size() - 4));
  }
  if (names.empty()) return project_name(project) + " has published no output";
  std::sort(names.begin(), names.end());
  std::string listed = "the outputs " + project_name(project) + " has published: ";
  for (std::size_t i = 0; i < std::min(names.size(), kListed); ++i) listed += (i == 0 ? "" : ", ") + names[i];
  if (names.size() > kListed) listed += " and " + std::to_string(names.size() - kListed) + " more";
  return listed;
}

bool write_field(const std::string& path, const Header& header, const void* data, std::string& error) {
  const std::string directory = parent(path);
  if (!make_directory(parent(directory), error) || !make_directory(directory, error)) return false;
  std::size_t count = 0;
  if (!value_count(header.shape, count)) {
    error = "cannot write " + path + ": the shape holds too many values";
    return false;
  }
  std::string temporary;
  records::PosixFileSystem fs;
  records::Descriptor file(fs, records::create_temporary(fs, path, temporary));
  if (!file.valid()) {
    error = "cannot write " + path + ": " + records::os_error_text(-file.get());
    return false;
  }
  const std::string prefix = encode_header(header);
  int os_error = 0;
  bool written = write_all(file.get(), prefix.data(), prefix.size(), os_error) &&
                 write_all(file.get(), static_cast<const char*>(data), count * element_size(header.type), os_error);
  if (written) {
    const int closed = file.close();
    written = closed == 0;
    os_error = -closed;
  }
  if (const int replaced = written ? replace(temporary, path) : 0; replaced != 0) {
    error = "cannot rename " + temporary + " to " + path + ": " + records::os_error_text(replaced);
    ::unlink(temporary.c_str());
    return false;
  }
  if (!written) {
    error = "cannot write " + temporary + ": " + records::os_error_text(os_error);
    file.reset();
    ::unlink(temporary.c_str());
  }
  return written;
}

ReadOutcome read_field(const std::string& path, Header& header,
                       const std::function<void*(const Header&, std::string& error)>& destination,
                       std::string& error, bool* remote) {
  records::PosixFileSystem fs;
  // O_NONBLOCK: a FIFO planted there must not hang the reader.
  records::Descriptor file(fs, ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  if (!file.valid()) {
    if (errno == ENOENT) return ReadOutcome::kMissing;
    error = "cannot read " + path + ": " + records::os_error_text(errno);
    return ReadOutcome::kError;
  }
  struct stat info {};
  if (::fstat(file.get(), &info) != 0 || !S_ISREG(info.st_mode)) {
    error = "cannot read " + path + ": not a regular file";
    return ReadOutcome::kError;
  }
  const bool past_cache = records::read_past_cache(file.get());
  if (remote != nullptr) *remote = past_cache;
  const ReadOutcome torn = past_cache ? ReadOutcome::kUnsettled : ReadOutcome::kError;
  std::string prefix(std::min<std::size_t>(kHeaderLimit, static_cast<std::size_t>(info.st_size)), '\0');
  std::size_t offset = 0;
  if (read_all(file.get(), prefix.data(), prefix.size()) != static_cast<ssize_t>(prefix.size())) {
    error = "cannot read " + path + ": it changed while being read";
    return torn;
  }
  // The parts of a field put by many ranks may make its header longer.
  if (const std::size_t size = header_size(prefix);
      size > prefix.size() && size <= kLongestHeader && size <= static_cast<std::size_t>(info.st_size)) {
    const std::size_t had = prefix.size();
    prefix.resize(size);
    if (read_all(file.get(), prefix.data() + had, size - had) != static_cast<ssize_t>(size - had)) {
      error = "cannot read " + path + ": it changed while being read";
      return torn;
    }
  }
  if (!decode_header(prefix, header, offset, error)) {
    error = path + ": " + (error.empty() ? "cannot be read" : error);
    return ReadOutcome::kError;
  }
  std::size_t count = 0;
  if (!value_count(header.shape, count) ||
      static_cast<std::size_t>(info.st_size) != offset + count * element_size(header.type)) {
    error = path + ": " + std::to_string(info.st_size) + " bytes do not match its header (" +
            std::to_string(count) + " values of " + type_name(header.type) + ")";
    return torn;
  }
  if (!destination) return ReadOutcome::kRead;
  void* values = destination(header, error);
  if (values == nullptr) return ReadOutcome::kError;
  const std::size_t size = count * element_size(header.type);
  const std::size_t already = prefix.size() - offset;
  std::copy_n(prefix.data() + offset, std::min(already, size), static_cast<char*>(values));
  if (size > already &&
      read_all(file.get(), static_cast<char*>(values) + already, size - already) != static_cast<ssize_t>(size - already)) {
    error = "cannot read " + path + ": it changed while being read";
    return torn;
  }
  return ReadOutcome::kRead;
}

std::function<void*(const Header&, std::string&)> into_buffer(std::vector<char>& buffer) {
  return [&buffer](const Header& found, std::string&) -> void* {
    std::size_t count = 0;
    value_count(found.shape, count);
    buffer.resize(count * element_size(found.type));
    return buffer.data();
  };
}

ReadOutcome read_header(const std::string& path, Header& header, std::string& error) {
  return read_field(path, header, nullptr, error);
}

}  // namespace lockstep::fields
