/* A solver in C on the project library, as a user would write one: serves
 * DIR until the cycle-end request of cycle N, logging "cycle time_step
 * stage" for every request in DIR/solver.log.
 *   solver --dir DIR --last-cycle N */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "project/lockstep_project.h"

int main(int argc, char** argv) {
  const char* directory = ".";
  long last_cycle = 1;
  for (int i = 1; i < argc; i += 2) {
    if (i + 1 < argc && strcmp(argv[i], "--dir") == 0) {
      directory = argv[i + 1];
    } else if (i + 1 < argc && strcmp(argv[i], "--last-cycle") == 0) {
      last_cycle = strtol(argv[i + 1], NULL, 10);
    } else {
      fprintf(stderr, "usage: solver --dir DIR --last-cycle N\n");
      return 2;
    }
  }

  char error[512];
  lockstep_project* project = lockstep_project_open(directory, error, (int)sizeof error);
  if (project == NULL) {
    fprintf(stderr, "solver: %s\n", error);
    return 1;
  }
  char log_path[4096];
  snprintf(log_path, sizeof log_path, "%s/solver.log", directory);
  FILE* log = fopen(log_path, "w");
  int status = log == NULL || lockstep_project_lock(project) != LOCKSTEP_PROJECT_OK;
  int cycle = 0, time_step = 0, stage = 0;
  while (status == 0) {
    /* Any other answer, LOCKSTEP_PROJECT_OUT_OF_ORDER and _OVERRUN
     * included, means the run is not where this solver is. */
    if (lockstep_project_wait(project, &cycle, &time_step, &stage) != LOCKSTEP_PROJECT_OK) {
      status = 1;
      break;
    }
    fprintf(log, "%d %d %d\n", cycle, time_step, stage);
    fflush(log);
    if (lockstep_project_done(project) != LOCKSTEP_PROJECT_OK) status = 1;
    if (stage == 5 && cycle >= last_cycle) break;
  }
  if (status != 0) fprintf(stderr, "solver: %s\n", log == NULL ? "cannot open solver.log" : lockstep_project_error(project));
  if (log != NULL) fclose(log);
  lockstep_project_close(project);
  return status;
}
