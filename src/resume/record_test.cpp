#include "resume/record.h"

#include <gtest/gtest.h>

#include "process.h"

namespace lockstep::resume {
namespace {

TEST(ResumeRecordTest, WrittenReadBackAndEveryOtherTextRefused) {
  testing::TempDir dir;
  const Record record{80, 5, 100, 2};
  std::string error;
  ASSERT_TRUE(write_record(dir.path().string(), record, error)) << error;
  EXPECT_EQ(testing::read_file(dir.path() / kRecordFile),
            "lockstep resume record\nresumes_after_cycle 80\ntime_step 5\ncycle_num 100\nnum_subprojects 2\n");
  Record read;
  ASSERT_EQ(read_record(dir.path().string(), read, error), ReadOutcome::kRead) << error;
  EXPECT_EQ(read, record);
  EXPECT_EQ(read.remaining(), 20);

  const std::string good = format_record(record);
  const struct {
    std::string text;
    std::string why;
  } refused[] = {
      {"", "it does not begin with \"lockstep resume record\""},
      {good.substr(0, good.size() - 1), "no line \"num_subprojects N\" where it belongs"},
      {good + "x\n", "it holds more than its four lines"},
      {"lockstep resume record\nresumes_after_cycle -1\n", "no line \"resumes_after_cycle N\" where it belongs"},
      {"lockstep resume record\nresumes_after_cycle 8x\n", "no line \"resumes_after_cycle N\" where it belongs"},
      {"lockstep resume record\ntime_step 5\n", "no line \"resumes_after_cycle N\" where it belongs"},
      {format_record({100, 5, 100, 2}), "it resumes after cycle 100 of a run of 100"},
  };
  for (const auto& [text, why] : refused) {
    testing::write_file(dir.path() / kRecordFile, text);
    EXPECT_EQ(read_record(dir.path().string(), read, error), ReadOutcome::kError) << text;
    EXPECT_EQ(error, (dir.path() / kRecordFile).string() + " is no resume record: " + why +
                         "; it is written by lockstepctl resume");
  }
  std::filesystem::remove(dir.path() / kRecordFile);
  EXPECT_EQ(read_record(dir.path().string(), read, error), ReadOutcome::kMissing);
}

}  // namespace
}  // namespace lockstep::resume
