#include "records/output.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <climits>

#include "memory_file_system.h"
#include "process.h"
#include "records/field.h"

namespace lockstep::records {
namespace {

TEST(FieldTest, IntegerFieldsAtTheirEdgesAndConcatenation) {
  struct Case {
    std::int64_t value;
    std::size_t width;
    const char* expected;
  };
  const Case cases[] = {
      {7, 1, "7"},       {12, 1, "*"},         {-1, 1, "*"},           {12, 2, "12"},
      {100, 2, "**"},    {-9, 2, "-9"},        {-10, 2, "**"},         {1, 5, "    1"},
      {99999, 5, "99999"}, {100000, 5, "*****"}, {-9999, 5, "-9999"},  {1, 12, "           1"},
      {0, 12, "           0"}, {INT32_MAX, 12, "  2147483647"}, {INT32_MIN, 12, " -2147483648"},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(format_integer(c.value, c.width), c.expected) << c.value << " in " << c.width;
  }
  // Concatenation fills or cuts.
  EXPECT_EQ(concatenate({"../sub", "3", "/"}, 8), "../sub3/");
  EXPECT_EQ(concatenate({"ab", "cd"}, 6), "abcd  ");
  EXPECT_EQ(concatenate({"ab", "cd", "ef"}, 3), "abc");
  EXPECT_EQ(concatenate({"  a ", " "}, 5), "  a  ");
}

// Fields too narrow for their value fill with asterisks.
TEST(FixedFormRecordTest, Overflow) {
  EXPECT_EQ(FixedFormRecord().literal("cycle=").integer(10000, 4).literal(" step=").integer(1, 2).line(),
            "cycle=**** step= 1\n");
}

// The same file rewritten in place; a new one read-write for all less the
// umask.
TEST(OutputFileTest, ReplacementKeepsTheFileAndNewFilesFollowTheUmask) {
  testing::TempDir dir;
  const std::string path = (dir.path() / "go.dat").string();
  testing::write_file(path, "a much longer previous line that must vanish\nand a second\n");
  const ino_t before = testing::inode(path);
  PosixFileSystem fs;
  OutputFile file(fs);
  ASSERT_TRUE(file.open_for_replacement(unit::kProjectFile, path).ok());
  ASSERT_TRUE(file.write(" -1000 0 0 0\n").ok());
  ASSERT_TRUE(file.close().ok());
  EXPECT_EQ(testing::read_file(path), " -1000 0 0 0\n");
  EXPECT_EQ(testing::inode(path), before);

  const std::string fresh = (dir.path() / "new.dat").string();
  const mode_t old_mask = umask(027);
  const Status opened = file.open_for_replacement(unit::kProjectFile, fresh);
  umask(old_mask);
  ASSERT_TRUE(opened.ok());
  ASSERT_TRUE(file.close().ok());
  EXPECT_EQ(std::filesystem::status(fresh).permissions(), std::filesystem::perms{0640});
}

TEST(OutputFileTest, FailuresCarryTheSystemReason) {
  testing::MemoryFileSystem fs;
  OutputFile file(fs);
  const Status missing = file.open_for_replacement(unit::kProjectFile, "../sub1/go.dat");
  EXPECT_EQ(missing.headline(), "recio: severe (29): file not found, unit 10, file /run/../sub1/go.dat");
  EXPECT_EQ(missing.os_error(), ENOENT);
  EXPECT_EQ(missing.trail(), std::vector<std::string>{"open for replacement: No such file or directory"});

  fs.fail("write", "go.dat", 1, ENOSPC);
  ASSERT_TRUE(file.open_for_replacement(unit::kProjectFile, "go.dat").ok());
  EXPECT_EQ(file.write("x\n").number(), error::kWriteError);
  fs.fail("close", "go.dat", 1, EIO);
  EXPECT_EQ(file.close().os_error(), EIO);
}

}  // namespace
}  // namespace lockstep::records
