// What the Python modules share: NumPy arrays as field values and back,
// and the library's failures as the lockstep package's exceptions.
#pragma once

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>

#include <algorithm>
#include <string>
#include <vector>

#include "fields/access.h"

namespace lockstep::python {

namespace py = pybind11;

// The helpers are inline: each extension module holds its own copy.
// lockstep.Error, or the subclass `kind`, defined in lockstep/__init__.py,
// with the library's message.
[[noreturn]] inline void throw_error(const std::string& message, const char* kind = "Error") {
  const py::object error = py::module_::import("lockstep").attr(kind);
  PyErr_SetString(error.ptr(), message.c_str());
  throw py::error_already_set();
}

inline void check(fields::Outcome outcome, const std::string& message) {
  if (outcome == fields::Outcome::kStale) throw_error(message, "StaleFieldError");
  if (outcome == fields::Outcome::kError) throw_error(message);
}

inline fields::Accept accept_rule(const std::string& accept) {
  if (accept == "stage") return fields::Accept::kStage;
  if (accept == "time_step") return fields::Accept::kTimeStep;
  if (accept == "any") return fields::Accept::kAny;
  throw_error("accept=\"" + accept + "\": use \"stage\", \"time_step\" or \"any\"");
}

// An array of float64, int32 or int64 values, contiguous in either order
// (the package converts anything else before it gets here).
inline fields::Values values_of(const py::array& array) {
  fields::Values values;
  if (array.dtype().is(py::dtype::of<double>())) {
    values.type = fields::Type::kFloat64;
  } else if (array.dtype().is(py::dtype::of<std::int32_t>())) {
    values.type = fields::Type::kInt32;
  } else if (array.dtype().is(py::dtype::of<std::int64_t>())) {
    values.type = fields::Type::kInt64;
  } else {
    throw_error("a field holds float64, int32 or int64 values, not " + py::str(array.dtype()).cast<std::string>());
  }
  const bool row_major = (array.flags() & py::array::c_style) != 0;
  values.column_major = !row_major;
  for (py::ssize_t axis = 0; axis < array.ndim(); ++axis) values.shape.push_back(array.shape(axis));
  values.data = const_cast<void*>(array.data());
  return values;
}

inline py::dtype dtype_of(fields::Type type) {
  switch (type) {
    case fields::Type::kInt32: return py::dtype::of<std::int32_t>();
    case fields::Type::kInt64: return py::dtype::of<std::int64_t>();
    case fields::Type::kFloat64: break;
  }
  return py::dtype::of<double>();
}

// Reads a field through `read` (given a destination) into a new array of
// the file's type, shape and order; the GIL is released while reading.
template <typename Read>
py::array read_array(Read read, const std::string& error) {
  py::array array;
  fields::Header header;
  fields::Outcome outcome;
  {
    py::gil_scoped_release release;
    outcome = read(
        [&array](const fields::Header& found, std::string&) -> void* {
          py::gil_scoped_acquire acquire;
          std::vector<py::ssize_t> shape(found.shape.begin(), found.shape.end());
          std::vector<py::ssize_t> strides(shape.size());
          auto step = static_cast<py::ssize_t>(fields::element_size(found.type));
          for (std::size_t i = 0; i < shape.size(); ++i) {
            const std::size_t axis = found.column_major ? i : shape.size() - 1 - i;
            strides[axis] = step;
            step *= std::max<py::ssize_t>(shape[axis], 1);
          }
          array = py::array(dtype_of(found.type), shape, strides);
          return array.mutable_data();
        },
        header);
  }
  check(outcome, error);
  return array;
}

}  // namespace lockstep::python
