#include "handshake/go_files.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <sstream>

#include "fake_pacer.h"
#include "memory_file_system.h"

namespace lockstep::handshake {
namespace {

TEST(GoRecordTest, ExactBytesAndPaths) {
  EXPECT_EQ(reset_record(), " -1000 0 0 0\n");
  EXPECT_EQ(stage_record(3, 12, 2), " 1            3          12           2\n");
  EXPECT_EQ(stage_record(INT32_MAX, 1, 4), " 1   2147483647           1           4\n");
  EXPECT_EQ(cycle_end_record(25), " 1           25  -1  5\n");
  const std::vector<GoFilePaths> paths = go_file_paths(100);
  ASSERT_EQ(paths.size(), 101u);
  EXPECT_EQ(paths[0].go2 + paths[9].go2 + paths[10].go + paths[100].go,
            "../main/go2.dat../sub9/go2.dat../sub10/go.dat../sub**/go.dat");
}

class GoFileWriterTest : public ::testing::Test {
 protected:
  GoFileWriter writer(int num_subprojects) {
    fs.add_directory("../main");
    for (int i = 1; i <= num_subprojects; ++i) fs.add_directory("../sub" + std::to_string(i));
    return GoFileWriter(fs, pacer, warnings, go_file_paths(num_subprojects));
  }

  testing::MemoryFileSystem fs;
  testing::FakePacer pacer;
  std::ostringstream warnings;
};

TEST_F(GoFileWriterTest, ResetThenRequestInProjectOrder) {
  GoFileWriter go = writer(2);
  ASSERT_TRUE(go.reset_all().ok());
  ASSERT_TRUE(go.send_request(2, 7, 3, false).ok());
  std::vector<std::string> expected;
  for (const char* path : {"../main/go.dat", "../main/go2.dat", "../sub1/go.dat", "../sub1/go2.dat", "../sub2/go.dat",
                           "../sub2/go2.dat", "../main/go.dat", "../sub1/go.dat", "../sub2/go.dat"}) {
    expected.push_back(std::string("open ") + path + " replace");
    expected.push_back(std::string("write ") + path);
    expected.push_back(std::string("close ") + path);
  }
  EXPECT_EQ(fs.log(), expected);
  EXPECT_EQ(fs.file("../sub2/go.dat"), stage_record(2, 7, 3));
  EXPECT_EQ(fs.file("../sub2/go2.dat"), reset_record());

  ASSERT_TRUE(go.send_request(2, 8, 1, true).ok());
  EXPECT_EQ(fs.file("../main/go.dat"), cycle_end_record(2));
  EXPECT_TRUE(warnings.str().empty());
  EXPECT_EQ(pacer.pauses, 0);
}

// Short failures are retried at once and silently, a long one is reported
// once with back-off and its end, a failing close is not retried.
TEST_F(GoFileWriterTest, Failures) {
  GoFileWriter go = writer(1);
  fs.set_file("../sub1/go.dat", "an old and much longer request line\n");
  fs.fail("open", "../sub1/go.dat", GoFileWriter::kImmediateAttempts, ENOENT);
  fs.fail("write", "../main/go2.dat", 3, ENOSPC);
  ASSERT_TRUE(go.reset_all().ok());
  EXPECT_EQ(fs.file("../sub1/go.dat"), reset_record());
  EXPECT_EQ(fs.file("../main/go2.dat"), reset_record());
  EXPECT_EQ(pacer.pauses, 0);
  EXPECT_EQ(warnings.str(), "");

  // 100 immediate attempts, then pauses of 1, 2, 4, ... capped at 100 ms.
  fs.fail("open", "../sub1/go2.dat", 150, ENOENT);
  ASSERT_TRUE(go.reset_all().ok());
  EXPECT_EQ(fs.file("../sub1/go2.dat"), reset_record());
  EXPECT_EQ(pacer.pauses, 150 - GoFileWriter::kImmediateAttempts);
  EXPECT_EQ(warnings.str(),
            "lockstep: cannot write ../sub1/go2.dat: No such file or directory; retrying until it can be written\n"
            "lockstep: wrote ../sub1/go2.dat again after 4.4 s of failures\n");

  fs.fail("close", "../main/go.dat", 1, EIO);
  const std::size_t logged = fs.log().size();
  const records::Status status = go.reset_all();
  EXPECT_EQ(status.number(), records::error::kWriteError);
  EXPECT_EQ(status.trail().back(), "go-file write");
  EXPECT_EQ(fs.log().size(), logged + 3);
}

}  // namespace
}  // namespace lockstep::handshake
