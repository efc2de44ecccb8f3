#include "SandboxCertificate.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <functional>
#include <memory>
#include <system_error>

#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <fmt/core.h>

#include "SandboxFiles.h"

namespace zvsandbox {
namespace {

template <auto Free>
struct Deleter {
  template <class T>
  void operator()(T* p) const {
    Free(p);
  }
};
using BIOPtr = std::unique_ptr<BIO, Deleter<BIO_free_all>>;
using X509Ptr = std::unique_ptr<X509, Deleter<X509_free>>;
using KeyPtr = std::unique_ptr<EVP_PKEY, Deleter<EVP_PKEY_free>>;
using BNPtr = std::unique_ptr<BIGNUM, Deleter<BN_free>>;
using ExtPtr = std::unique_ptr<X509_EXTENSION, Deleter<X509_EXTENSION_free>>;

constexpr long kValiditySeconds = 365L * 24 * 3600;
constexpr long kMinRemainingSeconds = 24L * 3600;

std::string openSSLError(const char* what) {
  const unsigned long code = ERR_get_error();
  char text[256] = "unknown error";
  if (code != 0) ERR_error_string_n(code, text, sizeof text);
  ERR_clear_error();
  return fmt::format("{}: {}", what, text);
}

// A pair worth keeping: matching, for our names, not about to expire.
bool usable(const std::filesystem::path& certPath, const std::filesystem::path& keyPath) {
  BIOPtr certFile(BIO_new_file(certPath.c_str(), "r"));
  BIOPtr keyFile(BIO_new_file(keyPath.c_str(), "r"));
  if (!certFile || !keyFile) {
    ERR_clear_error();
    return false;
  }
  X509Ptr cert(PEM_read_bio_X509(certFile.get(), nullptr, nullptr, nullptr));
  KeyPtr key(PEM_read_bio_PrivateKey(keyFile.get(), nullptr, nullptr, nullptr));
  std::time_t horizon = std::time(nullptr) + kMinRemainingSeconds;
  const bool ok = cert && key && X509_check_private_key(cert.get(), key.get()) == 1 &&
                  X509_cmp_time(X509_get0_notAfter(cert.get()), &horizon) > 0 &&
                  X509_check_host(cert.get(), "localhost", 0, 0, nullptr) == 1 &&
                  X509_check_ip_asc(cert.get(), "127.0.0.1", 0) == 1;
  ERR_clear_error();
  return ok;
}

bool addExtension(X509* cert, X509V3_CTX* ctx, int nid, const char* value) {
  ExtPtr ext(X509V3_EXT_conf_nid(nullptr, ctx, nid, value));
  return ext && X509_add_ext(cert, ext.get(), -1) == 1;
}

// Writes through a temporary file and a rename, so a reader never sees half
// a file; `mode` applies from creation on (the key is never world-readable).
// A temporary file left by an earlier run is replaced, not reused with its
// own mode.
bool writeFile(const std::filesystem::path& path, const std::string& bytes, mode_t mode,
               std::string& error) {
  const auto temporary = path.string() + ".tmp";
  ::unlink(temporary.c_str());
  const int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode);
  if (fd < 0) {
    error = fmt::format("could not write {}: {}", temporary, std::strerror(errno));
    return false;
  }
  size_t written = 0;
  while (written < bytes.size()) {
    const ssize_t n = ::write(fd, bytes.data() + written, bytes.size() - written);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    written += static_cast<size_t>(n);
  }
  const bool closed = ::close(fd) == 0;
  std::error_code ec;
  if (written != bytes.size() || !closed) {
    error = fmt::format("could not write {}", temporary);
  } else if (std::filesystem::rename(temporary, path, ec); ec) {
    error = fmt::format("could not write {}: {}", path.string(), ec.message());
  } else {
    return true;
  }
  std::filesystem::remove(temporary, ec);
  return false;
}

std::string pemOf(const std::function<int(BIO*)>& write) {
  BIOPtr memory(BIO_new(BIO_s_mem()));
  if (!memory || write(memory.get()) != 1) return {};
  char* data = nullptr;
  const long size = BIO_get_mem_data(memory.get(), &data);
  return std::string(data, static_cast<size_t>(size));
}

}  // namespace

bool ensureCertificate(const std::filesystem::path& directory, CertificateFiles& files,
                       std::string& error) {
  files.certificate = directory / "sandbox-cert.pem";
  files.privateKey = directory / "sandbox-key.pem";
  if (!createPrivateDirectories(directory, error)) return false;
  if (usable(files.certificate, files.privateKey)) return narrowIfPresent(files.privateKey, error);

  KeyPtr key(EVP_EC_gen("P-256"));
  X509Ptr cert(X509_new());
  BNPtr serial(BN_new());
  if (!key || !cert || !serial) {
    error = openSSLError("could not create the sandbox key");
    return false;
  }
  X509_NAME* name = X509_get_subject_name(cert.get());
  X509V3_CTX ctx;
  X509V3_set_ctx_nodb(&ctx);
  X509V3_set_ctx(&ctx, cert.get(), cert.get(), nullptr, nullptr, 0);
  const bool built =
      X509_set_version(cert.get(), 2) == 1 &&
      BN_rand(serial.get(), 64, BN_RAND_TOP_ANY, BN_RAND_BOTTOM_ANY) == 1 &&
      BN_to_ASN1_INTEGER(serial.get(), X509_get_serialNumber(cert.get())) != nullptr &&
      X509_gmtime_adj(X509_getm_notBefore(cert.get()), -3600) != nullptr &&
      X509_gmtime_adj(X509_getm_notAfter(cert.get()), kValiditySeconds) != nullptr &&
      X509_set_pubkey(cert.get(), key.get()) == 1 &&
      X509_NAME_add_entry_by_txt(
          name, "O", MBSTRING_ASC,
          reinterpret_cast<const unsigned char*>("ZorvaneRewardsKit sandbox"), -1, -1, 0) == 1 &&
      X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                                 reinterpret_cast<const unsigned char*>("localhost"), -1, -1,
                                 0) == 1 &&
      X509_set_issuer_name(cert.get(), name) == 1 &&
      addExtension(cert.get(), &ctx, NID_basic_constraints, "critical,CA:TRUE") &&
      addExtension(cert.get(), &ctx, NID_key_usage, "critical,digitalSignature,keyCertSign") &&
      addExtension(cert.get(), &ctx, NID_ext_key_usage, "serverAuth") &&
      addExtension(cert.get(), &ctx, NID_subject_key_identifier, "hash") &&
      addExtension(cert.get(), &ctx, NID_subject_alt_name, "DNS:localhost,IP:127.0.0.1") &&
      X509_sign(cert.get(), key.get(), EVP_sha256()) > 0;
  if (!built) {
    error = openSSLError("could not build the sandbox certificate");
    return false;
  }
  const auto keyPEM = pemOf([&](BIO* bio) {
    return PEM_write_bio_PrivateKey(bio, key.get(), nullptr, nullptr, 0, nullptr, nullptr);
  });
  const auto certPEM = pemOf([&](BIO* bio) { return PEM_write_bio_X509(bio, cert.get()); });
  if (keyPEM.empty() || certPEM.empty()) {
    error = openSSLError("could not encode the sandbox certificate");
    return false;
  }
  return writeFile(files.privateKey, keyPEM, 0600, error) &&
         writeFile(files.certificate, certPEM, 0644, error);
}

}  // namespace zvsandbox
