// A project served by every rank of an MPI communicator. Its root (rank 0)
// holds the directory's lock, waits for the driver's requests and writes and
// reads the field files; every call here is collective, and every rank gets
// the same outcome. A rank puts and gets only its own rows: a field put here
// is the ranks' parts concatenated in rank order, with each part's row count
// in its header.
#pragma once

// <mpi.h>, without MPI's C++ bindings.
#include "lockstep_mpi.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "access.h"
#include "endpoint.h"
#include "solver.h"

namespace lockstep::mpi {

class LOCKSTEP_API Project {
 public:
  // Collective over `communicator`, which it duplicates: opens and locks the
  // directory on the root. nullptr on every rank, with the reason in
  // `error`, when the root cannot.
  static std::unique_ptr<Project> open(const std::string& directory, MPI_Comm communicator, std::string& error);
  ~Project();
  Project(const Project&) = delete;
  Project& operator=(const Project&) = delete;

  // The next request, the same on every rank. The other ranks sleep while
  // the root waits: they cost next to no processor time.
  project::WaitResult wait(project::Request& request);
  // Reports the request done, only when every rank called done and no call
  // of this project failed on any rank.
  project::DoneResult done();
  // This rank's rows of the output `name`; every rank gives the same type
  // and the same extents after the first. A rank may give no rows.
  // `failure`, when not empty, is what is wrong with them on this rank: the
  // call fails on every rank with it.
  fields::Outcome put(const std::string& name, const fields::Values& part, const std::string& failure = {});
  // This rank's rows of the input `name`: its part of a field with parts
  // (which must be one per rank), or the whole of one without. `part` must
  // have the type and shape of those rows.
  fields::Outcome get(const std::string& name, const fields::Values& part,
                      fields::Accept accept = fields::Accept::kStage, const std::string& failure = {});
  // Any shape: `destination` gets the header of this rank's rows.
  fields::Outcome get(const std::string& name, const fields::Destination& destination, fields::Header& header,
                      fields::Accept accept = fields::Accept::kStage);
  // In the cycle-end request, once every rank has saved its own state.
  bool checkpoint();
  // Makes every rank's error say what is wrong and what to do; returns it.
  const std::string& cannot_resume(const std::string& reason);

  // For a failure outside this library's calls, such as an exception on one
  // rank: says so on stderr with this rank's number and ends every rank of
  // the job (MPI_Abort), so that none waits for it forever. Nothing is
  // reported done.
  [[noreturn]] void abort(const std::string& message) const;

  const std::optional<std::int32_t>& resumes_after() const { return resumes_after_; }
  const std::optional<project::Request>& handed_out() const { return handed_out_; }
  const std::string& error() const { return error_; }
  const std::string& directory() const { return directory_; }
  int rank() const { return rank_; }
  int size() const { return size_; }
  MPI_Comm communicator() const { return communicator_; }

  struct Call;
  struct Verdict;

 private:
  Project(MPI_Comm communicator, std::string directory);
  // Every rank's call, at the root (empty elsewhere).
  std::vector<Call> gather(const Call& mine) const;
  // The root's verdict and message, on every rank.
  void share(Verdict& verdict, std::string& message) const;
  // The first way in which the calls disagree or a rank failed, as the
  // verdict's message; empty when they agree.
  std::string disagreement(const std::vector<Call>& calls) const;
  // Takes the verdict on: false, with error_ set, on a failure; a failure
  // stops the project on every rank.
  bool conclude(bool failure, const std::string& message);
  bool stopped();
  fields::Outcome put_rows(const std::string& name, const fields::Values& rows, const std::string& failure);
  fields::Outcome get_rows(const std::string& name, const Call& mine, const fields::Destination& destination,
                           fields::Header& header);

  MPI_Comm communicator_ = MPI_COMM_NULL;
  std::string directory_;
  int rank_ = 0;
  int size_ = 1;
  std::unique_ptr<project::Endpoint> endpoint_;  // the root's
  std::unique_ptr<fields::SolverFields> fields_;  // the root's
  std::optional<std::int32_t> resumes_after_;
  std::optional<project::Request> handed_out_;
  std::string error_;
  // Set on every rank at once when a call failed: the project is stopped.
  std::string stopped_;
};

}  // namespace lockstep::mpi
