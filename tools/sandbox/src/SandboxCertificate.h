// A self-signed certificate for the TLS sandbox.
#pragma once

#include <filesystem>
#include <string>

namespace zvsandbox {

struct CertificateFiles {
  std::filesystem::path certificate;  ///< PEM certificate, for a client's CA file
  std::filesystem::path privateKey;   ///< PEM private key, readable by the owner only
};

/// Makes sure `directory` holds a self-signed certificate for "localhost" and
/// 127.0.0.1 with its key, valid for at least another day; a usable pair
/// already there is kept, so clients that cached it keep trusting it.
/// Returns false with a message in `error`.
bool ensureCertificate(const std::filesystem::path& directory, CertificateFiles& files,
                       std::string& error);

}  // namespace zvsandbox
