#include "records/file_system.h"

#include <gtest/gtest.h>

#include "memory_file_system.h"

namespace lockstep::records {
namespace {

TEST(TemporaryFileTest, NamesAreFreshSiblingsAndNeverReplaceAnything) {
  testing::MemoryFileSystem fs;
  fs.add_directory("/run/fields");
  std::string first, second;
  const int fd = create_temporary(fs, "/run/fields/u.npy", first);
  ASSERT_GE(fd, 0);
  ASSERT_GE(create_temporary(fs, "/run/fields/u.npy", second), 0);
  EXPECT_NE(first, second);
  EXPECT_EQ(first.rfind("/run/fields/.u.npy.", 0), 0u) << first;
  EXPECT_TRUE(is_temporary_name(first.substr(first.rfind('/') + 1))) << first;
  // An existing name is never opened for writing.
  EXPECT_EQ(fs.open(first, OpenMode::kCreateNew), -EEXIST);
  EXPECT_EQ(create_temporary(fs, "/missing/u.npy", first), -ENOENT);

  for (const char* name : {".u.npy.0123456789abcdef.tmp", ".1.fedcba9876543210.tmp"}) {
    EXPECT_TRUE(is_temporary_name(name)) << name;
  }
  for (const char* name : {"u.npy.0123456789abcdef.tmp", ".u.npy.4242.tmp", ".u.npy.0123456789abcdeg.tmp",
                           ".0123456789abcdef.tmp", "abandoned-1", ".u.npy.0123456789abcdef.tm"}) {
    EXPECT_FALSE(is_temporary_name(name)) << name;
  }
}

}  // namespace
}  // namespace lockstep::records
