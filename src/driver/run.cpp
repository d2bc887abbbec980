#include "driver/run.h"

#include <cstdint>
#include <optional>
#include <string>
#include <utility>

#include "config/interaction.h"
#include "config/settings.h"
#include "handshake/go_files.h"
#include "handshake/readiness.h"
#include "launch/launcher.h"
#include "records/diagnostic.h"
#include "records/output.h"

namespace lockstep::driver {
namespace {

constexpr int kStagesPerTimeStep = 4;

std::string progress_line(std::int32_t cycle, std::int32_t time_step, std::int32_t stage) {
  return records::FixedFormRecord()
      .literal("cycle=")
      .integer(cycle, 4)
      .literal("      time step=")
      .integer(time_step, 5)
      .literal("      runge-kutta step=")
      .integer(stage, 2)
      .line();
}

std::string stage_context(std::int32_t cycle, std::int32_t time_step, std::int32_t stage) {
  return "stage loop, cycle " + std::to_string(cycle) + ", time step " + std::to_string(time_step) + ", stage " +
         std::to_string(stage);
}

}  // namespace

int run(records::FileSystem& fs, handshake::Pacer& pacer, std::ostream& messages) {
  constexpr const char* kStartUp = "run start-up";
  std::optional<config::Settings> read;
  records::must(config::read_settings(fs, read).within(kStartUp));
  if (!read) return 0;
  const config::Settings settings = *read;

  // The interaction table has room for kMaxSubprojects; refuse more before
  // any project file is touched.
  if (settings.num_subprojects > config::kMaxSubprojects) {
    messages << "lockstep: num_subprojects is " << settings.num_subprojects
             << " in analysis_settings.dat; the limit is " << config::kMaxSubprojects << "\n"
             << std::flush;
    return kRejectedSettingStatus;
  }

  config::InteractionTable interaction;
  records::must(config::read_interaction_table(fs, settings.num_subprojects, interaction).within(kStartUp));

  const std::int32_t closing = settings.closing_time_step();
  if (settings.cycle_num <= 0 || closing <= 0) return 0;

  const std::vector<handshake::GoFilePaths> paths = handshake::go_file_paths(settings.num_subprojects);
  handshake::GoFileWriter writer(fs, pacer, messages, paths);

  // 64-bit counters, so that a bound of INT32_MAX ends its loop.
  for (std::int64_t k = 1; k <= settings.cycle_num; ++k) {
    for (std::int64_t t = 1; t <= closing; ++t) {
      const bool closing_step = t == closing;
      for (std::int32_t s = 1; s <= (closing_step ? 1 : kStagesPerTimeStep); ++s) {
        const auto cycle = static_cast<std::int32_t>(k);
        const auto time_step = static_cast<std::int32_t>(t);
        // The stage's context is put into words only when something fails.
        const auto must = [&](records::Status status) {
          if (!status.ok()) records::die(std::move(status).within(stage_context(cycle, time_step, s)));
        };
        must(records::write_standard_output(fs, progress_line(cycle, time_step, s)).within("progress line"));
        must(handshake::wait_for_readiness(fs, pacer, paths));
        if (!closing_step) launch::launch_programs(interaction, settings.num_subprojects, cycle, time_step, s);
        must(writer.reset_all());
        must(writer.send_request(cycle, time_step, s, closing_step));
      }
    }
  }
  return 0;
}

}  // namespace lockstep::driver
