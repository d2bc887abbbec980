#include "fields/access.h"

#include <algorithm>
#include <chrono>
#include <charconv>
#include <thread>

#include "records/file_system.h"

namespace lockstep::fields {
namespace {

// What to add to a stale field's message when a network file system showed
// it so for `waited`: the mount, and the options that cause such a view.
std::string seen_through(const std::string& path, std::chrono::seconds waited) {
  return "; this machine has seen it so for " + std::to_string(waited.count()) + " s through " +
         records::mount_of(path) +
         ", and such a view may show an older copy of a file replaced on another machine: if the file there holds "
         "the right stamp (lockstepctl field show), mount the run tree here without auto_cache or kernel_cache "
         "(sshfs), nocto or a long actimeo (NFS), cache=loose (SMB)";
}

}  // namespace

std::optional<int> project_index(const std::string& directory) {
  std::string name = directory;
  while (name.size() > 1 && name.back() == '/') name.pop_back();
  name = name.substr(name.rfind('/') == std::string::npos ? 0 : name.rfind('/') + 1);
  if (name == "main") return 0;
  if (name == "sub**") return 100;
  if (name.size() < 4 || name.size() > 5 || name.compare(0, 3, "sub") != 0 || name[3] == '0') return std::nullopt;
  int index = 0;
  const auto [end, error] = std::from_chars(name.data() + 3, name.data() + name.size(), index);
  if (error != std::errc() || end != name.data() + name.size()) return std::nullopt;
  return index;
}

std::string project_directory(int project) {
  if (project == 0) return "../main";
  return project >= 100 ? "../sub**" : "../sub" + std::to_string(project);
}

Outcome put_field(const std::string& name, const std::string& path, const Stamp& stamp, const Values& values,
                  std::string& error) {
  if (error = check_name(name); !error.empty()) return Outcome::kError;
  if (values.shape.size() > kMaxRank) {
    error = "field \"" + name + "\" has " + std::to_string(values.shape.size()) + " dimensions; at most " +
            std::to_string(kMaxRank);
    return Outcome::kError;
  }
  std::size_t count = 0;
  if (!value_count(values.shape, count)) {
    error = "field \"" + name + "\" has an invalid shape " + shape_text(values.shape);
    return Outcome::kError;
  }
  if (!values.parts.empty()) {
    std::int64_t rows = 0;
    const bool fits = values.parts.size() <= kMaxParts && !values.shape.empty() &&
                      std::all_of(values.parts.begin(), values.parts.end(), [&](std::int64_t part) {
                        if (part < 0 || part > values.shape[0] - rows) return false;
                        rows += part;
                        return true;
                      });
    if (!fits || rows != values.shape[0]) {
      error = "field \"" + name + "\" of shape " + shape_text(values.shape) + " cannot have the parts " +
              parts_text(values.parts);
      return Outcome::kError;
    }
  }
  Header header{values.type, values.column_major && values.shape.size() > 1, values.shape, stamp, values.parts};
  return write_field(path, header, values.data, error) ? Outcome::kOk : Outcome::kError;
}

Outcome get_field(const std::string& name, const std::string& path,
                  const std::function<std::string(const std::optional<Stamp>&)>& check,
                  const Destination& destination, Header& header, std::string& error, const Settle& settle) {
  if (error = check_name(name); !error.empty()) return Outcome::kError;
  const auto started = std::chrono::steady_clock::now();
  auto pause = std::chrono::milliseconds{1};
  for (;;) {
    std::string stale;
    bool remote = false;
    const ReadOutcome outcome = read_field(
        path, header,
        [&](const Header& found, std::string& reason) -> void* {
          if (stale = check(found.stamp); !stale.empty()) return nullptr;
          return destination(found, reason);
        },
        error, &remote);
    if (outcome == ReadOutcome::kMissing) stale = check(std::nullopt);
    if (outcome == ReadOutcome::kRead && stale.empty()) return Outcome::kOk;
    const bool unsettled = outcome == ReadOutcome::kUnsettled || !stale.empty();
    // A network file system may show an older copy of a field replaced
    // elsewhere for a while: look again until it settles.
    const auto waited = std::chrono::steady_clock::now() - started;
    if (remote && unsettled && waited < settle.limit) {
      std::this_thread::sleep_for(pause);
      pause = std::min(pause * 2, settle.longest_pause);
      continue;
    }
    const std::string seen =
        remote && unsettled ? seen_through(path, std::chrono::duration_cast<std::chrono::seconds>(waited)) : "";
    if (!stale.empty()) {
      error = stale + seen;
      return Outcome::kStale;
    }
    error = "field \"" + name + "\": " + error + seen;
    return Outcome::kError;
  }
}

Destination into(const Values& values, std::vector<char>& scratch) {
  return [&values, &scratch](const Header& header, std::string& error) -> void* {
    if (header.type != values.type || header.shape != values.shape) {
      error = "it holds " + type_name(header.type) + " values of shape " + shape_text(header.shape) +
              ", not the " + type_name(values.type) + " values of shape " + shape_text(values.shape) + " asked for";
      return nullptr;
    }
    const bool same_order = header.column_major == values.column_major || header.shape.size() < 2;
    if (same_order) return values.data;
    std::size_t count = 0;
    value_count(header.shape, count);
    scratch.resize(count * element_size(header.type));
    return scratch.data();
  };
}

void finish_into(const Values& values, const Header& header, const std::vector<char>& scratch) {
  if (header.column_major == values.column_major || header.shape.size() < 2) return;
  reorder(header.shape, element_size(header.type), values.column_major, scratch.data(), values.data);
}

}  // namespace lockstep::fields
