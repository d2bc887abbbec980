#include "fields/interaction.h"

#include <charconv>
#include <fstream>
#include <sstream>

#include "records/status.h"
#include "resume/record.h"

namespace lockstep::fields {
namespace {

constexpr const char* kSettingsFile = "analysis_settings.dat";
// The driver looks for each key within this many lines.
constexpr int kSearchLimit = 10000;

bool parse_number(std::string_view text, int& value) {
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  return error == std::errc() && end == text.data() + text.size();
}

// The integer after the first line that begins with `key`: blank lines
// skipped, the number ending at a blank, comma, slash or tab.
bool setting(const std::vector<std::string>& lines, const std::string& key, int& value) {
  for (std::size_t i = 0; i < lines.size(); ++i) {
    if (lines[i].compare(0, key.size(), key) != 0) continue;
    for (std::size_t j = i + 1; j < lines.size(); ++j) {
      const std::size_t begin = lines[j].find_first_not_of(" \t");
      if (begin == std::string::npos) continue;
      const std::size_t end = lines[j].find_first_of(" \t,/", begin);
      return parse_number(std::string_view(lines[j]).substr(begin, end - begin), value);
    }
    return false;
  }
  return false;
}

}  // namespace

bool read_run_settings(const std::string& path, RunSettings& settings, std::string& error) {
  std::ifstream file(path);
  if (!file) {
    error = "cannot read " + path + ": " + records::os_error_text(errno) +
            "; an interaction program runs in the driver's working directory, beside the settings";
    return false;
  }
  std::vector<std::string> lines;
  std::string line;
  while (lines.size() < kSearchLimit + 1 && std::getline(file, line)) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    lines.push_back(line.substr(0, 256));
  }
  if (!setting(lines, "time_step=", settings.time_steps) || !setting(lines, "cycle_num=", settings.cycles) ||
      !setting(lines, "num_subprojects=", settings.subprojects)) {
    error = path + " does not give time_step=, cycle_num= and num_subprojects= as lockstep reads them";
    return false;
  }
  return true;
}

std::unique_ptr<InteractionFields> InteractionFields::open(int argc, const char* const* argv, std::string& error) {
  int numbers[4] = {};
  bool valid = argc == 4;
  for (int i = 0; valid && i < 4; ++i) valid = parse_number(argv[i], numbers[i]);
  if (!valid) {
    std::string given;
    for (int i = 0; i < argc; ++i) given += std::string(i > 0 ? " " : "") + "\"" + argv[i] + "\"";
    error = "an interaction program takes the four numbers lockstep gives it: PROJECT CYCLE TIME_STEP STAGE; got " +
            (argc == 0 ? std::string("nothing") : given);
    return nullptr;
  }
  RunSettings settings;
  if (!read_run_settings(kSettingsFile, settings, error)) return nullptr;
  const auto [project, cycle, time_step, stage] = numbers;
  if (project < 0 || project > settings.subprojects || project > 100 || cycle < 1 || time_step < 1 ||
      time_step > settings.time_steps || stage < 1 || stage > 4) {
    error = "project " + std::to_string(project) + ", cycle " + std::to_string(cycle) + ", time step " +
            std::to_string(time_step) + ", stage " + std::to_string(stage) + " is no stage of this run (" +
            std::to_string(settings.subprojects) + " sub projects, " + std::to_string(settings.time_steps) +
            " time steps per cycle)";
    return nullptr;
  }
  // A resumed run: the driver's cycle in the run's numbers, and the
  // settings as lockstepctl resume left them.
  resume::Record resumed;
  const resume::ReadOutcome record = resume::read_record(".", resumed, error);
  if (record == resume::ReadOutcome::kError) return nullptr;
  if (record == resume::ReadOutcome::kRead &&
      (settings.time_steps != resumed.time_step || settings.cycles != resumed.remaining() ||
       settings.subprojects != resumed.num_subprojects)) {
    error = std::string(kSettingsFile) + " was changed after lockstepctl resume: the run resumes after cycle " +
            std::to_string(resumed.after_cycle) + " with time_step=" + std::to_string(resumed.time_step) +
            " cycle_num=" + std::to_string(resumed.remaining()) + " num_subprojects=" +
            std::to_string(resumed.num_subprojects) + "; stop lockstep and run lockstepctl resume again";
    return nullptr;
  }
  const int run_cycle = cycle + (record == resume::ReadOutcome::kRead ? resumed.after_cycle : 0);
  return std::unique_ptr<InteractionFields>(
      new InteractionFields(project, project::Request{run_cycle, time_step, stage}, settings.time_steps,
                            settings.subprojects));
}

Outcome InteractionFields::get(int source, const std::string& name, const Values& values, Accept accept) {
  std::vector<char> scratch;
  Header header;
  const Outcome outcome = get(source, name, into(values, scratch), header, accept);
  if (outcome == Outcome::kOk) finish_into(values, header, scratch);
  return outcome;
}

Outcome InteractionFields::get(int source, const std::string& name, const Destination& destination, Header& header,
                               Accept accept) {
  if (source < 0 || source > subprojects_) {
    error_ = "there is no project " + std::to_string(source) + " in this run (" + std::to_string(subprojects_) +
             " sub projects)";
    return Outcome::kError;
  }
  const auto check = [&](const std::optional<Stamp>& stamp) {
    return check_output(name, stamp, source, request_, time_steps_, accept);
  };
  return get_field(name, field_path(project_directory(source), Role::kOutput, name), check, destination, header,
                   error_);
}

Outcome InteractionFields::put(const std::string& name, const Values& values) {
  const Stamp stamp{project_, Role::kInput, request_};
  return put_field(name, field_path(project_directory(project_), Role::kInput, name), stamp, values, error_);
}

}  // namespace lockstep::fields
