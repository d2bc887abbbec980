/* Serves a project directory through the C interface until killed, doing
 * nothing for each request: the binding's own cost. Usage: serve_c DIR */
#include <stdio.h>

#include "project/lockstep_project.h"

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  char error[512];
  lockstep_project* project = lockstep_project_open(argv[1], error, (int)sizeof error);
  if (project == NULL) {
    fprintf(stderr, "serve_c: %s\n", error);
    return 1;
  }
  int cycle = 0, time_step = 0, stage = 0;
  int status = lockstep_project_lock(project);
  while (status == LOCKSTEP_PROJECT_OK) {
    status = lockstep_project_wait(project, &cycle, &time_step, &stage);
    if (status == LOCKSTEP_PROJECT_OK) status = lockstep_project_done(project);
  }
  fprintf(stderr, "serve_c: %s\n", lockstep_project_error(project));
  lockstep_project_close(project);
  return 1;
}
