#include "ZVProcess.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <memory>
#include <thread>

#include <gtest/gtest.h>

extern char** environ;

namespace zvtest {

namespace {

using File = std::unique_ptr<FILE, int (*)(FILE*)>;

std::string readAll(const File& file) {
  std::string text;
  std::rewind(file.get());
  char buffer[4096];
  while (const size_t got = std::fread(buffer, 1, sizeof buffer, file.get()))
    text.append(buffer, got);
  return text;
}

}  // namespace

int ProcessResult::exitCode() const {
  return !hung && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

pid_t spawnProcess(const std::vector<std::string>& argv, int outFd, int errFd,
                   const std::vector<std::string>& environment, int inFd) {
  std::vector<char*> args, env;
  for (const auto& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
  for (const auto& entry : environment) env.push_back(const_cast<char*>(entry.c_str()));
  args.push_back(nullptr);
  env.push_back(nullptr);

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  if (inFd >= 0)
    posix_spawn_file_actions_adddup2(&actions, inFd, STDIN_FILENO);
  else
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  if (outFd >= 0) posix_spawn_file_actions_adddup2(&actions, outFd, STDOUT_FILENO);
  if (errFd >= 0) posix_spawn_file_actions_adddup2(&actions, errFd, STDERR_FILENO);
  pid_t pid = -1;
  const int rc = posix_spawn(&pid, args[0], &actions, nullptr, args.data(),
                             environment.empty() ? environ : env.data());
  posix_spawn_file_actions_destroy(&actions);
  return rc == 0 ? pid : -1;
}

ProcessResult waitProcess(pid_t pid, std::chrono::milliseconds limit) {
  ProcessResult result;
  if (pid < 0) return result;
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (waitpid(pid, &result.status, WNOHANG) == 0) {
    if (std::chrono::steady_clock::now() > deadline) {
      kill(pid, SIGKILL);
      waitpid(pid, &result.status, 0);
      result.hung = true;
      break;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return result;
}

ProcessResult runProcess(const std::vector<std::string>& argv, std::chrono::milliseconds limit,
                         const std::vector<std::string>& environment) {
  const File out(std::tmpfile(), &std::fclose), err(std::tmpfile(), &std::fclose);
  if (!out || !err) {
    ADD_FAILURE() << "no temporary file for the output of " << argv[0];
    return {};
  }
  const pid_t pid = spawnProcess(argv, fileno(out.get()), fileno(err.get()), environment);
  if (pid < 0) ADD_FAILURE() << "could not start " << argv[0];
  ProcessResult result = waitProcess(pid, limit);
  if (result.hung) ADD_FAILURE() << argv[0] << " did not finish in time";
  result.out = readAll(out);
  result.err = readAll(err);
  return result;
}

}  // namespace zvtest
