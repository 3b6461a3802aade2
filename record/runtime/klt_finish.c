/* Runs klt-record --finish at the end of a run.
 *
 * The child is made by clone without a signal, so that the program's handlers, wait and waitpid
 * don't see it. */
#include <errno.h>
#include <sched.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include "record/runtime/klt_runtime.h"

struct command {
  const char* path;
  char* const* arguments;
  char* const* environment;
};

static int run(void* pointer) {
  const struct command* command = pointer;
  execve(command->path, command->arguments, command->environment);
  _exit(127);
}

/* The environment without what makes a program a recorded one. Null if memory is exhausted. */
static char** plainEnvironment(void) {
  size_t n = 0;
  while (environ != NULL && environ[n] != NULL) ++n;
  char** plain = malloc((n + 1) * sizeof *plain);
  if (plain == NULL) return NULL;
  size_t kept = 0;
  for (size_t i = 0; i < n; ++i) {
    if (strncmp(environ[i], "LD_PRELOAD=", 11) != 0 && strncmp(environ[i], "KLT_RECORD_", 11) != 0)
      plain[kept++] = environ[i];
  }
  plain[kept] = NULL;
  return plain;
}

static const char* variable(const char* name) {
  const char* value = getenv(name);
  return value == NULL ? "" : value;
}

void klt_finish_run(void) {
  enum { STACK = 65536 };
  const int saved = errno;
  char job[32];
  snprintf(job, sizeof job, "%016llx", (unsigned long long)klt_header->job);
  const char* const arguments[] = {"klt-record",
                                   "--finish",
                                   variable("KLT_RECORD_DIR"),
                                   "--job",
                                   job,
                                   "-o",
                                   variable("KLT_RECORD_NAME"),
                                   "--options",
                                   variable("KLT_RECORD_OPTIONS"),
                                   NULL};
  char** environment = plainEnvironment();
  char* stack = malloc(STACK);
  if (environment != NULL && stack != NULL) {
    struct command command = {variable("KLT_RECORD_EXE"), (char* const*)(uintptr_t)arguments,
                              environment};
    const int child = clone(run, stack + STACK, CLONE_VM | CLONE_VFORK, &command);
    int status = 0;
    while (child > 0 && waitpid(child, &status, (int)__WCLONE) < 0 && errno == EINTR) {
    }
    if (child < 0 || (WIFEXITED(status) && WEXITSTATUS(status) == 127))
      klt_say("%s can't be run; make the trace by: klt-record --finish %s", command.path,
              variable("KLT_RECORD_DIR"));
  }
  free(stack);
  free(environment);
  errno = saved;
}
