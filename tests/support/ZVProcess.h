// Child processes for the tests that run a whole program: stdin from
// /dev/null (never a terminal), and every wait bounded in time.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

namespace zvtest {

/// How a child process ended, and what it wrote.
struct ProcessResult {
  int status = -1;    ///< the wait status
  bool hung = false;  ///< killed at the time limit
  std::string out;    ///< stdout, when collected
  std::string err;    ///< stderr, when collected
  /// The exit status, or -1 when it did not exit by itself.
  int exitCode() const;
};

/// Starts `argv[0]` with `argv`; stdout and stderr go to the given
/// descriptors (-1: ours), stdin comes from `inFd` (-1: /dev/null). An empty
/// `environment` passes ours on; otherwise it is the child's whole
/// environment ("NAME=value" entries). -1 on failure.
pid_t spawnProcess(const std::vector<std::string>& argv, int outFd = -1, int errFd = -1,
                   const std::vector<std::string>& environment = {}, int inFd = -1);

/// Waits for `pid` until `limit`, then kills it.
ProcessResult waitProcess(pid_t pid, std::chrono::milliseconds limit);

/// Runs `argv` to its end (or `limit`) and collects its stdout and stderr.
ProcessResult runProcess(const std::vector<std::string>& argv, std::chrono::milliseconds limit,
                         const std::vector<std::string>& environment = {});

}  // namespace zvtest
