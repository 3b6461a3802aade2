/* Runs klt-record --finish at the end of a run.
 *
 * The program's handlers, wait and waitpid don't see the process that does it. A child that
 * executes another program sends SIGCHLD when it ends, so a child without a signal, which isn't
 * seen either, waits for that one. */
#include <errno.h>
#include <sched.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "record/runtime/klt_runtime.h"

struct command {
  const char* path;
  char* const* arguments;
  char* const* environment;
  sigset_t signals; /* that the program blocks */
  char* stack;      /* of the process that executes the command */
  int status;       /* of that process; that of an exit with 127 if it can't be run */
};

enum { STACK = 65536 };

static int execute(void* pointer) {
  struct command* command = pointer;
  sigprocmask(SIG_SETMASK, &command->signals, NULL);
  execve(command->path, command->arguments, command->environment);
  _exit(127);
}

/* Runs in a child that shares the program's memory and the thread's local storage, so it makes
 * system calls only. All signals are blocked: none of the program's handlers may run here. The
 * dispositions are the child's own. */
static int waitFor(void* pointer) {
  struct command* command = pointer;
  signal(SIGCHLD, SIG_DFL);
  const int child =
      clone(execute, command->stack + STACK, CLONE_VM | CLONE_VFORK | SIGCHLD, command);
  if (child > 0) syscall(SYS_wait4, child, &command->status, 0, NULL);
  _exit(0);
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
  char* stack = malloc((size_t)STACK * 2);
  if (environment != NULL && stack != NULL) {
    struct command command = {.path = variable("KLT_RECORD_EXE"),
                              .arguments = (char* const*)(uintptr_t)arguments,
                              .environment = environment,
                              .stack = stack + STACK,
                              .status = 127 << 8};
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &command.signals);
    const int child = clone(waitFor, stack + STACK, CLONE_VM, &command);
    pthread_sigmask(SIG_SETMASK, &command.signals, NULL);
    while (child > 0 && waitpid(child, NULL, (int)__WCLONE) < 0 && errno == EINTR) {
    }
    const int status = command.status;
    if (WIFEXITED(status) && WEXITSTATUS(status) == 127)
      klt_say("%s can't be run; make the trace by: klt-record --finish %s", command.path,
              variable("KLT_RECORD_DIR"));
  }
  free(stack);
  free(environment);
  errno = saved;
}
