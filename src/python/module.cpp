// lockstep._lockstep: the endpoint for Python. lockstep/__init__.py builds
// the public classes on it.
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <tuple>

#include "project/endpoint.h"

namespace py = pybind11;

namespace lockstep::python {
namespace {

using project::DoneResult;
using project::Endpoint;
using project::Request;
using project::WaitResult;

// (cycle, time_step, stage, out_of_order)
using Pending = std::tuple<int, int, int, bool>;

class Project {
 public:
  explicit Project(const std::string& directory) {
    std::string error;
    endpoint_ = Endpoint::open(directory, error);
    if (!endpoint_) throw_error(error);
  }

  void lock() {
    if (!endpoint_->lock()) throw_error(endpoint_->error());
  }

  // None once `timeout` seconds have passed. The GIL is released while
  // waiting; a signal (Ctrl-C) interrupts the sleep, and its Python handler
  // runs at once.
  std::optional<Pending> wait(std::optional<double> timeout) {
    std::optional<std::chrono::steady_clock::time_point> deadline;
    if (timeout) {
      deadline = std::chrono::steady_clock::now() +
                 std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                     std::chrono::duration<double>(std::max(*timeout, 0.0)));
    }
    bool interrupted = false;
    Request request;
    WaitResult result;
    {
      py::gil_scoped_release release;
      result = endpoint_->wait(
          request,
          [&interrupted] {
            py::gil_scoped_acquire acquire;
            interrupted = PyErr_CheckSignals() != 0;
            return interrupted;
          },
          deadline);
    }
    if (interrupted) throw py::error_already_set();
    switch (result) {
      case WaitResult::kRequest: return Pending{request.cycle, request.time_step, request.stage, false};
      case WaitResult::kOutOfOrder: return Pending{request.cycle, request.time_step, request.stage, true};
      case WaitResult::kStopped: return std::nullopt;
      case WaitResult::kError: break;
    }
    throw_error(endpoint_->error());
  }

  // "done", or "overrun" when the driver no longer waits for the request.
  std::string done() {
    switch (endpoint_->report_done()) {
      case DoneResult::kDone: return "done";
      case DoneResult::kOverrun: return "overrun";
      case DoneResult::kError: break;
    }
    throw_error(endpoint_->error());
  }

  std::string error() const { return endpoint_->error(); }
  std::string mode() const { return endpoint_->describe_mode(); }
  std::string directory() const { return endpoint_->directory(); }

 private:
  // lockstep.Error, defined in lockstep/__init__.py, with the library's
  // message.
  [[noreturn]] static void throw_error(const std::string& message) {
    const py::object error = py::module_::import("lockstep").attr("Error");
    PyErr_SetString(error.ptr(), message.c_str());
    throw py::error_already_set();
  }

  std::unique_ptr<Endpoint> endpoint_;
};

}  // namespace
}  // namespace lockstep::python

PYBIND11_MODULE(_lockstep, module) {
  using lockstep::python::Project;
  module.doc() = "The lockstep endpoint; use the classes of the lockstep package.";
  py::class_<Project>(module, "Endpoint")
      .def(py::init<const std::string&>(), py::arg("directory"))
      .def("lock", &Project::lock)
      .def("wait", &Project::wait, py::arg("timeout") = py::none())
      .def("done", &Project::done)
      .def("error", &Project::error)
      .def_property_readonly("mode", &Project::mode)
      .def_property_readonly("directory", &Project::directory);
}
