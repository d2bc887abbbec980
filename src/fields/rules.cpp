#include "fields/rules.h"

namespace lockstep::fields {
namespace {

using project::Request;

std::string field_text(const std::string& name, Role role, int project) {
  return std::string(role == Role::kOutput ? "output" : "input") + " \"" + name + "\" of " + project_name(project);
}

// The stamp's own identity: the right role of the right project.
std::string check_owner(const std::string& name, const Stamp& stamp, Role role, int project) {
  if (stamp.role == role && stamp.project == project) return {};
  return field_text(name, role, project) + " holds the " + describe(stamp) +
         ": a file copied or linked from elsewhere, or a project directory renamed";
}

}  // namespace

std::optional<Request> stage_before(const Request& request, int time_steps) {
  if (request.cycle_end()) return Request{request.cycle, time_steps, 4};
  if (request.stage > 1) return Request{request.cycle, request.time_step, request.stage - 1};
  if (request.time_step > 1) return Request{request.cycle, request.time_step - 1, 4};
  if (request.cycle > 1) return Request{request.cycle - 1, time_steps, 4};
  return std::nullopt;
}

std::string check_input(const std::string& name, const std::optional<Stamp>& stamp, int project,
                        const Request& serving, const std::optional<Request>& previous, Accept accept) {
  // In a cycle-end request no interaction program has run: the inputs are
  // the last stage's.
  const bool cycle_end = serving.cycle_end();
  const bool known = !cycle_end || (previous && previous->cycle == serving.cycle && !previous->cycle_end());
  const Request needed = cycle_end ? (known ? *previous : Request{serving.cycle, 0, 4}) : serving;
  const std::string needed_text =
      known ? describe_request(needed) : "the last stage of cycle " + std::to_string(serving.cycle);
  const std::string program = "the interaction program of " + project_name(project);
  if (!stamp) {
    return field_text(name, Role::kInput, project) + " has never been written: " + program +
           " did not write it, by " + needed_text + " (it failed, did not run, or does not write this field)";
  }
  if (std::string wrong = check_owner(name, *stamp, Role::kInput, project); !wrong.empty()) return wrong;
  const Request& written = stamp->request;
  bool fresh = false;
  switch (accept) {
    case Accept::kStage:
      fresh = known ? written == needed : written.cycle == needed.cycle && written.stage == 4 && written.time_step > 0;
      break;
    case Accept::kTimeStep:
      fresh = written.cycle == needed.cycle && (!known || written.time_step == needed.time_step) &&
              !project::comes_after(written, needed);
      break;
    case Accept::kAny: fresh = true; break;
  }
  if (fresh) return {};
  std::string cause;
  if (project::comes_after(written, needed) && known) {
    // A run goes forwards: a later stamp is most likely an earlier run's.
    cause = "a file written for a later request is most likely left from an earlier run, and " + program +
            " did not write it in " + needed_text + " (it failed or did not run); before a new run, remove what "
            "earlier runs left in " + project_name(project) + "'s fields/in/";
  } else {
    cause = program + " did not write it in " + needed_text + ": it failed or did not run";
  }
  return field_text(name, Role::kInput, project) + " is stale: its file was written for " + describe_request(written) +
         ", but " + describe_request(serving) + " needs it written for " + needed_text + "; " + cause;
}

std::string check_output(const std::string& name, const std::optional<Stamp>& stamp, int source,
                         const Request& step, int time_steps, Accept accept) {
  const std::optional<Request> before = stage_before(step, time_steps);
  const std::string needed_text = before ? describe_request(*before) : describe_request(kStartRequest);
  const std::string solver = "the solver of " + project_name(source);
  if (!stamp) {
    return field_text(name, Role::kOutput, source) + " has never been written: " + solver +
           " has not put it (not even before the first request)";
  }
  if (std::string wrong = check_owner(name, *stamp, Role::kOutput, source); !wrong.empty()) return wrong;
  const Request& written = stamp->request;
  bool fresh = false;
  if (!before) {
    fresh = written == kStartRequest;
  } else {
    // The cycle-end request comes between a cycle's last stage and the
    // next cycle's first; an output put there is as new.
    const bool cycle_end_between = step.time_step == 1 && step.stage == 1 && written.cycle_end() &&
                                   written.cycle == before->cycle;
    switch (accept) {
      case Accept::kStage: fresh = written == *before || cycle_end_between; break;
      case Accept::kTimeStep:
        fresh = cycle_end_between || (!project::comes_after(written, *before) && written.cycle == before->cycle &&
                                      written.time_step >= before->time_step - 1 && written.time_step > 0);
        break;
      case Accept::kAny: fresh = !project::comes_after(written, *before) || cycle_end_between; break;
    }
  }
  if (fresh) return {};
  const std::string cause = project::comes_after(written, before.value_or(kStartRequest))
                                ? "it was written for a later request: the driver was restarted, or the tree is "
                                  "another run's"
                                : solver + " did not put it in " + needed_text;
  return field_text(name, Role::kOutput, source) + " is stale: its file was written for " +
         describe_request(written) + ", but the interaction step of " + describe_request(step) +
         " needs it written for " + needed_text + "; " + cause;
}

}  // namespace lockstep::fields
