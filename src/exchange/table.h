// The exchange table: which output of which project becomes which input of
// which project, one line each, read by lockstep-exchange in every stage and
// by lockstepctl check before a run.
//
//   # from  output      to    input   mapping
//   sub1    u[0:1]      main  right
//   main    u[3:4]      sub1  left
//   main    T           sub1  T_in    map=linear from-mesh=xy from-cells=tri to-mesh=xy_left
#pragma once

#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace lockstep::exchange {

// The table's file name, in the driver's working directory.
inline constexpr const char* kTableFile = "exchange.dat";
// The most of a table that is read.
inline constexpr std::size_t kTableLimit = 1 << 20;

struct Copy {
  int line = 0;
  int from = 0;  // project index
  std::string output;
  // Values [first, last) of the output, flattened in its order; the whole
  // field, shape kept, when not given.
  std::optional<std::size_t> first, last;
  int to = 0;
  std::string input;
  // The mapping words, key=value, checked; empty for a plain copy.
  std::map<std::string, std::string> mapping;
};

struct Table {
  std::vector<Copy> copies;
  std::vector<std::string> errors;  // "exchange.dat:3: ..." for lines that cannot be read
};

// "main" is 0, "sub1" 1, ... "sub100" 100; nullopt otherwise.
std::optional<int> parse_project(const std::string& name);

Table parse_table(const std::string& text);

// Reads the table file at `path`; false with the reason when it cannot.
bool read_table(const std::string& path, Table& table, std::string& error);

}  // namespace lockstep::exchange
