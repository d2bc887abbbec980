// A project's checkpoints: DIR/checkpoints/C/ holds the project's field
// files as they stood when its solver, in the cycle-end request of the
// run's cycle C, said it had saved its own state. Field files are only ever
// replaced, never written in place, so a checkpoint holds hard links to them
// (copies where the file system has no hard links).
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace lockstep::resume {

inline constexpr const char* kCheckpointDirectory = "checkpoints";

// Records that the project in `directory` can restart after cycle `cycle`:
// its fields as they stand now go to checkpoints/CYCLE, which appears whole
// or not at all (and replaces an older record of the same cycle).
bool record_checkpoint(const std::string& directory, std::int32_t cycle, std::string& error);

// The cycles recorded in `directory`, oldest first.
std::vector<std::int32_t> recorded_cycles(const std::string& directory);

// One change to the tree, as `lockstepctl resume` lists it before making it.
struct Change {
  std::string text;  // "sub1: fields/out/u.npy restored from checkpoints/80"
  std::function<bool(std::string& error)> make;
};

// The changes that put the fields of the project in `directory` (called
// `name` in the texts) as they were after `cycle`: each field of the
// checkpoint restored, fields written after it and temporary files left by
// a killed writer removed.
std::vector<Change> restore_fields(const std::string& directory, const std::string& name, std::int32_t cycle);

// A resume that goes on after `cycle` ends the timeline those after it
// belong to: the changes that move each checkpoint after `cycle` into
// checkpoints/abandoned-K (K the first number free), where no resume looks.
std::vector<Change> set_aside_checkpoints(const std::string& directory, const std::string& name, std::int32_t cycle);

// The cycles of every checkpoints/abandoned-K of `directory`, oldest first.
std::vector<std::int32_t> set_aside_cycles(const std::string& directory);

// Copies `from` to `to` with its bytes only; `to` is created new, and
// nothing that has its name (a file, a link) is written through.
bool copy_file(const std::string& from, const std::string& to, std::string& error);

}  // namespace lockstep::resume
