#include "mpi/parallel_project.h"

#include <algorithm>
#include <chrono>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "format.h"
#include "store.h"

namespace lockstep::mpi {

enum class Operation : std::int32_t { kOpen = 1, kWait, kDone, kPut, kGet, kCheckpoint, kCannotResume };

inline constexpr std::size_t kFailureLength = 512;

// What a rank asked for, as the root compares it with the others'.
struct Project::Call {
  Operation operation = Operation::kOpen;
  std::int32_t type = -1;        // a field's value type; -1 for none or any
  std::int32_t dimensions = -1;  // -1 for any shape
  std::int32_t accept = 0;
  std::int64_t shape[fields::kMaxRank] = {};
  char name[fields::kMaxNameLength + 1] = {};
  char failure[kFailureLength] = {};  // this rank's own error, found before the call
};

// What the root decided, for every rank.
struct Project::Verdict {
  std::int32_t result = 0;   // the operation's outcome, as its enumerator's number
  std::int32_t failure = 0;  // 1 when the project stops
  std::int32_t request[3] = {};
  std::int32_t resumed = 0;
  std::int32_t resumes_after = 0;
  std::int32_t partitioned = 0;
  std::int32_t type = 0;
  std::int32_t dimensions = 0;
  std::int32_t stamp[5] = {};  // project, role, cycle, time step, stage
  std::int64_t shape[fields::kMaxRank] = {};
  std::uint64_t message_length = 0;
};

namespace {

using fields::Outcome;
using project::DoneResult;
using project::WaitResult;

// How long a rank yields between looks before it starts to sleep: the
// other ranks' part of a call mostly comes within this.
constexpr std::chrono::microseconds kYielding{5000};
// The longest pause between looks while a rank waits for the others, as it
// does all the while rank 0 waits for a request; a blocking MPI call would
// keep a core busy instead.
constexpr std::chrono::microseconds kLongestPause{6000};
// The most of a message that goes to every rank.
constexpr std::size_t kLongestMessage = 65536;

// Completes `request` without spinning: yields the processor between looks
// for kYielding, then sleeps between them, longer each time up to
// kLongestPause.
void finish(MPI_Request& request) {
  const auto start = std::chrono::steady_clock::now();
  std::chrono::microseconds pause{50};
  for (int finished = 0;;) {
    MPI_Test(&request, &finished, MPI_STATUS_IGNORE);
    if (finished != 0) return;
    if (std::chrono::steady_clock::now() - start < kYielding) {
      std::this_thread::yield();
      continue;
    }
    std::this_thread::sleep_for(pause);
    pause = std::min(pause * 2, kLongestPause);
  }
}

// MPI counts are ints: sizes are checked against this before any use.
constexpr auto kMpiLimit = static_cast<std::uint64_t>(INT_MAX);

void copy_text(char* to, std::size_t capacity, const std::string& text) {
  const std::size_t length = std::min(text.size(), capacity - 1);
  std::memcpy(to, text.data(), length);
  to[length] = '\0';
}

std::string text_of(const char* text, std::size_t capacity) { return {text, strnlen(text, capacity)}; }

std::string describe_call(const Project::Call& call) {
  const std::string name = "(\"" + text_of(call.name, sizeof call.name) + "\")";
  switch (call.operation) {
    case Operation::kOpen: return "open";
    case Operation::kWait: return "wait";
    case Operation::kDone: return "done";
    case Operation::kPut: return "put" + name;
    case Operation::kGet: return "get" + name;
    case Operation::kCheckpoint: return "checkpoint";
    case Operation::kCannotResume: return "cannot_resume";
  }
  return "an unknown call";
}

std::vector<std::int64_t> shape_of(const Project::Call& call) {
  return {call.shape, call.shape + std::max(call.dimensions, 0)};
}

std::string values_text(std::int32_t type, const std::vector<std::int64_t>& shape) {
  return fields::type_name(static_cast<fields::Type>(type)) + " values of shape " + fields::shape_text(shape);
}

// The call for a field's rows, with whatever is wrong with them locally.
Project::Call field_call(Operation operation, const std::string& name, const fields::Values* rows,
                         std::string failure = {}) {
  Project::Call call;
  call.operation = operation;
  copy_text(call.name, sizeof call.name, name);
  if (failure.empty()) failure = fields::check_name(name);
  if (rows != nullptr) {
    call.type = static_cast<std::int32_t>(rows->type);
    call.dimensions = static_cast<std::int32_t>(rows->shape.size());
    std::size_t count = 0;
    if (failure.empty() && (rows->shape.empty() || rows->shape.size() > fields::kMaxRank)) {
      failure = "field \"" + name + "\": a rank's rows have 1 to " + std::to_string(fields::kMaxRank) +
                " dimensions, the first counting its rows, not " + std::to_string(rows->shape.size()) +
                (rows->shape.empty() ? " (put a single value as shape (1,) from one rank and (0,) from the others)"
                                     : "");
      call.dimensions = -1;
    } else if (failure.empty() && !fields::value_count(rows->shape, count)) {
      failure = "field \"" + name + "\" has an invalid shape " + fields::shape_text(rows->shape);
    }
    for (std::size_t axis = 0; axis < rows->shape.size() && axis < fields::kMaxRank; ++axis) {
      call.shape[axis] = rows->shape[axis];
    }
  }
  copy_text(call.failure, sizeof call.failure, failure);
  return call;
}

// A row of `bytes` bytes as one MPI element, so that counts and offsets
// are rows.
class RowType {
 public:
  explicit RowType(std::uint64_t bytes) {
    MPI_Type_contiguous(static_cast<int>(bytes), MPI_BYTE, &type_);
    MPI_Type_commit(&type_);
  }
  ~RowType() { MPI_Type_free(&type_); }
  RowType(const RowType&) = delete;
  RowType& operator=(const RowType&) = delete;
  MPI_Datatype get() const { return type_; }

 private:
  MPI_Datatype type_ = MPI_DATATYPE_NULL;
};

std::uint64_t row_bytes(std::int32_t type, const std::vector<std::int64_t>& shape) {
  std::size_t count = 0;
  fields::value_count({shape.begin() + 1, shape.end()}, count);
  return count * fields::element_size(static_cast<fields::Type>(type));
}

// Why rows of `bytes` bytes, `rows` of them in all, cannot be sent in one
// MPI call; empty when they can.
std::string too_large(const std::string& name, std::uint64_t bytes, std::uint64_t rows) {
  if (bytes <= kMpiLimit && rows <= kMpiLimit) return {};
  return "field \"" + name + "\" has " + std::to_string(rows) + " rows of " + std::to_string(bytes) +
         " bytes: a parallel project's field has at most " + std::to_string(kMpiLimit) + " rows, of at most " +
         std::to_string(kMpiLimit) + " bytes each";
}

}  // namespace

Project::Project(MPI_Comm communicator, std::string directory)
    : communicator_(communicator), directory_(std::move(directory)) {
  MPI_Comm_rank(communicator_, &rank_);
  MPI_Comm_size(communicator_, &size_);
}

Project::~Project() {
  int finalized = 0;
  MPI_Finalized(&finalized);
  if (finalized == 0 && communicator_ != MPI_COMM_NULL) MPI_Comm_free(&communicator_);
}

std::unique_ptr<Project> Project::open(const std::string& directory, MPI_Comm communicator, std::string& error) {
  // A communicator of its own keeps these messages apart from the solver's.
  MPI_Comm own = MPI_COMM_NULL;
  MPI_Request duplicated = MPI_REQUEST_NULL;
  MPI_Comm_idup(communicator, &own, &duplicated);
  finish(duplicated);
  std::unique_ptr<Project> project(new Project(own, directory));
  const std::vector<Call> calls = project->gather(Call{});
  Verdict verdict;
  std::string message;
  if (project->rank_ == 0) {
    message = project->disagreement(calls);
    if (message.empty()) project->endpoint_ = project::Endpoint::open(directory, message);
    if (project->endpoint_ && !project->endpoint_->lock()) message = project->endpoint_->error();
    if (message.empty()) project->fields_ = fields::SolverFields::open(*project->endpoint_, message);
    verdict.failure = message.empty() ? 0 : 1;
    if (project->endpoint_ && project->endpoint_->resumes_after()) {
      verdict.resumed = 1;
      verdict.resumes_after = *project->endpoint_->resumes_after();
    }
  }
  project->share(verdict, message);
  if (verdict.failure != 0) {
    error = message;
    return nullptr;
  }
  if (verdict.resumed != 0) project->resumes_after_ = verdict.resumes_after;
  return project;
}

std::vector<Project::Call> Project::gather(const Call& mine) const {
  std::vector<Call> calls(rank_ == 0 ? static_cast<std::size_t>(size_) : 0);
  MPI_Request request = MPI_REQUEST_NULL;
  MPI_Igather(&mine, sizeof(Call), MPI_BYTE, calls.data(), sizeof(Call), MPI_BYTE, 0, communicator_, &request);
  finish(request);
  return calls;
}

void Project::share(Verdict& verdict, std::string& message) const {
  if (rank_ == 0) {
    if (message.size() > kLongestMessage) message.resize(kLongestMessage);
    verdict.message_length = message.size();
  }
  MPI_Request request = MPI_REQUEST_NULL;
  MPI_Ibcast(&verdict, sizeof(Verdict), MPI_BYTE, 0, communicator_, &request);
  finish(request);
  message.resize(std::min<std::uint64_t>(verdict.message_length, kLongestMessage));
  if (message.empty()) return;
  MPI_Ibcast(message.data(), static_cast<int>(message.size()), MPI_CHAR, 0, communicator_, &request);
  finish(request);
}

std::string Project::disagreement(const std::vector<Call>& calls) const {
  for (std::size_t rank = 0; rank < calls.size(); ++rank) {
    if (calls[rank].failure[0] != '\0') {
      return "rank " + std::to_string(rank) + " of " + std::to_string(size_) + ": " +
             text_of(calls[rank].failure, sizeof calls[rank].failure);
    }
  }
  const Call& first = calls.front();
  for (std::size_t rank = 1; rank < calls.size(); ++rank) {
    const Call& call = calls[rank];
    const std::string rank_text = "rank " + std::to_string(rank) + " of " + std::to_string(size_);
    if (call.operation != first.operation || std::strcmp(call.name, first.name) != 0 ||
        call.accept != first.accept) {
      return rank_text + " called " + describe_call(call) + " where rank 0 called " + describe_call(first) +
             ": every rank makes the same calls of the project, in the same order";
    }
    if (call.operation != Operation::kPut) continue;
    std::vector<std::int64_t> shape = shape_of(call), first_shape = shape_of(first);
    if (call.type != first.type || shape.size() != first_shape.size() ||
        !std::equal(shape.begin() + 1, shape.end(), first_shape.begin() + 1)) {
      return rank_text + " puts \"" + text_of(call.name, sizeof call.name) + "\" as " +
             values_text(call.type, shape) + ", rank 0 as " + values_text(first.type, first_shape) +
             ": the ranks' parts of a field have one type and the same extents after the first";
    }
  }
  return {};
}

bool Project::conclude(bool failure, const std::string& message) {
  error_ = message;
  if (failure) stopped_ = message;
  return !failure;
}

bool Project::stopped() {
  if (stopped_.empty()) return false;
  error_ = "the project stopped at an earlier failure: " + stopped_;
  return true;
}

WaitResult Project::wait(project::Request& request) {
  if (stopped()) return WaitResult::kError;
  Call call;
  call.operation = Operation::kWait;
  const std::vector<Call> calls = gather(call);
  Verdict verdict;
  std::string message;
  if (rank_ == 0) {
    message = disagreement(calls);
    WaitResult result = WaitResult::kError;
    project::Request pending;
    if (message.empty()) {
      result = endpoint_->wait(pending);
      if (result != WaitResult::kRequest) message = endpoint_->error();
    }
    verdict.result = static_cast<std::int32_t>(result);
    verdict.failure = result == WaitResult::kError || result == WaitResult::kStopped ? 1 : 0;
    verdict.request[0] = pending.cycle;
    verdict.request[1] = pending.time_step;
    verdict.request[2] = pending.stage;
  }
  share(verdict, message);
  if (!conclude(verdict.failure != 0, message)) return WaitResult::kError;
  request = {verdict.request[0], verdict.request[1], verdict.request[2]};
  handed_out_ = request;
  return static_cast<WaitResult>(verdict.result);
}

DoneResult Project::done() {
  if (stopped()) return DoneResult::kError;
  Call call;
  call.operation = Operation::kDone;
  const std::vector<Call> calls = gather(call);
  Verdict verdict;
  std::string message;
  if (rank_ == 0) {
    message = disagreement(calls);
    DoneResult result = DoneResult::kError;
    if (message.empty()) {
      result = endpoint_->report_done();
      if (result != DoneResult::kDone) message = endpoint_->error();
    }
    verdict.result = static_cast<std::int32_t>(result);
    verdict.failure = result == DoneResult::kError ? 1 : 0;
  }
  share(verdict, message);
  if (!conclude(verdict.failure != 0, message)) return DoneResult::kError;
  return static_cast<DoneResult>(verdict.result);
}

bool Project::checkpoint() {
  if (stopped()) return false;
  Call call;
  call.operation = Operation::kCheckpoint;
  const std::vector<Call> calls = gather(call);
  Verdict verdict;
  std::string message;
  if (rank_ == 0) {
    message = disagreement(calls);
    if (message.empty() && !endpoint_->checkpoint()) message = endpoint_->error();
    verdict.failure = message.empty() ? 0 : 1;
  }
  share(verdict, message);
  return conclude(verdict.failure != 0, message);
}

const std::string& Project::cannot_resume(const std::string& reason) {
  if (stopped()) return error_;
  Call call;
  call.operation = Operation::kCannotResume;
  const std::vector<Call> calls = gather(call);
  Verdict verdict;
  std::string message;
  if (rank_ == 0) {
    message = disagreement(calls);
    if (message.empty()) message = endpoint_->cannot_resume(reason);
    verdict.failure = 1;
  }
  share(verdict, message);
  conclude(true, message);
  return error_;
}

void Project::abort(const std::string& message) const {
  std::fprintf(stderr,
               "lockstep: rank %d of %d serving %s failed: %s\n"
               "lockstep: the request it serves is not reported done; stopping every rank\n",
               rank_, size_, directory_.c_str(), message.c_str());
  std::fflush(stderr);
  MPI_Abort(communicator_, 1);
  std::abort();
}

Outcome Project::put(const std::string& name, const fields::Values& part, const std::string& failure) {
  if (stopped()) return Outcome::kError;
  // Each rank's rows go in row-major order, so that the parts follow each
  // other in the file.
  std::vector<char> row_major;
  fields::Values rows = part;
  std::size_t count = 0;
  if (part.column_major && part.shape.size() > 1 && fields::value_count(part.shape, count)) {
    row_major.resize(count * fields::element_size(part.type));
    fields::reorder(part.shape, fields::element_size(part.type), false, part.data, row_major.data());
    rows.data = row_major.data();
    rows.column_major = false;
  }
  return put_rows(name, rows, failure);
}

Outcome Project::put_rows(const std::string& name, const fields::Values& rows, const std::string& failure) {
  const Call mine = field_call(Operation::kPut, name, &rows, failure);
  const std::vector<Call> calls = gather(mine);
  Verdict verdict;
  std::string message;
  std::vector<int> counts, offsets;
  std::vector<std::int64_t> parts;
  std::uint64_t total = 0;
  if (rank_ == 0) {
    message = disagreement(calls);
    for (const Call& call : calls) {
      if (!message.empty()) break;
      parts.push_back(call.shape[0]);
      total += static_cast<std::uint64_t>(call.shape[0]);
      message = too_large(name, row_bytes(call.type, shape_of(call)), total);
    }
    verdict.failure = message.empty() ? 0 : 1;
    verdict.result = static_cast<std::int32_t>(message.empty() ? Outcome::kOk : Outcome::kError);
  }
  share(verdict, message);
  if (!conclude(verdict.failure != 0, message)) return Outcome::kError;

  // Agreed, and every size fits an MPI count.
  const std::vector<std::int64_t> shape = shape_of(mine);
  const std::uint64_t bytes = row_bytes(mine.type, shape);
  std::vector<char> whole;
  if (rank_ == 0) {
    whole.resize(total * bytes);
    int offset = 0;
    for (const std::int64_t part : parts) {
      counts.push_back(static_cast<int>(part));
      offsets.push_back(offset);
      offset += static_cast<int>(part);
    }
  }
  if (bytes > 0) {
    const RowType row(bytes);
    MPI_Request request = MPI_REQUEST_NULL;
    MPI_Igatherv(rows.data, static_cast<int>(shape[0]), row.get(), whole.data(), counts.data(), offsets.data(),
                 row.get(), 0, communicator_, &request);
    finish(request);
  }
  verdict = {};
  message.clear();
  if (rank_ == 0) {
    std::vector<std::int64_t> field_shape = shape;
    field_shape[0] = static_cast<std::int64_t>(total);
    const Outcome outcome = fields_->put(name, {rows.type, field_shape, false, whole.data(), parts});
    if (outcome != Outcome::kOk) message = fields_->error();
    verdict.result = static_cast<std::int32_t>(outcome);
    verdict.failure = outcome == Outcome::kOk ? 0 : 1;
  }
  share(verdict, message);
  if (!conclude(verdict.failure != 0, message)) return static_cast<Outcome>(verdict.result);
  return Outcome::kOk;
}

Outcome Project::get(const std::string& name, const fields::Values& part, fields::Accept accept,
                     const std::string& failure) {
  if (stopped()) return Outcome::kError;
  Call mine = field_call(Operation::kGet, name, &part, failure);
  mine.accept = static_cast<std::int32_t>(accept);
  std::vector<char> scratch;
  fields::Header header;
  const Outcome outcome = get_rows(name, mine, fields::into(part, scratch), header);
  if (outcome == Outcome::kOk) fields::finish_into(part, header, scratch);
  return outcome;
}

Outcome Project::get(const std::string& name, const fields::Destination& destination, fields::Header& header,
                     fields::Accept accept) {
  if (stopped()) return Outcome::kError;
  Call mine = field_call(Operation::kGet, name, nullptr);
  mine.accept = static_cast<std::int32_t>(accept);
  return get_rows(name, mine, destination, header);
}

Outcome Project::get_rows(const std::string& name, const Call& mine, const fields::Destination& destination,
                          fields::Header& header) {
  const std::vector<Call> calls = gather(mine);
  Verdict verdict;
  std::string message;
  std::vector<char> whole;
  fields::Header found;
  if (rank_ == 0) {
    message = disagreement(calls);
    Outcome outcome = Outcome::kError;
    if (message.empty()) {
      outcome = fields_->get(name, fields::into_buffer(whole), found, static_cast<fields::Accept>(mine.accept));
      if (outcome != Outcome::kOk) message = fields_->error();
    }
    if (outcome == Outcome::kOk && found.column_major && found.shape.size() > 1) {
      std::vector<char> rows(whole.size());
      fields::reorder(found.shape, fields::element_size(found.type), false, whole.data(), rows.data());
      whole.swap(rows);
      found.column_major = false;
    }
    const std::string field = "input \"" + name + "\" of " + fields::project_name(fields_->project());
    if (outcome == Outcome::kOk && !found.parts.empty() && found.parts.size() != static_cast<std::size_t>(size_)) {
      message = field + " has parts for " + std::to_string(found.parts.size()) + " ranks (" +
                fields::parts_text(found.parts) + "), but this project runs on " + std::to_string(size_) +
                " ranks: its parts are those of the mesh it is mapped onto, so put that mesh from these " +
                std::to_string(size_) + " ranks";
      outcome = Outcome::kError;
    }
    if (outcome == Outcome::kOk && !found.parts.empty()) {
      message = too_large(name, row_bytes(static_cast<std::int32_t>(found.type), found.shape),
                          static_cast<std::uint64_t>(found.shape[0]));
      if (!message.empty()) outcome = Outcome::kError;
    }
    for (std::size_t rank = 0; outcome == Outcome::kOk && rank < calls.size(); ++rank) {
      const Call& call = calls[rank];
      if (call.dimensions < 0) continue;
      std::vector<std::int64_t> expected = found.shape;
      if (!found.parts.empty()) expected[0] = found.parts[rank];
      if (call.type != static_cast<std::int32_t>(found.type) || shape_of(call) != expected) {
        message = "rank " + std::to_string(rank) + " of " + std::to_string(size_) + " asks for its rows of " +
                  field + " as " + values_text(call.type, shape_of(call)) + ", but they are " +
                  values_text(static_cast<std::int32_t>(found.type), expected) +
                  (found.parts.empty() ? " (the input has no parts: every rank gets it whole)" : "");
        outcome = Outcome::kError;
      }
    }
    verdict.result = static_cast<std::int32_t>(outcome);
    verdict.failure = outcome == Outcome::kOk ? 0 : 1;
    verdict.partitioned = found.parts.empty() ? 0 : 1;
    verdict.type = static_cast<std::int32_t>(found.type);
    verdict.dimensions = static_cast<std::int32_t>(found.shape.size());
    std::copy(found.shape.begin(), found.shape.end(), verdict.shape);
    verdict.stamp[0] = found.stamp.project;
    verdict.stamp[1] = static_cast<std::int32_t>(found.stamp.role);
    verdict.stamp[2] = found.stamp.request.cycle;
    verdict.stamp[3] = found.stamp.request.time_step;
    verdict.stamp[4] = found.stamp.request.stage;
  }
  share(verdict, message);
  if (!conclude(verdict.failure != 0, message)) return static_cast<Outcome>(verdict.result);

  header = {};
  header.type = static_cast<fields::Type>(verdict.type);
  header.shape.assign(verdict.shape, verdict.shape + verdict.dimensions);
  header.stamp = {verdict.stamp[0], static_cast<fields::Role>(verdict.stamp[1]),
                  {verdict.stamp[2], verdict.stamp[3], verdict.stamp[4]}};
  MPI_Request request = MPI_REQUEST_NULL;
  if (verdict.partitioned != 0) {
    std::int64_t my_rows = 0;
    MPI_Iscatter(found.parts.data(), 1, MPI_INT64_T, &my_rows, 1, MPI_INT64_T, 0, communicator_, &request);
    finish(request);
    header.shape[0] = my_rows;
  }
  std::string refused;
  std::vector<char> unwanted;
  void* target = destination(header, refused);
  // No memory is needed for no rows: only a reason is a refusal.
  const bool taken = target != nullptr || refused.empty();
  std::size_t count = 0;
  fields::value_count(header.shape, count);
  if (!taken) {
    // Every rank takes part in the transfer all the same.
    unwanted.resize(count * fields::element_size(header.type));
    target = unwanted.data();
  }
  if (verdict.partitioned != 0) {
    const std::uint64_t bytes = row_bytes(verdict.type, header.shape);
    if (bytes > 0) {
      std::vector<int> counts, offsets;
      int offset = 0;
      for (const std::int64_t part : found.parts) {
        counts.push_back(static_cast<int>(part));
        offsets.push_back(offset);
        offset += static_cast<int>(part);
      }
      const RowType row(bytes);
      MPI_Iscatterv(whole.data(), counts.data(), offsets.data(), row.get(), target,
                    static_cast<int>(header.shape[0]), row.get(), 0, communicator_, &request);
      finish(request);
    }
  } else {
    // Sent whole to every rank, in pieces that fit an MPI count.
    const std::size_t size = count * fields::element_size(header.type);
    char* bytes = rank_ == 0 ? whole.data() : static_cast<char*>(target);
    for (std::size_t sent = 0; sent < size;) {
      const std::size_t piece = std::min<std::size_t>(size - sent, std::size_t{1} << 30);
      MPI_Ibcast(bytes + sent, static_cast<int>(piece), MPI_BYTE, 0, communicator_, &request);
      finish(request);
      sent += piece;
    }
    if (rank_ == 0 && size > 0) std::memcpy(target, whole.data(), size);
  }
  if (!taken) {
    error_ = refused;
    return Outcome::kError;
  }
  return Outcome::kOk;
}

}  // namespace lockstep::mpi
