#include "python/mapping.h"

#include <pybind11/numpy.h>
#include <pybind11/stl.h>

#include <map>
#include <optional>
#include <string>

#include "mapping/check.h"
#include "mapping/method.h"

namespace py = pybind11;

namespace lockstep::python {
namespace {

[[noreturn]] void fail(const std::string& message) {
  const py::object error = py::module_::import("lockstep").attr("Error");
  PyErr_SetString(error.ptr(), message.c_str());
  throw py::error_already_set();
}

fields::Header header_of(const py::array& array, fields::Type type) {
  fields::Header header;
  header.type = type;
  for (py::ssize_t axis = 0; axis < array.ndim(); ++axis) header.shape.push_back(array.shape(axis));
  return header;
}

mapping::Points points_of(const char* what, const py::array_t<double, py::array::c_style | py::array::forcecast>& array) {
  mapping::Points points;
  if (const std::string error = mapping::points_from_field(header_of(array, fields::Type::kFloat64), array.data(), points);
      !error.empty()) {
    fail(std::string(what) + ": " + error);
  }
  return points;
}

std::optional<mapping::Cells> cells_of(const char* what, const py::object& given, const mapping::Points& points) {
  if (given.is_none()) return std::nullopt;
  const auto array = py::array_t<std::int64_t, py::array::c_style | py::array::forcecast>::ensure(given);
  if (!array) fail(std::string(what) + ": give an integer array of shape (m, 2), (m, 3) or (m, 4)");
  mapping::Cells cells;
  if (const std::string error = mapping::cells_from_field(header_of(array, fields::Type::kInt64), array.data(), points, cells);
      !error.empty()) {
    fail(std::string(what) + ": " + error);
  }
  return cells;
}

// (rows, columns, values, shape) of the weights, for scipy.sparse.coo_matrix.
py::tuple mapping_weights(const py::array_t<double, py::array::c_style | py::array::forcecast>& from_mesh,
                          const py::array_t<double, py::array::c_style | py::array::forcecast>& to_mesh,
                          const std::map<std::string, std::string>& options, const py::object& from_cells,
                          const py::object& to_cells) {
  std::map<std::string, std::string> words = options;
  words["from-mesh"] = "from_mesh";
  words["to-mesh"] = "to_mesh";
  if (!from_cells.is_none()) words["from-cells"] = "from_cells";
  if (!to_cells.is_none()) words["to-cells"] = "to_cells";
  mapping::Method method;
  std::map<std::string, std::string> names;
  if (const std::string error = mapping::parse_method(words, method, names); !error.empty()) fail(error);
  const mapping::Points from = points_of("from_mesh", from_mesh), to = points_of("to_mesh", to_mesh);
  const std::optional<mapping::Cells> source_cells = cells_of("from_cells", from_cells, from);
  const std::optional<mapping::Cells> target_cells = cells_of("to_cells", to_cells, to);
  mapping::Weights weights;
  std::string error;
  {
    py::gil_scoped_release release;
    error = mapping::compute_weights(method, from, source_cells ? &*source_cells : nullptr, to,
                                     target_cells ? &*target_cells : nullptr, weights);
    mapping::Deviation largest;
    if (error.empty()) error = mapping::check_weights(method, from, to, weights.view(), largest);
  }
  if (!error.empty()) fail(error);
  const auto count = static_cast<py::ssize_t>(weights.value.size());
  py::array_t<std::int64_t> rows(count);
  auto row = rows.mutable_unchecked<1>();
  for (std::size_t r = 0; r < weights.rows; ++r) {
    for (auto at = weights.row_start[r]; at < weights.row_start[r + 1]; ++at) row(at) = static_cast<std::int64_t>(r);
  }
  // Columns and values handed over, not copied: they run to hundreds of
  // megabytes. The arrays keep the weights alive.
  auto* kept = new mapping::Weights(std::move(weights));
  const py::capsule owner(kept, [](void* held) { delete static_cast<mapping::Weights*>(held); });
  const py::array_t<std::int32_t> columns(count, kept->column_of.data(), owner);
  const py::array_t<double> values(count, kept->value.data(), owner);
  return py::make_tuple(rows, columns, values, py::make_tuple(kept->rows, kept->columns));
}

}  // namespace

void add_mapping(py::module_& module) {
  module.def("mapping_weights", &mapping_weights, py::arg("from_mesh"), py::arg("to_mesh"), py::arg("options"),
             py::arg("from_cells") = py::none(), py::arg("to_cells") = py::none());
}

}  // namespace lockstep::python
