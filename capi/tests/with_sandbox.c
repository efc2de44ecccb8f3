/* with_sandbox SERVER COMMAND [ARGS...]: runs COMMAND with the sandbox service
 * (SERVER, zv_sandbox_server) started for it on a free loopback port with its
 * state in memory, its address in ZVR_SANDBOX_HOST, and exits with COMMAND's
 * status. Both children die with this process. The C and C# flow tests run
 * this way. */
#define _GNU_SOURCE
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

/* Starts argv[0] (looked up in PATH) as a child that dies with this process,
 * its stdout on `out` (-1: ours). Returns its pid, or -1. */
static pid_t spawn(char* const argv[], int out) {
  const pid_t parent = getpid(), child = fork();
  if (child != 0) return child;
  /* Never outlive the test, even when it crashes. */
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != parent) _exit(1);
  if (out >= 0) dup2(out, STDOUT_FILENO);
  execvp(argv[0], argv);
  _exit(127);
}

int main(int argc, char** argv) {
  int out[2];
  char line[512];
  if (argc < 3 || pipe2(out, O_CLOEXEC) != 0) return 2;
  char* server[] = {argv[1], "--host", "127.0.0.1", "--port", "0", "--state", ":memory:", NULL};
  const pid_t sandbox = spawn(server, out[1]);
  close(out[1]);
  /* The server prints its address on its first lines, then keeps quiet (the
   * pipe stays open: it may still write to it). */
  FILE* lines = sandbox > 0 ? fdopen(out[0], "r") : NULL;
  char* host = NULL;
  while (host == NULL && lines != NULL && fgets(line, sizeof line, lines) != NULL)
    if ((host = strstr(line, "http://")) != NULL) host[strcspn(host, " \r\n")] = '\0';
  if (host == NULL) {
    fprintf(stderr, "the sandbox did not print its address\n");
    return 2;
  }
  setenv("ZVR_SANDBOX_HOST", host, 1);
  const pid_t command = spawn(argv + 2, -1);
  int status = 0;
  if (command < 0 || waitpid(command, &status, 0) < 0) return 2;
  /* Its state is in memory: nothing to save, and a graceful stop would wait
   * for the keep-alive connections the command may have left. */
  kill(sandbox, SIGKILL);
  waitpid(sandbox, NULL, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 1;
}
