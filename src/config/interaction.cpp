#include "config/interaction.h"

#include "records/input.h"

namespace lockstep::config {

std::string interaction_file(int index) { return project_directory(index) + "CalculateInteraction.dat"; }

records::Status read_interaction_table(records::FileSystem& fs, int num_subprojects, InteractionTable& table) {
  for (int index = 0; index <= num_subprojects; ++index) {
    records::InputFile file(fs);
    records::Status status = file.open(records::unit::kProjectFile, interaction_file(index),
                                       records::Access::kUnspecified);
    if (status.ok()) status = file.read_text(kInteractionRecordLength, table[static_cast<std::size_t>(index)]);
    if (status.ok()) status = file.close();
    if (!status.ok()) return std::move(status).within("interaction reader, project " + std::to_string(index));
  }
  return {};
}

}  // namespace lockstep::config
