// Files and directories of the sandbox that only their owner may read: the
// state holds e-mail and shipping addresses, and the TLS key is a secret.
#pragma once

#include <filesystem>
#include <string>

namespace zvsandbox {

/// Creates `directory` and its missing parents, each one it creates with
/// mode 0700; directories that exist are left as they are. Returns false
/// with a message in `error`.
bool createPrivateDirectories(const std::filesystem::path& directory, std::string& error);

/// Makes `path` a file that only its owner can read and write (0600):
/// created empty with that mode when missing, an existing one narrowed to it
/// when it allows more. Returns false with a message in `error` (for example
/// when the file belongs to someone else).
bool makePrivateFile(const std::filesystem::path& path, std::string& error);

/// `makePrivateFile` for a file that may be missing: a missing one stays missing.
bool narrowIfPresent(const std::filesystem::path& path, std::string& error);

}  // namespace zvsandbox
