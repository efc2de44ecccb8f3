#include "SandboxFiles.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include <fmt/core.h>

namespace zvsandbox {
namespace {

constexpr mode_t kOwnerOnlyFile = 0600;
constexpr mode_t kOwnerOnlyDirectory = 0700;

bool narrow(int fd, const std::filesystem::path& path, std::string& error) {
  struct stat info {};
  if (::fstat(fd, &info) != 0) {
    error = fmt::format("could not inspect {}: {}", path.string(), std::strerror(errno));
    return false;
  }
  if (!S_ISREG(info.st_mode)) {
    error = fmt::format("{} is not a regular file", path.string());
    return false;
  }
  if ((info.st_mode & 07777) != kOwnerOnlyFile && ::fchmod(fd, kOwnerOnlyFile) != 0) {
    error = fmt::format("could not make {} readable by its owner only: {}", path.string(),
                        std::strerror(errno));
    return false;
  }
  return true;
}

bool openAndNarrow(const std::filesystem::path& path, int flags, std::string& error) {
  // O_NONBLOCK: a FIFO planted under the name must not hang the open.
  const int fd = ::open(path.c_str(), flags | O_RDONLY | O_CLOEXEC | O_NONBLOCK, kOwnerOnlyFile);
  if (fd < 0) {
    if (errno == ENOENT && !(flags & O_CREAT)) return true;
    error = fmt::format("could not open {}: {}", path.string(), std::strerror(errno));
    return false;
  }
  const bool ok = narrow(fd, path, error);
  ::close(fd);
  return ok;
}

}  // namespace

bool createPrivateDirectories(const std::filesystem::path& directory, std::string& error) {
  std::vector<std::filesystem::path> missing;
  for (auto at = directory; !at.empty(); at = at.parent_path()) {
    std::error_code ec;
    if (std::filesystem::exists(at, ec)) break;
    missing.push_back(at);
    if (at == at.parent_path()) break;
  }
  for (auto it = missing.rbegin(); it != missing.rend(); ++it) {
    // mkdir's mode passes through the umask, which may only narrow it.
    if (::mkdir(it->c_str(), kOwnerOnlyDirectory) != 0 && errno != EEXIST) {
      error = fmt::format("could not create {}: {}", it->string(), std::strerror(errno));
      return false;
    }
  }
  return true;
}

bool makePrivateFile(const std::filesystem::path& path, std::string& error) {
  return openAndNarrow(path, O_CREAT, error);
}

bool narrowIfPresent(const std::filesystem::path& path, std::string& error) {
  return openAndNarrow(path, 0, error);
}

}  // namespace zvsandbox
