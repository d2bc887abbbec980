#include <algorithm>
#include <cmath>
#include <cstdio>
#include <sstream>
#include <vector>

#include "timeline/report.h"

namespace lockstep::timeline {
namespace {

constexpr double kLabelWidth = 90;
constexpr double kPlotWidth = 1080;
constexpr double kLaneHeight = 16;
constexpr double kLaneGap = 4;
constexpr double kTop = 44;
constexpr int kColumns = static_cast<int>(kPlotWidth);
constexpr int kShadeLevels = 10;
// Stage boundaries are drawn while they stay this far apart on average.
constexpr double kBoundarySpacing = 4;

constexpr const char* kRequestColour = "#4a7fb5";
constexpr const char* kHolderColour = "#d9534f";
constexpr const char* kDriverColour = "#8c8c8c";

// Text for an SVG document: markup escaped, and anything but printable
// ASCII replaced, so that the document stays well-formed whatever the
// recording holds.
std::string escaped(const std::string& text) {
  std::string out;
  for (const char c : text) {
    switch (c) {
      case '&': out += "&amp;"; break;
      case '<': out += "&lt;"; break;
      case '>': out += "&gt;"; break;
      case '"': out += "&quot;"; break;
      default: out += (c >= 0x20 && c < 0x7f) ? c : '?';
    }
  }
  return out;
}

std::string number(double value) {
  char text[32];
  std::snprintf(text, sizeof text, "%.2f", value);
  return text;
}

class Canvas {
 public:
  Canvas(double run_time, std::size_t lanes) : scale_(run_time > 0 ? kPlotWidth / run_time : 0), lanes_(lanes) {}

  double x(double time) const { return kLabelWidth + time * scale_; }
  double y(std::size_t lane) const { return kTop + static_cast<double>(lane) * (kLaneHeight + kLaneGap); }
  double scale() const { return scale_; }
  double height() const { return y(lanes_) + 30; }

  void bar(std::size_t lane, double from, double to, const char* colour, double opacity, const std::string& title) {
    out_ << "<rect x=\"" << number(x(from)) << "\" y=\"" << number(y(lane)) << "\" width=\""
         << number(std::max((to - from) * scale_, 0.5)) << "\" height=\"" << kLaneHeight << "\" fill=\"" << colour
         << '"';
    if (opacity < 1) out_ << " fill-opacity=\"" << number(opacity) << '"';
    out_ << '>';
    if (!title.empty()) out_ << "<title>" << escaped(title) << "</title>";
    out_ << "</rect>\n";
  }
  std::ostringstream& raw() { return out_; }

 private:
  double scale_;
  std::size_t lanes_;
  std::ostringstream out_;
};

// Each request and each pause of the driver as a bar of its own.
void draw_bars(const Timeline& timeline, Canvas& canvas) {
  for (const Stage& stage : timeline.stages) {
    const std::string name = project::describe(stage.request);
    if (stage.driver_before) {
      canvas.bar(0, stage.start - *stage.driver_before, stage.start, kDriverColour, 1,
                 "driver before " + name + ": " + number(*stage.driver_before * 1e3) + " ms");
    }
    for (std::size_t index = 0; index < stage.projects.size(); ++index) {
      const auto& served = stage.projects[index];
      if (!served || !served->done) continue;
      const bool held = stage.end && stage.holder == static_cast<int>(index);
      canvas.bar(index + 1, served->written, *served->done, held ? kHolderColour : kRequestColour, 1,
                 timeline.projects[index].name + ", " + name + ": " + number((*served->done - served->written) * 1e3) +
                     " ms" + (held ? ", held the stage" : ""));
    }
  }
}

// Runs too long for a bar each: per pixel column, the share of time each
// lane was busy (and held the run), as shades, adjacent columns of one
// shade drawn as one rectangle.
void draw_shades(const Timeline& timeline, Canvas& canvas) {
  const std::size_t lanes = timeline.projects.size() + 1;
  std::vector<std::vector<double>> busy(lanes, std::vector<double>(kColumns, 0.0));
  std::vector<std::vector<double>> held(lanes, std::vector<double>(kColumns, 0.0));
  const double column_time = 1 / canvas.scale();
  const auto add = [&](std::vector<double>& columns, double from, double to) {
    const double first = from / column_time, last = to / column_time;
    for (auto column = static_cast<int>(first); column <= static_cast<int>(last) && column < kColumns; ++column) {
      if (column < 0) continue;
      const double overlap = std::min(last, column + 1.0) - std::max(first, static_cast<double>(column));
      columns[static_cast<std::size_t>(column)] += std::max(overlap, 0.0);
    }
  };
  for (const Stage& stage : timeline.stages) {
    if (stage.driver_before) add(busy[0], stage.start - *stage.driver_before, stage.start);
    for (std::size_t index = 0; index < stage.projects.size(); ++index) {
      const auto& served = stage.projects[index];
      if (!served || !served->done) continue;
      add(busy[index + 1], served->written, *served->done);
      if (stage.end && stage.holder == static_cast<int>(index)) add(held[index + 1], served->written, *served->done);
    }
  }
  const auto shade = [&](std::size_t lane, const std::vector<double>& columns, const char* colour, const char* what) {
    const auto level = [&](int column) {
      return static_cast<int>(std::lround(std::min(columns[static_cast<std::size_t>(column)], 1.0) * kShadeLevels));
    };
    for (int column = 0; column < kColumns;) {
      const int value = level(column);
      int end = column + 1;
      while (end < kColumns && level(end) == value) ++end;
      if (value > 0) {
        canvas.bar(lane, column * column_time, end * column_time, colour, static_cast<double>(value) / kShadeLevels,
                   std::to_string(value * 100 / kShadeLevels) + "% " + what);
      }
      column = end;
    }
  };
  shade(0, busy[0], kDriverColour, "between stages");
  for (std::size_t lane = 1; lane < lanes; ++lane) {
    shade(lane, busy[lane], kRequestColour, "busy");
    shade(lane, held[lane], kHolderColour, "holding the run");
  }
}

}  // namespace

std::string svg_timeline(const Timeline& timeline) {
  const std::size_t lanes = timeline.projects.size() + 1;
  Canvas canvas(timeline.run_time, lanes);
  const double stages = static_cast<double>(std::max<std::size_t>(timeline.stages.size(), 1));
  const bool bars = kPlotWidth / stages >= 2;
  std::ostringstream& out = canvas.raw();
  const double width = kLabelWidth + kPlotWidth + 20;
  out << "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"" << width << "\" height=\"" << number(canvas.height())
      << "\" viewBox=\"0 0 " << width << ' ' << number(canvas.height())
      << "\" font-family=\"sans-serif\" font-size=\"11\">\n"
      << "<rect width=\"100%\" height=\"100%\" fill=\"white\"/>\n"
      << "<text x=\"" << kLabelWidth << "\" y=\"16\" font-size=\"13\">" << escaped(timeline.header.run_directory)
      << ": " << timeline.stages.size() << " stages in " << number(timeline.run_time) << " s"
      << (bars ? "" : " (shaded: share of each pixel's time)") << "</text>\n"
      << "<text x=\"" << kLabelWidth << "\" y=\"32\"><tspan fill=\"" << kRequestColour
      << "\">&#9632; request to done</tspan>  <tspan fill=\"" << kHolderColour
      << "\">&#9632; held the stage (done last)</tspan>  <tspan fill=\"" << kDriverColour
      << "\">&#9632; driver: last done to next request</tspan></text>\n";
  for (std::size_t lane = 0; lane < lanes; ++lane) {
    out << "<text x=\"4\" y=\"" << number(canvas.y(lane) + kLaneHeight - 4) << "\">"
        << escaped(lane == 0 ? std::string("driver") : timeline.projects[lane - 1].name) << "</text>\n";
  }
  if (kPlotWidth / stages >= kBoundarySpacing) {
    out << "<g stroke=\"#dddddd\" stroke-width=\"0.5\">\n";
    for (const Stage& stage : timeline.stages) {
      out << "<line x1=\"" << number(canvas.x(stage.start)) << "\" y1=\"" << kTop << "\" x2=\""
          << number(canvas.x(stage.start)) << "\" y2=\"" << number(canvas.y(lanes)) << "\"/>\n";
    }
    out << "</g>\n";
  }
  if (bars) {
    draw_bars(timeline, canvas);
  } else {
    draw_shades(timeline, canvas);
  }
  const double axis = canvas.y(lanes) + 4;
  out << "<line x1=\"" << kLabelWidth << "\" y1=\"" << number(axis) << "\" x2=\"" << kLabelWidth + kPlotWidth
      << "\" y2=\"" << number(axis) << "\" stroke=\"black\"/>\n";
  for (int tick = 0; tick <= 10; ++tick) {
    const double time = timeline.run_time * tick / 10;
    out << "<text x=\"" << number(canvas.x(time)) << "\" y=\"" << number(axis + 14)
        << "\" text-anchor=\"middle\">" << number(time) << " s</text>\n";
  }
  out << "</svg>\n";
  return out.str();
}

}  // namespace lockstep::timeline
