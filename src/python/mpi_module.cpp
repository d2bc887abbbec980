// lockstep._lockstep_mpi: a project served by every rank of an MPI
// communicator, for lockstep/mpi.py. The communicator comes as its Fortran
// handle (mpi4py's Comm.py2f), which any MPI turns back into its own.
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <memory>
#include <optional>
#include <string>
#include <tuple>

#include "mpi/parallel_project.h"
#include "python/arrays.h"

namespace py = pybind11;

namespace lockstep::python {
namespace {

using project::DoneResult;
using project::WaitResult;

class ParallelProject {
 public:
  ParallelProject(const std::string& directory, long long communicator) {
    std::string error;
    {
      py::gil_scoped_release release;
      project_ = mpi::Project::open(directory, MPI_Comm_f2c(static_cast<MPI_Fint>(communicator)), error);
    }
    if (!project_) throw_error(error);
  }

  // (cycle, time_step, stage, out_of_order)
  std::tuple<int, int, int, bool> wait() {
    project::Request request;
    WaitResult result;
    {
      py::gil_scoped_release release;
      result = project_->wait(request);
    }
    if (result == WaitResult::kRequest || result == WaitResult::kOutOfOrder) {
      return {request.cycle, request.time_step, request.stage, result == WaitResult::kOutOfOrder};
    }
    throw_error(project_->error());
  }

  std::string done() {
    DoneResult result;
    {
      py::gil_scoped_release release;
      result = project_->done();
    }
    if (result == DoneResult::kDone) return "done";
    if (result == DoneResult::kOverrun) return "overrun";
    throw_error(project_->error());
  }

  void checkpoint() {
    bool saved;
    {
      py::gil_scoped_release release;
      saved = project_->checkpoint();
    }
    if (!saved) throw_error(project_->error());
  }

  void cannot_resume(const std::string& reason) {
    {
      py::gil_scoped_release release;
      project_->cannot_resume(reason);
    }
    throw_error(project_->error());
  }

  void put(const std::string& name, const py::array& array) {
    std::string failure;
    fields::Values values;
    try {
      values = values_of(array);
    } catch (const py::error_already_set& error) {
      // This rank's own fault still takes part in the call, which then
      // fails on every rank.
      failure = py::str(error.value()).cast<std::string>();
    }
    fields::Outcome outcome;
    {
      py::gil_scoped_release release;
      outcome = project_->put(name, values, failure);
    }
    check(outcome, project_->error());
  }

  py::array get(const std::string& name, const std::string& accept) {
    const fields::Accept rule = accept_rule(accept);
    return read_array(
        [&](const fields::Destination& to, fields::Header& header) { return project_->get(name, to, header, rule); },
        project_->error());
  }

  [[noreturn]] void abort(const std::string& message) { project_->abort(message); }

  std::optional<std::int32_t> resumes_after() const { return project_->resumes_after(); }
  std::string error() const { return project_->error(); }
  std::string directory() const { return project_->directory(); }
  int rank() const { return project_->rank(); }
  int size() const { return project_->size(); }

 private:
  std::unique_ptr<mpi::Project> project_;
};

}  // namespace
}  // namespace lockstep::python

PYBIND11_MODULE(_lockstep_mpi, module) {
  using lockstep::python::ParallelProject;
  module.doc() = "A lockstep project served by every rank of an MPI communicator; use lockstep.mpi.Project.";
  py::class_<ParallelProject>(module, "ParallelEndpoint")
      .def(py::init<const std::string&, long long>(), py::arg("directory"), py::arg("communicator"))
      .def("wait", &ParallelProject::wait)
      .def("done", &ParallelProject::done)
      .def("checkpoint", &ParallelProject::checkpoint)
      .def("cannot_resume", &ParallelProject::cannot_resume, py::arg("reason"))
      .def("put", &ParallelProject::put, py::arg("name"), py::arg("values"))
      .def("get", &ParallelProject::get, py::arg("name"), py::arg("accept"))
      .def("abort", &ParallelProject::abort, py::arg("message"))
      .def("error", &ParallelProject::error)
      .def_property_readonly("resumes_after", &ParallelProject::resumes_after)
      .def_property_readonly("directory", &ParallelProject::directory)
      .def_property_readonly("rank", &ParallelProject::rank)
      .def_property_readonly("size", &ParallelProject::size);
}
