// lockstepctl field export: fields with their mesh as VTK XML files that
// ParaView opens, one unstructured grid (.vtu), or a collection (.pvd) of
// one grid per field file, over the cycles their stamps name.
#pragma once

#include <string>
#include <vector>

namespace lockstep::ctl {

struct ExportRequest {
  std::string mesh;                 // points: float64 (n,) or (n, d)
  std::string cells;                // optional: int (m, 2), (m, 3) or (m, 4)
  std::vector<std::string> fields;  // values on the mesh, (n,) or (n, k)
  std::string output;               // NAME.vtu, or NAME.pvd for a collection
};

// Writes the files; false with the reason in `error`. `written` lists them.
bool export_fields(const ExportRequest& request, std::vector<std::string>& written, std::string& error);

// A whole run tree: for every mesh its exchange table names (with its
// cells), a collection `output_directory`/PROJECT-MESH.pvd over the stages
// the run kept (each checkpoint, then the fields as they stand), each step
// a grid of every output and input of the project on that mesh. False with
// the reason in `error`.
bool export_tree(const std::string& run_directory, const std::string& output_directory,
                 std::vector<std::string>& written, std::string& error);

}  // namespace lockstep::ctl
