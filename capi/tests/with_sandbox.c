/* with_sandbox SERVER COMMAND [ARGS...]: runs COMMAND with the sandbox service
 * started for it, its address in ZVR_SANDBOX_HOST, and exits with COMMAND's
 * status. Both children die with this process (the C# test runs this way). */
#include <stdlib.h>
#include <sys/wait.h>

#include "zvr_test.h"

int main(int argc, char** argv) {
  char host[128];
  if (argc < 3 || zvr_test_start_sandbox(argv[1], host, sizeof host) != 0) return 2;
  setenv("ZVR_SANDBOX_HOST", host, 1);
  const pid_t command = zvr_test_spawn(argv + 2, -1);
  int status = 0;
  if (command < 0 || waitpid(command, &status, 0) < 0) return 2;
  zvr_test_stop_sandbox();
  return WIFEXITED(status) ? WEXITSTATUS(status) : 1;
}
