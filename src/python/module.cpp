// lockstep._lockstep: the endpoint for Python. lockstep/__init__.py builds
// the public classes on it.
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <tuple>

#include "fields/interaction.h"
#include "fields/solver.h"
#include "project/endpoint.h"
#include "python/arrays.h"
#include "python/mapping.h"

namespace py = pybind11;

namespace lockstep::python {
namespace {

using fields::Accept;
using fields::Outcome;
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

  void checkpoint() {
    if (!endpoint_->checkpoint()) throw_error(endpoint_->error());
  }

  std::optional<std::int32_t> resumes_after() const { return endpoint_->resumes_after(); }

  void cannot_resume(const std::string& reason) { throw_error(endpoint_->cannot_resume(reason)); }

  // "done", or "overrun" when the driver no longer waits for the request.
  std::string done() {
    switch (endpoint_->report_done()) {
      case DoneResult::kDone: return "done";
      case DoneResult::kOverrun: return "overrun";
      case DoneResult::kError: break;
    }
    throw_error(endpoint_->error());
  }

  void put(const std::string& name, const py::array& array) {
    const fields::Values values = values_of(array);
    Outcome outcome;
    {
      py::gil_scoped_release release;
      outcome = fields().put(name, values);
    }
    check(outcome, fields().error());
  }

  py::array get(const std::string& name, const std::string& accept) {
    const Accept rule = accept_rule(accept);
    fields::SolverFields& solver = fields();
    return read_array([&](const fields::Destination& to, fields::Header& header) { return solver.get(name, to, header, rule); },
                      solver.error());
  }

  std::string error() const { return endpoint_->error(); }
  std::string mode() const { return endpoint_->describe_mode(); }
  std::string directory() const { return endpoint_->directory(); }

 private:
  fields::SolverFields& fields() {
    if (!fields_) {
      std::string error;
      fields_ = fields::SolverFields::open(*endpoint_, error);
      if (!fields_) throw_error(error);
    }
    return *fields_;
  }

  std::unique_ptr<Endpoint> endpoint_;
  std::unique_ptr<fields::SolverFields> fields_;
};

// An interaction program's context, from its arguments and working
// directory.
class Interaction {
 public:
  explicit Interaction(const std::vector<std::string>& arguments) {
    std::vector<const char*> argv;
    for (const std::string& argument : arguments) argv.push_back(argument.c_str());
    std::string error;
    fields_ = fields::InteractionFields::open(static_cast<int>(argv.size()), argv.data(), error);
    if (!fields_) throw_error(error);
  }

  py::array get(int source, const std::string& name, const std::string& accept) {
    const Accept rule = accept_rule(accept);
    return read_array(
        [&](const fields::Destination& to, fields::Header& header) { return fields_->get(source, name, to, header, rule); },
        fields_->error());
  }

  void put(const std::string& name, const py::array& array) {
    const fields::Values values = values_of(array);
    Outcome outcome;
    {
      py::gil_scoped_release release;
      outcome = fields_->put(name, values);
    }
    check(outcome, fields_->error());
  }

  int project() const { return fields_->project(); }
  std::tuple<int, int, int> request() const {
    return {fields_->request().cycle, fields_->request().time_step, fields_->request().stage};
  }

 private:
  std::unique_ptr<fields::InteractionFields> fields_;
};

}  // namespace
}  // namespace lockstep::python

PYBIND11_MODULE(_lockstep, module) {
  using lockstep::python::Interaction;
  using lockstep::python::Project;
  module.doc() = "The lockstep endpoint; use the classes of the lockstep package.";
  py::class_<Project>(module, "Endpoint")
      .def(py::init<const std::string&>(), py::arg("directory"))
      .def("lock", &Project::lock)
      .def("wait", &Project::wait, py::arg("timeout") = py::none())
      .def("done", &Project::done)
      .def("checkpoint", &Project::checkpoint)
      .def("cannot_resume", &Project::cannot_resume, py::arg("reason"))
      .def_property_readonly("resumes_after", &Project::resumes_after)
      .def("put", &Project::put, py::arg("name"), py::arg("values"))
      .def("get", &Project::get, py::arg("name"), py::arg("accept"))
      .def("error", &Project::error)
      .def_property_readonly("mode", &Project::mode)
      .def_property_readonly("directory", &Project::directory);
  py::class_<Interaction>(module, "Interaction")
      .def(py::init<const std::vector<std::string>&>(), py::arg("arguments"))
      .def("get", &Interaction::get, py::arg("source"), py::arg("name"), py::arg("accept"))
      .def("put", &Interaction::put, py::arg("name"), py::arg("values"))
      .def_property_readonly("project", &Interaction::project)
      .def_property_readonly("request", &Interaction::request);
  lockstep::python::add_mapping(module);
}
