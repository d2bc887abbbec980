#include "exchange/table.h"

#include <array>
#include <charconv>
#include <fstream>
#include <map>
#include <set>

#include "fields/format.h"
#include "mapping/method.h"

namespace lockstep::exchange {
namespace {

bool parse_index(std::string_view text, std::size_t& value) {
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  return !text.empty() && error == std::errc() && end == text.data() + text.size();
}

// "name" or "name[first:last]".
bool parse_output(const std::string& text, Copy& copy, std::string& error) {
  const std::size_t open = text.find('[');
  copy.output = text.substr(0, open);
  if (open != std::string::npos) {
    const std::size_t colon = text.find(':', open);
    std::size_t first = 0, last = 0;
    if (text.back() != ']' || colon == std::string::npos ||
        !parse_index(std::string_view(text).substr(open + 1, colon - open - 1), first) ||
        !parse_index(std::string_view(text).substr(colon + 1, text.size() - colon - 2), last) || last <= first) {
      error = "\"" + text + "\" is no slice: write NAME[FIRST:LAST] with FIRST < LAST, counted from 0";
      return false;
    }
    copy.first = first;
    copy.last = last;
  }
  error = fields::check_name(copy.output);
  return error.empty();
}

// The words after INPUT: key=value each, a mapping's.
std::string parse_mapping(const std::vector<std::string>& word, Copy& copy) {
  for (std::size_t i = 4; i < word.size(); ++i) {
    const std::size_t equals = word[i].find('=');
    if (equals == std::string::npos || equals == 0) {
      return "\"" + word[i] + "\" is no mapping word: after FROM OUTPUT TO INPUT come only key=value words, such "
             "as map=nearest-neighbour from-mesh=NAME to-mesh=NAME";
    }
    if (!copy.mapping.emplace(word[i].substr(0, equals), word[i].substr(equals + 1)).second) {
      return word[i].substr(0, equals + 1) + " is given twice";
    }
  }
  if (copy.mapping.empty()) return {};
  if (copy.first) return "a mapped output is mapped whole, not sliced";
  mapping::Method method;
  std::map<std::string, std::string> names;
  if (std::string error = mapping::parse_method(copy.mapping, method, names); !error.empty()) return error;
  for (const auto& [key, name] : names) {
    if (std::string error = fields::check_name(name); !error.empty()) return key + "=" + name + ": " + error;
  }
  return {};
}

}  // namespace

std::optional<int> parse_project(const std::string& name) {
  if (name == "main") return 0;
  std::size_t index = 0;
  if (name.size() < 4 || name.compare(0, 3, "sub") != 0 || name[3] == '0' ||
      !parse_index(std::string_view(name).substr(3), index) || index > 100) {
    return std::nullopt;
  }
  return static_cast<int>(index);
}

Table parse_table(const std::string& text) {
  Table table;
  // The line that writes each input, by project and name.
  std::map<std::pair<int, std::string>, int> writers;
  std::set<std::pair<int, std::string>> conflicts;
  std::size_t next = 0;
  for (int number = 1; next < text.size(); ++number) {
    const std::size_t line_end = std::min(text.find('\n', next), text.size());
    std::string line = text.substr(next, line_end - next);
    next = line_end + 1;
    if (const std::size_t hash = line.find('#'); hash != std::string::npos) line.resize(hash);
    std::vector<std::string> word;
    for (std::size_t at = line.find_first_not_of(" \t\r"); at != std::string::npos;
         at = line.find_first_not_of(" \t\r", at)) {
      const std::size_t end = std::min(line.find_first_of(" \t\r", at), line.size());
      word.push_back(line.substr(at, end - at));
      at = end;
    }
    if (word.empty()) continue;
    const std::string where = std::string(kTableFile) + ":" + std::to_string(number) + ": ";
    if (word.size() < 4) {
      table.errors.push_back(where + "a line holds four words, FROM OUTPUT TO INPUT, not " +
                             std::to_string(word.size()));
      continue;
    }
    Copy copy;
    copy.line = number;
    std::string error;
    const std::optional<int> from = parse_project(word[0]);
    const std::optional<int> to = parse_project(word[2]);
    if (!from || !to) {
      table.errors.push_back(where + "\"" + (from ? word[2] : word[0]) +
                             "\" is no project: write main, sub1, sub2, ...");
      continue;
    }
    copy.from = *from;
    copy.to = *to;
    copy.input = word[3];
    if (!parse_output(word[1], copy, error) || !(error = fields::check_name(copy.input)).empty() ||
        !(error = parse_mapping(word, copy)).empty()) {
      table.errors.push_back(where + error);
      continue;
    }
    if (const auto [earlier, first] = writers.try_emplace({copy.to, copy.input}, number); !first) {
      table.errors.push_back(where + "input \"" + copy.input + "\" of " + fields::project_name(copy.to) +
                             " is already written by line " + std::to_string(earlier->second) +
                             ": an input comes from one line only; neither line is carried out");
      conflicts.insert(earlier->first);
      continue;
    }
    table.copies.push_back(copy);
  }
  std::erase_if(table.copies, [&](const Copy& copy) { return conflicts.count({copy.to, copy.input}) > 0; });
  return table;
}

bool read_table(const std::string& path, Table& table, std::string& error) {
  std::ifstream file(path, std::ios::binary);
  if (!file) {
    error = "cannot read " + path + ": " + (errno == ENOENT ? std::string("no such file") : "not readable") +
            "; lockstep-exchange takes its table from the driver's working directory";
    return false;
  }
  // Read as it comes, not into a buffer of the limit's size: the program
  // starts once per project per stage, and a table is a few lines.
  std::string text;
  std::array<char, 4096> chunk{};
  while (text.size() <= kTableLimit && file.read(chunk.data(), chunk.size()).gcount() > 0) {
    text.append(chunk.data(), static_cast<std::size_t>(file.gcount()));
  }
  if (text.size() > kTableLimit) {
    error = path + " is longer than " + std::to_string(kTableLimit) + " bytes";
    return false;
  }
  table = parse_table(text);
  return true;
}

}  // namespace lockstep::exchange
