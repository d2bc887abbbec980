#include "resume/record.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>

#include "records/file_system.h"
#include "records/status.h"

namespace lockstep::resume {
namespace {

constexpr std::string_view kTitle = "lockstep resume record\n";
constexpr std::size_t kRecordLimit = 1024;

struct Key {
  const char* name;
  std::int32_t Record::*value;
};
constexpr Key kKeys[] = {{"resumes_after_cycle", &Record::after_cycle},
                         {"time_step", &Record::time_step},
                         {"cycle_num", &Record::cycle_num},
                         {"num_subprojects", &Record::num_subprojects}};

}  // namespace

std::string format_record(const Record& record) {
  std::string text(kTitle);
  for (const Key& key : kKeys) {
    text.append(key.name).append(" ").append(std::to_string(record.*key.value)).append("\n");
  }
  return text;
}

bool parse_record(std::string_view text, Record& record, std::string& error) {
  if (text.substr(0, kTitle.size()) != kTitle) {
    error = "it does not begin with \"lockstep resume record\"";
    return false;
  }
  text.remove_prefix(kTitle.size());
  Record parsed;
  for (const Key& key : kKeys) {
    const std::size_t end = text.find('\n');
    const std::string_view line = text.substr(0, end);
    const std::string_view name = key.name;
    std::int32_t value = 0;
    const char* number = line.data() + std::min(line.size(), name.size() + 1);
    const auto [stop, failure] = std::from_chars(number, line.data() + line.size(), value);
    if (end == std::string_view::npos || line.substr(0, name.size() + 1) != std::string(name) + " " ||
        failure != std::errc() || stop != line.data() + line.size() || value < 0) {
      error = "no line \"" + std::string(name) + " N\" where it belongs";
      return false;
    }
    parsed.*key.value = value;
    text.remove_prefix(end + 1);
  }
  if (!text.empty() || parsed.after_cycle >= parsed.cycle_num) {
    error = text.empty() ? "it resumes after cycle " + std::to_string(parsed.after_cycle) + " of a run of " +
                               std::to_string(parsed.cycle_num)
                         : "it holds more than its four lines";
    return false;
  }
  record = parsed;
  return true;
}

ReadOutcome read_record(const std::string& directory, Record& record, std::string& error) {
  const std::string path = directory + "/" + kRecordFile;
  records::PosixFileSystem fs;
  records::Descriptor file(fs, ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  if (!file.valid()) {
    if (errno == ENOENT) return ReadOutcome::kMissing;
    error = "cannot read " + path + ": " + records::os_error_text(errno);
    return ReadOutcome::kError;
  }
  // Written by lockstepctl resume, perhaps on another machine.
  records::read_past_cache(file.get());
  std::string text(kRecordLimit + 1, '\0');
  std::size_t have = 0;
  for (ssize_t got = 1; got > 0 && have < text.size(); have += static_cast<std::size_t>(got)) {
    got = fs.read(file.get(), text.data() + have, text.size() - have);
    if (got < 0) {
      error = "cannot read " + path + ": " + records::os_error_text(static_cast<int>(-got));
      return ReadOutcome::kError;
    }
  }
  text.resize(have);
  std::string why;
  if (!parse_record(text, record, why)) {
    error = path + " is no resume record: " + why + "; it is written by lockstepctl resume";
    return ReadOutcome::kError;
  }
  return ReadOutcome::kRead;
}

bool replace_file(const std::string& path, const std::string& content, std::string& error) {
  std::string temporary;
  records::PosixFileSystem fs;
  records::Descriptor file(fs, records::create_temporary(fs, path, temporary));
  const bool created = file.valid();
  int os_error = created ? 0 : -file.get();
  if (created) {
    const ssize_t written = fs.write(file.get(), content.data(), content.size());
    os_error = written < 0 ? static_cast<int>(-written) : written != static_cast<ssize_t>(content.size()) ? EIO : 0;
    if (const int closed = file.close(); os_error == 0) os_error = -closed;
  }
  if (os_error == 0 && ::rename(temporary.c_str(), path.c_str()) != 0) os_error = errno;
  if (os_error == 0) return true;
  if (created) ::unlink(temporary.c_str());
  error = "cannot write " + path + ": " + records::os_error_text(os_error);
  return false;
}

bool write_record(const std::string& directory, const Record& record, std::string& error) {
  return replace_file(directory + "/" + kRecordFile, format_record(record), error);
}

}  // namespace lockstep::resume
