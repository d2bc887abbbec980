#include "records/file_system.h"

#include <gtest/gtest.h>

#include <sstream>

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

// Which mount a path lies on: the longest mount point that is the path or
// a parent of it, never one that merely starts with the same letters.
TEST(MountTest, APathLiesOnTheDeepestMountThatHoldsIt) {
  const std::string table =
      "22 1 8:1 / / rw,relatime shared:1 - ext4 /dev/vda rw\n"
      "40 22 0:35 / /mnt/view rw,nosuid - fuse.sshfs host:/srv rw,user_id=0\n"
      "41 40 0:36 / /mnt/view/inner rw - nfs server:/x rw,vers=4.2\n"
      "42 22 0:37 / /mnt/view2 rw - tmpfs tmpfs rw\n";
  const struct {
    const char* path;
    const char* mount;
  } cases[] = {
      {"/", "ext4 at /"},
      {"/home/user/run", "ext4 at /"},
      {"/mnt/view", "fuse.sshfs at /mnt/view"},
      {"/mnt/view/run/sub1/fields", "fuse.sshfs at /mnt/view"},
      {"/mnt/view/inner", "nfs at /mnt/view/inner"},
      {"/mnt/view/inner/a", "nfs at /mnt/view/inner"},
      {"/mnt/view/innerb", "fuse.sshfs at /mnt/view"},
      {"/mnt/view2/a", "tmpfs at /mnt/view2"},
      {"/mnt/viewer", "ext4 at /"},
  };
  for (const auto& c : cases) {
    std::istringstream mounts(table);
    EXPECT_EQ(mount_in(c.path, mounts), c.mount) << c.path;
  }
  std::istringstream nothing("");
  EXPECT_EQ(mount_in("/a", nothing), "an unknown mount");
}

}  // namespace
}  // namespace lockstep::records
