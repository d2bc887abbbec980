#include "project/endpoint.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

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
  const std::pair<std::string, Kind> cases[] = {
      {stage_record(3, 12, 2), Kind::kRequest}, {cycle_end_record(25), Kind::kRequest}, {reset_record(), Kind::kReset},
      {"1 2 3 4\r\n", Kind::kRequest},          {"0 0 0 0\n", Kind::kOther},            {"", Kind::kIncomplete},
      {" 1            3", Kind::kIncomplete},   {"0\n", Kind::kMalformed},              {"1 2 3\n", Kind::kMalformed},
      {"1 2 3 4 5\n", Kind::kMalformed},        {"1 2 x 4\n", Kind::kMalformed},        {"1 2 3 99999999999\n", Kind::kMalformed},
  };
  for (const auto& [content, kind] : cases) EXPECT_EQ(parse_go_record(content).kind, kind) << '"' << content << '"';
  const Request end = parse_go_record(cycle_end_record(25)).request;
  const Request stage = parse_go_record(stage_record(3, 12, 2)).request;
  EXPECT_EQ(describe(end) + "; " + describe(stage), "the cycle-end request of cycle 25; cycle 3, time step 12, stage 2");
  EXPECT_TRUE(end.cycle_end() && !stage.cycle_end());
}

// A project directory and what a project sees of it.
class EndpointTest : public ::testing::Test {
 protected:
  // An endpoint on the directory once its go files hold `go2` and `go`.
  std::unique_ptr<Endpoint> open(const std::string& go2_content, const std::string& go_content,
                                 const WaitSettings& settings = {}) {
    write_file(go2, go2_content);
    testing::plant(go, go_content);
    std::string error;
    auto endpoint = Endpoint::open(dir.path().string(), error, settings);
    EXPECT_TRUE(endpoint) << error;
    return endpoint;
  }

  testing::TempDir dir;
  const std::filesystem::path go = dir.path() / "go.dat";
  const std::filesystem::path go2 = dir.path() / "go2.dat";
  const std::string where = dir.path().string();
  Request request;
};

TEST_F(EndpointTest, ActsOnlyOnARequestAfterTheResetAndReportsByRename) {
  // Polled every millisecond, so that each look below is a new one.
  const auto endpoint = open("0\n", stage_record(1, 1, 1), {WaitMode::kPolling, std::chrono::milliseconds{1}});
  EXPECT_EQ(endpoint->describe_mode(), "polling (local), at most every 1 ms");
  // Not a directory: refused.
  std::string error;
  EXPECT_FALSE(Endpoint::open(go.string(), error));
  EXPECT_EQ(error, "project directory " + go.string() + ": not a directory");

  // A request with go2.dat still done is the one already served; the reset
  // without a request is the driver between its two writes.
  std::atomic<int> polls = 0;
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
  EXPECT_EQ(request, (Request{2, 3, 4}));

  const ino_t before = testing::inode(go2);
  ASSERT_EQ(endpoint->report_done(), DoneResult::kDone) << endpoint->error();
  EXPECT_NE(testing::inode(go2), before);
  EXPECT_EQ(read_file(go2), "0\n");
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir.path()), {}), 2) << "temporary file left";
}

TEST(RequestOrderTest, RequestsComeInTheDriversOrder) {
  const Request order[] = {{1, 1, 1}, {1, 1, 4},  {1, 2, 1},          {1, 2147483647, 4}, {1, -1, 5},
                           {2, 1, 1}, {2, -1, 5}, {2147483647, 1, 1}, {2147483647, -1, 5}};
  for (std::size_t i = 0; i < std::size(order); ++i) {
    for (std::size_t j = 0; j < std::size(order); ++j) {
      EXPECT_EQ(comes_after(order[j], order[i]), j > i) << describe(order[j]) << " after " << describe(order[i]);
    }
  }
}

// The driver moving on under a project: a request served after the driver
// stopped waiting, after the tree was reset, after another process reported
// it, and a request earlier than the last one served.
TEST_F(EndpointTest, NothingIsReportedDoneOnceTheDriverHasMovedOn) {
  struct Case {
    std::string go2, go;  // written after the request was handed out
    std::string error;
  };
  const std::string late = "cycle 1, time step 1, stage 1 was served too late in " + where +
                           ": the driver no longer waits for it and ";
  const Case cases[] = {
      {reset_record(), stage_record(1, 1, 2), late + "now asks for cycle 1, time step 1, stage 2; not reported done"},
      {reset_record(), reset_record(), late + "has reset the go files; not reported done"},
      {"0\n", stage_record(1, 1, 1), "cycle 1, time step 1, stage 1 in " + where +
                                          " was reported done meanwhile by another process"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.error);
    const auto own = open(reset_record(), stage_record(1, 1, 1));
    ASSERT_EQ(own->wait(request), WaitResult::kRequest);
    write_file(go2, c.go2);
    write_file(go, c.go);
    EXPECT_EQ(own->report_done(), DoneResult::kOverrun);
    EXPECT_EQ(own->error(), c.error);
    EXPECT_EQ(read_file(go2), c.go2);
  }

  // The request reported done last, with go2.dat reset, is a view that
  // lags behind the driver: no request yet, and said once when it lasts.
  const auto endpoint = open("0\n", "", {std::nullopt, std::chrono::milliseconds{20}, std::chrono::milliseconds{500},
                                         std::chrono::milliseconds{50}});
  std::vector<std::string> told;
  endpoint->on_trouble([&](const std::string& message) { told.push_back(message); });
  EXPECT_EQ(endpoint->report_done(), DoneResult::kError);
  const auto hand_out = [&](const std::string& record) {
    write_file(go2, reset_record());
    write_file(go, record);
    return endpoint->wait(request, {}, std::chrono::steady_clock::now() + std::chrono::milliseconds{200});
  };
  ASSERT_EQ(hand_out(stage_record(1, 2, 1)), WaitResult::kRequest);
  ASSERT_EQ(endpoint->report_done(), DoneResult::kDone);
  EXPECT_EQ(hand_out(stage_record(1, 2, 1)), WaitResult::kStopped);
  EXPECT_EQ(hand_out(stage_record(1, 2, 1)), WaitResult::kStopped);
  ASSERT_EQ(told.size(), 1u);
  const std::string shown = where + "/go.dat has shown cycle 1, time step 2, stage 1, reported done here, for ";
  EXPECT_EQ(told[0].substr(0, shown.size()), shown);
  const std::string rest = " s while go2.dat shows the driver's reset. Either this machine sees a cached copy of go.dat "
                           "(sshfs with auto_cache or kernel_cache, NFS with nocto or a long actimeo, SMB with "
                           "cache=loose): mount the run tree without those options; the wait goes on meanwhile. Or the "
                           "driver was restarted at that very request: stop this process and start it again to serve "
                           "it afresh";
  EXPECT_EQ(told[0].substr(told[0].find(" s while ")), rest);
  // A driver restarted from the start: the request is handed out, and named.
  EXPECT_EQ(hand_out(stage_record(1, 1, 1)), WaitResult::kOutOfOrder);
  EXPECT_EQ(endpoint->error(),
            "the driver asks for cycle 1, time step 1, stage 1, which does not come after cycle 1, time step 2, "
            "stage 1, the last request served here: was the driver restarted?");
  EXPECT_EQ(endpoint->report_done(), DoneResult::kDone);
  // Reported twice: the second says it was this endpoint's own report.
  EXPECT_EQ(endpoint->report_done(), DoneResult::kOverrun);
  EXPECT_EQ(endpoint->error(), "cycle 1, time step 1, stage 1 in " + where + " was already reported done here");
  // Nothing pending: a look finds nothing, whatever came before.
  EXPECT_EQ(endpoint->poll(request), WaitResult::kStopped);
  EXPECT_EQ(hand_out(cycle_end_record(1)), WaitResult::kRequest);
}

TEST_F(EndpointTest, GoFilesThatHoldNoRequestAreErrors) {
  const std::pair<std::string, std::string> cases[] = {
      {"<fifo>", "/go.dat is a FIFO, not a regular file"},
      {"-> /dev/zero", "/go.dat is a character device, not a regular file"},
      {"<directory>", "/go.dat is a directory, not a regular file"},
      {std::string(1 << 20, ' '), "/go.dat is longer than 4096 bytes; a go file holds one short line"},
      {"hello\n", "/go.dat holds no request: \"hello\""},
  };
  for (const auto& [content, message] : cases) {
    SCOPED_TRACE(message);
    const auto endpoint = open(reset_record(), content);
    EXPECT_EQ(endpoint->wait(request), WaitResult::kError);
    EXPECT_EQ(endpoint->error(), where + message);
  }
  // The directory removed or renamed under a waiting project.
  const std::filesystem::path project = dir.path() / "sub1";
  std::filesystem::create_directory(project);
  std::string error;
  const auto endpoint = Endpoint::open(project.string(), error);
  ASSERT_TRUE(endpoint) << error;
  std::filesystem::rename(project, dir.path() / "sub1.old");
  EXPECT_EQ(endpoint->wait(request), WaitResult::kError);
  EXPECT_EQ(endpoint->error(),
            "the project directory " + project.string() + " has gone (removed or renamed) while waiting for a request");
}

// A go.dat that holds no request is an error only once it has done so for
// the whole grace; a good look between two such spells starts it afresh.
TEST_F(EndpointTest, TheMalformedGraceStartsAfreshAfterAGoodLook) {
  const auto endpoint = open(reset_record(), "hello\n");
  const auto past_grace = [] {
    std::this_thread::sleep_for(Endpoint::kMalformedGrace + std::chrono::milliseconds(100));
  };
  EXPECT_EQ(endpoint->poll(request), WaitResult::kStopped);
  past_grace();
  // Between the spells: the driver between its writes, then a project done.
  const std::pair<std::string, std::string> good_looks[] = {{reset_record(), reset_record()}, {"0\n", "hello\n"}};
  for (const auto& [go2_content, go_content] : good_looks) {
    write_file(go2, go2_content);
    write_file(go, go_content);
    EXPECT_EQ(endpoint->poll(request), WaitResult::kStopped);  // the driver at work: no request, no error
    write_file(go2, reset_record());
    write_file(go, "hello\n");
    EXPECT_EQ(endpoint->poll(request), WaitResult::kStopped) << endpoint->error();
    past_grace();
  }
  EXPECT_EQ(endpoint->poll(request), WaitResult::kError);
}

TEST_F(EndpointTest, OneLockHolderPerDirectory) {
  auto first = open("0\n", "");
  const auto second = open("0\n", "");
  ASSERT_TRUE(first->lock()) << first->error();
  EXPECT_FALSE(second->lock());
  char host[256] = {};
  gethostname(host, sizeof host - 1);
  // The holder is this very process.
  EXPECT_EQ(second->error(), where + " is already served by this process (PID " + std::to_string(getpid()) +
                                 ") (it holds " + where + "/.lockstep.lock): open each project directory once per "
                                 "process");
  // Another's, read back to the byte: a line of 255 bytes, the most the
  // holder's text may be.
  const std::string long_host(252, 'h');
  write_file(dir.path() / ".lockstep.lock", "1 " + long_host + "\n");
  EXPECT_FALSE(second->lock());
  EXPECT_EQ(second->error(), where + " is already served by PID 1 on host " + long_host + " (it holds " + where +
                                 "/.lockstep.lock); stop that one first");
  EXPECT_NE(std::string(host), long_host);
  // Released when its holder goes, as the kernel does when a holder dies.
  first.reset();
  EXPECT_TRUE(second->lock()) << second->error();
}

}  // namespace
}  // namespace lockstep::project
