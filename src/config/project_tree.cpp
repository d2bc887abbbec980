#include "config/project_tree.h"

#include "records/field.h"

namespace lockstep::config {

std::string index_text(int index) { return records::format_integer(index, index <= 9 ? 1 : 2); }

std::string project_directory(int index) {
  if (index == 0) return "../main/";
  const std::string text = index_text(index);
  return records::concatenate({"../sub", text, "/"}, 7 + text.size());
}

}  // namespace lockstep::config
