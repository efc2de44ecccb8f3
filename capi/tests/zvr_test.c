#define _GNU_SOURCE
#include "zvr_test.h"

#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

_Atomic int zvr_test_failures = 0;
static pid_t sandbox_pid = 0;

void zvr_test_stop_sandbox(void) {
  if (sandbox_pid <= 0) return;
  /* Its state is in memory: nothing to save, and a graceful stop would wait
   * for the keep-alive connections this process still holds. */
  kill(sandbox_pid, SIGKILL);
  waitpid(sandbox_pid, NULL, 0);
  sandbox_pid = 0;
}

pid_t zvr_test_spawn(char* const argv[], int out) {
  const pid_t parent = getpid(), child = fork();
  if (child != 0) return child;
  /* Never outlive the test, even when it crashes. */
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != parent) _exit(1);
  if (out >= 0) dup2(out, STDOUT_FILENO);
  execvp(argv[0], argv);
  _exit(127);
}

int zvr_test_start_sandbox(const char* server, char* host, size_t size) {
  int out[2];
  char* argv[] = {(char*)server, "--host", "127.0.0.1", "--port", "0", "--state", ":memory:", NULL};
  if (pipe2(out, O_CLOEXEC) != 0 || (sandbox_pid = zvr_test_spawn(argv, out[1])) < 0) return -1;
  close(out[1]);
  atexit(zvr_test_stop_sandbox);
  /* The server prints its address on its first lines, then keeps quiet. */
  FILE* lines = fdopen(out[0], "r");
  char line[512];
  while (lines != NULL && fgets(line, sizeof line, lines) != NULL) {
    const char* at = strstr(line, "http://");
    if (at == NULL) continue;
    size_t length = strcspn(at, " \r\n");
    if (length + 1 > size) break;
    memcpy(host, at, length);
    host[length] = '\0';
    return 0; /* the pipe stays open: the server may still write to it */
  }
  fprintf(stderr, "the sandbox did not print its address\n");
  return -1;
}

static int32_t ZVR_CALL flag_is_set(void* user) {
  return *(const int*)user;
}

int zvr_test_wait_for(const int* flag) {
  int32_t done = 0;
  zvr_main_queue_run_until(flag_is_set, (void*)flag, 20000, &done);
  return done;
}

void zvr_test_drain(void) {
  uint32_t ran = 0;
  do CHECK_RESULT(ZVR_OK, zvr_main_queue_drain(&ran));
  while (ran > 0);
}
