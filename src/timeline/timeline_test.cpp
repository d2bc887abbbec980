#include "timeline/timeline.h"

#include <gtest/gtest.h>

#include <map>
#include <sstream>

#include "timeline/report.h"

namespace lockstep::timeline {
namespace {

Timeline read(const std::string& text) {
  std::istringstream in(text);
  Timeline timeline;
  std::string error;
  EXPECT_TRUE(read_timeline(in, timeline, error)) << error;
  return timeline;
}

const std::string kHeader =
    R"({"format":"lockstep-recording-1","run_directory":"/r/run","projects":["main","sub1"],"started":"x"})"
    "\n";

// Two stages; sub1 holds the first, main the second, whose done for sub1 is
// seen only through the next reset; a line cut short by a crash ends it.
TEST(TimelineTest, StagesHoldersDriverShareAndACutShortLine) {
  const Timeline run = read(kHeader + R"({"t":0.0,"event":"request","project":0,"cycle":1,"time_step":1,"stage":1}
{"t":0.001,"event":"request","project":1,"cycle":1,"time_step":1,"stage":1}
{"t":0.002,"event":"done","project":0}
{"t":0.021,"event":"done","project":1}
{"t":0.025,"event":"reset","project":0,"file":"go.dat"}
{"t":0.030,"event":"request","project":0,"cycle":1,"time_step":1,"stage":2}
{"t":0.031,"event":"request","project":1,"cycle":1,"time_step":1,"stage":2}
{"t":0.040,"event":"done","project":1,"inferred":true}
{"t":0.050,"event":"done","project":0}
{"t":0.060,"event":"request","project":0,"cycle":1,"time_step":1,"stage":2}
{"t":0.07,"event":"requ)");
  ASSERT_EQ(run.stages.size(), 3u);  // the repeated stage 2 is a driver started again
  EXPECT_EQ(run.stages[0].holder, 1);
  EXPECT_DOUBLE_EQ(*run.stages[0].end, 0.021);
  EXPECT_EQ(run.stages[1].holder, 0);
  EXPECT_NEAR(*run.stages[1].driver_before, 0.009, 1e-12);
  EXPECT_FALSE(run.stages[2].end);
  EXPECT_EQ(run.complete_stages, 2u);
  EXPECT_EQ(run.bad_lines, 1u);
  EXPECT_EQ(run.projects[0].held, 1u);
  EXPECT_EQ(run.projects[0].unfinished, 1u);
  EXPECT_EQ(run.projects[1].inferred, 1u);
  EXPECT_NEAR(*run.projects[1].max, 0.020, 1e-12);

  EXPECT_EQ(text_report(run),
            "run: 0.060 s, 3 stages (cycle 1, time step 1, stage 1 to cycle 1, time step 1, stage 2); the recording "
            "ends before the driver did\n"
            "  1 of them not done by every project: cycle 1, time step 1, stage 2 by main, sub1\n"
            "  1 unreadable lines skipped (a recording cut short?)\n"
            "\n"
            "PROJECT      SERVED  MEDIAN ms     P95 ms     MAX ms   HELD THE RUN\n"
            "main              2        2.0       20.0       20.0            50%\n"
            "sub1              2        9.0       20.0       20.0            50%\n"
            "driver: 32% of the run from the last done to the next request (readiness pause, launches), median "
            "9.0 ms a stage\n"
            "\n"
            "slowest stages:\n"
            "  cycle 1, time step 1, stage 1: 21.0 ms, held by sub1\n"
            "  cycle 1, time step 1, stage 2: 20.0 ms, held by main\n");

  // One bar per request served and per pause of the driver, each in its
  // lane: the driver's at the top, then main's, then sub1's.
  std::map<std::string, std::pair<std::string, int>> lanes;  // who -> (y, bars)
  // The title names the run's directory.
  EXPECT_NE(svg_timeline(run).find(">/r/run"), std::string::npos);
  std::istringstream svg(svg_timeline(run));
  for (std::string line; std::getline(svg, line);) {
    const std::size_t y = line.find(" y=\""), title = line.find("<title>");
    if (line.rfind("<rect", 0) != 0 || y == std::string::npos || title == std::string::npos) continue;
    const std::string who = line.substr(title + 7, line.find_first_of(", ", title + 7) - title - 7);
    const std::string at = line.substr(y + 4, line.find('"', y + 4) - y - 4);
    auto [lane, fresh] = lanes.try_emplace(who, at, 0);
    EXPECT_EQ(lane->second.first, at) << who << "'s bars are not all in one lane";
    ++lane->second.second;
  }
  ASSERT_EQ(lanes.size(), 3u);
  EXPECT_EQ(lanes["driver"].second, 2);
  EXPECT_EQ(lanes["main"].second, 2);
  EXPECT_EQ(lanes["sub1"].second, 2);
  EXPECT_LT(std::stod(lanes["driver"].first), std::stod(lanes["main"].first));
  EXPECT_LT(std::stod(lanes["main"].first), std::stod(lanes["sub1"].first));
}

// 600 stages: main answers in 0.25 s, sub1 in 1 s, the driver's next request
// comes with sub1's done. Too many stages for a bar each: shades per pixel
// column, none where a lane was idle (here the driver).
TEST(TimelineTest, ALongRunIsShadedAndSummed) {
  std::string text = kHeader;
  for (int i = 0; i < 600; ++i) {
    for (const std::string project : {"0", "1"}) {
      text += R"({"t":)" + std::to_string(i) + R"(,"event":"request","project":)" + project +
              R"(,"cycle":1,"time_step":)" + std::to_string(i / 4 + 1) + R"(,"stage":)" + std::to_string(i % 4 + 1) + "}\n";
    }
    text += R"({"t":)" + std::to_string(i) + R"(.25,"event":"done","project":0})" "\n";
    text += R"({"t":)" + std::to_string(i + 1) + R"(,"event":"done","project":1})" "\n";
  }
  const Timeline run = read(text);
  // Ties among the slowest stages keep the run's order; the trend is each
  // project's own.
  EXPECT_NE(text_report(run).find("slowest stages:\n  cycle 1, time step 1, stage 1: 1000.0 ms, held by sub1\n"
                                  "  cycle 1, time step 1, stage 2: 1000.0 ms"),
            std::string::npos);
  EXPECT_NE(json_report(run).find("\"main_s\": [\n      0.25,\n      0.25\n    ],\n    \"sub1_s\": [\n      1.0,"),
            std::string::npos);
  const std::string svg = svg_timeline(run);
  EXPECT_NE(svg.find("(shaded: share of each pixel's time)"), std::string::npos);
  EXPECT_NE(svg.find("<title>100% busy"), std::string::npos);
  EXPECT_EQ(svg.find("<title>0% "), std::string::npos);
  // main, busy the first quarter of each second, fills up to nearly half of
  // a pixel column's 0.56 s.
  EXPECT_NE(svg.find("<title>50% busy"), std::string::npos);
}

// Each pixel column's share is what of it the lane was busy: stages of 1.5 s
// over 1080 columns of 1 s each, main busy the first 0.6 s of each, so that
// every other stage's work straddles two columns.
TEST(TimelineTest, AShadeIsTheShareOfItsColumnEachStageCovers) {
  std::string text = kHeader;
  const auto event = [&](double t, const std::string& rest) {
    std::ostringstream line;
    line << R"({"t":)" << t << "," << rest << "}\n";
    text += line.str();
  };
  for (int i = 0; i < 720; ++i) {
    const std::string request = R"("event":"request","cycle":1,"time_step":)" + std::to_string(i / 4 + 1) +
                                R"(,"stage":)" + std::to_string(i % 4 + 1) + R"(,"project":)";
    event(1.5 * i, request + "0");
    event(1.5 * i, request + "1");
    event(1.5 * i + 0.6, R"("event":"done","project":0)");
    event(1.5 * i + 1.5, R"("event":"done","project":1)");
  }
  const std::string svg = svg_timeline(read(text));
  // Main's lane: per 3 s, columns busy 0.6, 0.5 + 0 and 0.1 of their second.
  std::map<std::string, int> main_shades;
  const std::string lane = "y=\"64.00\"";
  for (std::size_t at = svg.find(lane); at != std::string::npos; at = svg.find(lane, at + 1)) {
    const std::size_t title = svg.find("<title>", at) + 7;
    const std::string shade = svg.substr(title, svg.find("</title>", title) - title);
    if (shade.find("% busy") != std::string::npos) ++main_shades[shade];
  }
  EXPECT_EQ(main_shades, (std::map<std::string, int>{{"10% busy", 360}, {"50% busy", 360}, {"60% busy", 360}}));
}

TEST(TimelineTest, RecordingsThatAreNotOnesAreRefusedAndOddLinesSkipped) {
  for (const std::string text : {"", "{}\n", "not json\n"}) {
    std::istringstream in(text);
    Timeline timeline;
    std::string error;
    EXPECT_FALSE(read_timeline(in, timeline, error)) << text;
  }
  const Timeline timeline = read(kHeader + R"({"t":1,"event":"done","project":7}
{"t":"x","event":"done","project":0}
{"t":1,"event":"done","project":"main"}
)" + std::string(kLineLimit + 10, 'x') + R"(
{"t":1,"event":"exit","signal":9}
)");
  EXPECT_EQ(timeline.bad_lines, 4u);
  ASSERT_TRUE(timeline.exit);
  EXPECT_EQ(timeline.exit->signal, 9);
  EXPECT_EQ(text_report(timeline).substr(0, 57), "run: 1.000 s, 0 stages; the driver was killed by signal 9");
  EXPECT_EQ(text_report(read(kHeader + R"({"t":2,"event":"exit"})" + "\n")).substr(0, 41),
            "run: 2.000 s, 0 stages; the driver ended\n");
}

}  // namespace
}  // namespace lockstep::timeline
