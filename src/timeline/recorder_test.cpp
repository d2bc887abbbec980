#include "timeline/recorder.h"

#include <gtest/gtest.h>

#include <utility>

#include "handshake/go_files.h"
#include "process.h"

namespace lockstep::timeline {
namespace {

using handshake::reset_record;
using handshake::stage_record;
using testing::write_file;

// What the recorder makes of the go files between two looks, however late
// it looks: each request once, each done once and after its request.
TEST(RecorderTest, EventsInTheOrderTheyHappenedWhateverItMissedBetweenLooks) {
  testing::TempDir dir;
  const auto go = dir.path() / "go.dat";
  const auto go2 = dir.path() / "go2.dat";
  const auto hand_out = [&](int stage) { testing::hand_out(dir.path(), stage_record(1, 1, stage)); };
  write_file(go2, "0\n");
  // Each event written as its kind, "?" when inferred, "2" when of go2.dat.
  std::string kinds;
  Recorder recorder({{0, dir.path().string(), true}}, [&kinds](const std::string& line) {
    const auto at = line.find("\"event\":\"") + 9;
    kinds += line.substr(at, line.find('"', at) - at) + (line.find("inferred") != std::string::npos ? "?" : "");
    kinds += line.find("\"file\":\"go2.dat\"") != std::string::npos ? "2 " : " ";
  });
  std::string error;
  ASSERT_TRUE(recorder.start(error)) << error;
  const auto events = [&] {
    recorder.look();
    return std::exchange(kinds, "");
  };

  hand_out(1);
  EXPECT_EQ(events(), "reset reset2 request ");
  write_file(go2, "0\n");
  EXPECT_EQ(events(), "done ");
  EXPECT_FALSE(recorder.served_cycle_end(1));

  hand_out(2);  // answered before the recorder looks
  write_file(go2, "0\n");
  EXPECT_EQ(events(), "reset reset2 request done ");
  EXPECT_TRUE(recorder.all_done());

  hand_out(3);
  EXPECT_EQ(events(), "reset reset2 request ");
  write_file(go2, "0\n");  // done, then the next request, between two looks
  hand_out(4);
  EXPECT_EQ(events(), "done? reset reset2 request ");
  write_file(go, reset_record());  // the driver moved on: every project was done
  EXPECT_EQ(events(), "done? reset ");
  write_file(go2, reset_record());
  write_file(go, stage_record(1, 1, 5));
  EXPECT_EQ(events(), "reset2 request ");
  EXPECT_FALSE(recorder.all_done());
}

}  // namespace
}  // namespace lockstep::timeline
