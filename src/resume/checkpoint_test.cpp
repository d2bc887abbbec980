#include "resume/checkpoint.h"

#include <gtest/gtest.h>

#include "process.h"

namespace lockstep::resume {
namespace {

using testing::read_file;
using testing::write_file;

// As every writer of fields does: a temporary file renamed over the field.
void replace(const std::filesystem::path& path, const std::string& content) {
  write_file(path.parent_path() / ".new.tmp", content);
  std::filesystem::rename(path.parent_path() / ".new.tmp", path);
}

// The texts of the changes, after making each.
std::vector<std::string> make(const std::vector<Change>& changes) {
  std::vector<std::string> texts;
  for (const Change& change : changes) {
    std::string error;
    EXPECT_TRUE(change.make(error)) << change.text << ": " << error;
    texts.push_back(change.text);
  }
  return texts;
}

TEST(CheckpointTest, AProjectsFieldsAreKeptAsTheyStoodAndRestored) {
  testing::TempDir dir;
  const std::filesystem::path project = dir.path() / "sub1";
  write_file(project / "fields/out/u.npy", "u after 1");
  write_file(project / "fields/in/left.npy", "left after 1");
  write_file(project / "fields/in/.left.npy.77.tmp", "half");
  std::string error;
  ASSERT_TRUE(record_checkpoint(project.string(), 1, error)) << error;
  // Fields are replaced, never written in place: the checkpoint keeps its
  // version when the field moves on.
  replace(project / "fields/out/u.npy", "u after 2");
  ASSERT_TRUE(record_checkpoint(project.string(), 2, error)) << error;
  // The same cycle again replaces its record whole.
  replace(project / "fields/in/left.npy", "left after 2, again");
  ASSERT_TRUE(record_checkpoint(project.string(), 2, error)) << error;
  write_file(project / "fields/out/v.npy", "v in 3");
  write_file(project / "fields/out/.u.npy.2.tmp", "u half in 3");
  std::filesystem::create_directories(project / "checkpoints/.9.1.tmp");
  std::filesystem::create_directories(project / "checkpoints/x3");
  EXPECT_EQ(recorded_cycles(project.string()), (std::vector<std::int32_t>{1, 2}));
  EXPECT_EQ(read_file(project / "checkpoints/2/fields/in/left.npy"), "left after 2, again");
  EXPECT_FALSE(std::filesystem::exists(project / "checkpoints/1/fields/in/.left.npy.77.tmp"));

  EXPECT_EQ(make(restore_fields(project.string(), "sub1", 1)),
            (std::vector<std::string>{"sub1: fields/in/.left.npy.77.tmp removed (left by a writer that was stopped)",
                                      "sub1: fields/in/left.npy restored from checkpoints/1",
                                      "sub1: fields/out/.u.npy.2.tmp removed (left by a writer that was stopped)",
                                      "sub1: fields/out/v.npy removed (written after cycle 1)",
                                      "sub1: fields/out/u.npy restored from checkpoints/1"}));
  EXPECT_EQ(read_file(project / "fields/out/u.npy"), "u after 1");
  EXPECT_EQ(read_file(project / "fields/in/left.npy"), "left after 1");
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(project / "fields/out"), {}), 1);
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(project / "fields/in"), {}), 1);
  EXPECT_EQ(read_file(project / "checkpoints/2/fields/out/u.npy"), "u after 2");
  // A fields directory removed whole comes back.
  std::filesystem::remove_all(project / "fields");
  EXPECT_EQ(make(restore_fields(project.string(), "sub1", 2)).size(), 2u);
  EXPECT_EQ(read_file(project / "fields/out/u.npy"), "u after 2");
}

TEST(CheckpointTest, ACheckpointThatCannotBeWrittenSaysWhy) {
  testing::TempDir dir;
  write_file(dir.path() / "fields/out/u.npy", "u");
  write_file(dir.path() / "checkpoints", "a file where the directory belongs");
  std::string error;
  EXPECT_FALSE(record_checkpoint(dir.path().string(), 1, error));
  EXPECT_EQ(error, "cannot create a directory beside " + dir.path().string() + "/checkpoints/1: Not a directory");
  EXPECT_TRUE(recorded_cycles(dir.path().string()).empty());
}

}  // namespace
}  // namespace lockstep::resume
