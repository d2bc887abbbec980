// Field files on disk: written whole to a temporary file beside the field
// and renamed over it, so that a reader sees the old field or the new one,
// never a mix; read with their size checked against their header.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "format.h"

namespace lockstep::fields {

// "DIR/fields/out/NAME.npy" or "DIR/fields/in/NAME.npy".
std::string field_path(const std::string& project_directory, Role role, const std::string& name);

// What a wrong output name is weighed against: "the outputs main has
// published: T, v", at most the first 20 by name, or "main has published
// no output".
std::string published_outputs(const std::string& project_directory, int project);

// Writes the header and `data` (the values in the header's order); creates
// the fields directories when missing. False with the reason in `error`.
bool write_field(const std::string& path, const Header& header, const void* data, std::string& error);

enum class ReadOutcome {
  kRead,
  kMissing,
  kError,
  // On a network file system: the file's size disagrees with its header,
  // or it changed while being read. The view of a file replaced elsewhere
  // may lag; a later read may see it whole.
  kUnsettled,
};

// Reads the header, asks `destination` where the values go (it may refuse by
// returning nullptr, having set `error`), and reads them there. On a network
// file system the file's cached pages are dropped first, and `remote`, when
// given, is set.
ReadOutcome read_field(const std::string& path, Header& header,
                       const std::function<void*(const Header&, std::string& error)>& destination,
                       std::string& error, bool* remote = nullptr);

// A destination for read_field that takes any field into `buffer`, resized
// to its values.
LOCKSTEP_API std::function<void*(const Header&, std::string&)> into_buffer(std::vector<char>& buffer);

// Reads only the header (the file's size checked against it).
ReadOutcome read_header(const std::string& path, Header& header, std::string& error);

}  // namespace lockstep::fields
