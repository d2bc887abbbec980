#include "project/endpoint.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <thread>

#include "handshake/go_files.h"
#include "process.h"

namespace lockstep::project {
namespace {

using handshake::cycle_end_record;
using handshake::reset_record;
using handshake::stage_record;
using testing::read_file;
using testing::write_file;

TEST(GoRecordParseTest, OnlyCompleteDriverRecordsCount) {
  using Kind = GoRecord::Kind;
  struct Case {
    std::string content;
    Kind kind;
  };
  const Case cases[] = {
      {stage_record(3, 12, 2), Kind::kRequest},
      {cycle_end_record(25), Kind::kRequest},
      {reset_record(), Kind::kReset},
      {"1 2 3 4\r\n", Kind::kRequest},
      {"0 0 0 0\n", Kind::kOther},
      {"", Kind::kIncomplete},
      {" 1            3", Kind::kIncomplete},
      {"0\n", Kind::kMalformed},
      {"1 2 3\n", Kind::kMalformed},
      {"1 2 3 4 5\n", Kind::kMalformed},
      {"1 2 x 4\n", Kind::kMalformed},
      {"1 2 3 99999999999\n", Kind::kMalformed},
  };
  for (const Case& c : cases) EXPECT_EQ(parse_go_record(c.content).kind, c.kind) << '"' << c.content << '"';
  const Request end = parse_go_record(cycle_end_record(25)).request;
  EXPECT_TRUE(end.cycle_end());
  EXPECT_EQ(end.cycle, 25);
  const Request stage = parse_go_record(stage_record(3, 12, 2)).request;
  EXPECT_FALSE(stage.cycle_end());
  EXPECT_EQ(stage.time_step, 12);
}

TEST(EndpointTest, OpenRefusesWhatIsNotAProjectDirectory) {
  testing::TempDir dir;
  std::string error;
  EXPECT_FALSE(Endpoint::open((dir.path() / "missing").string(), error));
  EXPECT_EQ(error, "project directory " + (dir.path() / "missing").string() + ": No such file or directory");
  write_file(dir.path() / "file", "");
  EXPECT_FALSE(Endpoint::open((dir.path() / "file").string(), error));
  EXPECT_EQ(error, "project directory " + (dir.path() / "file").string() + ": not a directory");
}

TEST(EndpointTest, ActsOnlyOnARequestAfterTheResetAndReportsByRename) {
  testing::TempDir dir;
  const auto go = dir.path() / "go.dat";
  const auto go2 = dir.path() / "go2.dat";
  write_file(go2, "0\n");
  write_file(go, stage_record(1, 1, 1));
  std::string error;
  const auto endpoint = Endpoint::open(dir.path().string(), error);
  ASSERT_TRUE(endpoint) << error;

  // A request with go2.dat still done is the one already served; the reset
  // without a request is the driver between its two writes.
  std::atomic<int> polls = 0;
  Request request;
  const auto stop_after = [&](int limit) { return [&, limit] { return ++polls >= limit; }; };
  EXPECT_EQ(endpoint->wait(request, stop_after(20)), WaitResult::kStopped);
  write_file(go2, reset_record());
  write_file(go, reset_record());
  polls = 0;
  EXPECT_EQ(endpoint->wait(request, stop_after(20)), WaitResult::kStopped);

  std::thread driver([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    write_file(go, stage_record(2, 3, 4));
  });
  EXPECT_EQ(endpoint->wait(request), WaitResult::kRequest);
  driver.join();
  EXPECT_EQ(request.cycle, 2);
  EXPECT_EQ(request.time_step, 3);
  EXPECT_EQ(request.stage, 4);

  struct stat before {};
  ASSERT_EQ(stat(go2.c_str(), &before), 0);
  ASSERT_TRUE(endpoint->report_done()) << endpoint->error();
  struct stat after {};
  ASSERT_EQ(stat(go2.c_str(), &after), 0);
  EXPECT_NE(after.st_ino, before.st_ino);
  EXPECT_EQ(read_file(go2), "0\n");
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir.path()), {}), 2) << "temporary file left";
}

TEST(EndpointTest, AGoFileThatStaysMalformedIsAnError) {
  testing::TempDir dir;
  write_file(dir.path() / "go2.dat", reset_record());
  write_file(dir.path() / "go.dat", "hello\n");
  std::string error;
  const auto endpoint = Endpoint::open(dir.path().string(), error);
  ASSERT_TRUE(endpoint);
  Request request;
  EXPECT_EQ(endpoint->wait(request), WaitResult::kError);
  EXPECT_EQ(endpoint->error(), dir.path().string() + "/go.dat holds no request: \"hello\"");
}

}  // namespace
}  // namespace lockstep::project
