// Just enough JSON output for lockstepctl's --json reports.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace lockstep::ctl::json {

// `text` as a JSON string, quotes included.
std::string quoted(std::string_view text);
std::string array(const std::vector<std::string>& elements);
std::string strings(const std::vector<std::string>& texts);

}  // namespace lockstep::ctl::json
