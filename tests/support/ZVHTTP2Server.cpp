#include "ZVHTTP2Server.h"

#include <pthread.h>
#include <signal.h>

#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <string_view>

#include <nghttp2/nghttp2.h>
#include <openssl/err.h>
#include <openssl/ssl.h>

#include "SandboxCertificate.h"

namespace zvtest {

namespace {

// Only "h2": a client that does not offer it gets no protocol and fails.
int selectH2(SSL*, const unsigned char** out, unsigned char* outLength, const unsigned char* in,
             unsigned int inLength, void*) {
  static const unsigned char kH2[] = {2, 'h', '2'};
  unsigned char* chosen = nullptr;
  if (SSL_select_next_proto(&chosen, outLength, kH2, sizeof kH2, in, inLength) !=
      OPENSSL_NPN_NEGOTIATED)
    return SSL_TLSEXT_ERR_ALERT_FATAL;
  *out = chosen;
  return SSL_TLSEXT_ERR_OK;
}

nghttp2_nv header(std::string_view name, std::string_view value) {
  return {reinterpret_cast<uint8_t*>(const_cast<char*>(name.data())),
          reinterpret_cast<uint8_t*>(const_cast<char*>(value.data())), name.size(), value.size(),
          NGHTTP2_NV_FLAG_NONE};
}

}  // namespace

// One connection's HTTP/2 session; lives on that connection's thread.
struct HTTP2Session {
  struct Stream {
    HTTP2Request request;
    std::string status, body, length;
    size_t sent = 0;
  };

  ZVHTTP2Server& server;
  std::map<int32_t, Stream> streams;

  // The request is complete once its stream ends from the client's side.
  static int onFrame(nghttp2_session* session, const nghttp2_frame* frame, void* user) {
    auto& self = *static_cast<HTTP2Session*>(user);
    if ((frame->hd.type != NGHTTP2_HEADERS && frame->hd.type != NGHTTP2_DATA) ||
        (frame->hd.flags & NGHTTP2_FLAG_END_STREAM) == 0)
      return 0;
    const int32_t id = frame->hd.stream_id;
    Stream& stream = self.streams[id];
    const HTTP2Reply reply = self.server.handler_(stream.request);
    switch (reply.fault) {
      case HTTP2Reply::Fault::RefuseStream:
        return nghttp2_submit_rst_stream(session, NGHTTP2_FLAG_NONE, id, NGHTTP2_REFUSED_STREAM);
      case HTTP2Reply::Fault::ResetStream:
        return nghttp2_submit_rst_stream(session, NGHTTP2_FLAG_NONE, id, NGHTTP2_INTERNAL_ERROR);
      case HTTP2Reply::Fault::DropConnection:
        return NGHTTP2_ERR_CALLBACK_FAILURE;  // the connection ends without a word
      case HTTP2Reply::Fault::None:
        break;
    }
    stream.status = std::to_string(reply.status);
    stream.body = reply.body;
    stream.length = std::to_string(stream.body.size());
    const nghttp2_nv headers[] = {header(":status", stream.status),
                                  header("content-type", "application/json"),
                                  header("content-length", stream.length)};
    nghttp2_data_provider provider{};
    provider.source.ptr = &stream;
    provider.read_callback = readBody;
    if (nghttp2_submit_response(session, id, headers, std::size(headers), &provider) != 0)
      return NGHTTP2_ERR_CALLBACK_FAILURE;
    ++self.server.streams_;
    return 0;
  }

  static ssize_t readBody(nghttp2_session*, int32_t, uint8_t* buffer, size_t length,
                          uint32_t* flags, nghttp2_data_source* source, void*) {
    auto& stream = *static_cast<Stream*>(source->ptr);
    const size_t n = std::min(length, stream.body.size() - stream.sent);
    std::memcpy(buffer, stream.body.data() + stream.sent, n);
    stream.sent += n;
    if (stream.sent == stream.body.size()) *flags |= NGHTTP2_DATA_FLAG_EOF;
    return static_cast<ssize_t>(n);
  }

  static int onHeader(nghttp2_session*, const nghttp2_frame* frame, const uint8_t* name,
                      size_t nameLength, const uint8_t* value, size_t valueLength, uint8_t,
                      void* user) {
    HTTP2Request& request = static_cast<HTTP2Session*>(user)->streams[frame->hd.stream_id].request;
    const std::string key(reinterpret_cast<const char*>(name), nameLength);
    std::string text(reinterpret_cast<const char*>(value), valueLength);
    if (key == ":method")
      request.method = std::move(text);
    else if (key == ":path")
      request.path = std::move(text);
    else if (!key.starts_with(':'))
      request.headers.emplace(key, std::move(text));
    return 0;
  }

  static int onClose(nghttp2_session*, int32_t id, uint32_t, void* user) {
    static_cast<HTTP2Session*>(user)->streams.erase(id);
    return 0;
  }
};

ZVHTTP2Server::ZVHTTP2Server(std::function<HTTP2Reply(const HTTP2Request&)> handler)
    : handler_(std::move(handler)) {
  // The sandbox's certificate (localhost and 127.0.0.1), in a folder of our own.
  std::string pattern = (std::filesystem::temp_directory_path() / "zv-h2-XXXXXX").string();
  if (::mkdtemp(pattern.data()) == nullptr)
    throw std::runtime_error("HTTP/2 server: no temporary folder");
  directory_ = pattern;
  try {
    zvsandbox::CertificateFiles files;
    std::string problem;
    if (!zvsandbox::ensureCertificate(directory_, files, problem))
      throw std::runtime_error("HTTP/2 server: " + problem);
    caFile_ = files.certificate.string();
    context_ = SSL_CTX_new(TLS_server_method());
    if (context_ == nullptr ||
        SSL_CTX_use_certificate_file(context_, caFile_.c_str(), SSL_FILETYPE_PEM) != 1 ||
        SSL_CTX_use_PrivateKey_file(context_, files.privateKey.c_str(), SSL_FILETYPE_PEM) != 1)
      throw std::runtime_error("HTTP/2 server: cannot set up TLS with the certificate");
    SSL_CTX_set_alpn_select_cb(context_, selectH2, nullptr);
  } catch (...) {
    SSL_CTX_free(context_);
    std::filesystem::remove_all(directory_);
    throw;
  }
  listener_.start([this](int socket) { serve(socket); });
}

ZVHTTP2Server::~ZVHTTP2Server() {
  listener_.stop();  // wakes workers blocked in a TLS read or write, and joins them
  SSL_CTX_free(context_);
  std::error_code ignored;
  std::filesystem::remove_all(directory_, ignored);
}

std::string ZVHTTP2Server::baseURL() const {
  return "https://127.0.0.1:" + std::to_string(port());
}

// Blocking TLS on one connection: read what the client sent, feed it to the
// session, write what the session has to say, until either side is done.
void ZVHTTP2Server::serve(int socket) {
  // OpenSSL writes with write(2): a client that already closed must give
  // EPIPE on this thread, not a SIGPIPE that ends the process.
  sigset_t pipe;
  sigemptyset(&pipe);
  sigaddset(&pipe, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &pipe, nullptr);
  SSL* ssl = SSL_new(context_);
  HTTP2Session state{*this, {}};
  nghttp2_session* session = nullptr;
  if (ssl && SSL_set_fd(ssl, socket) == 1 && SSL_accept(ssl) == 1) {
    nghttp2_session_callbacks* callbacks = nullptr;
    if (nghttp2_session_callbacks_new(&callbacks) == 0) {
      nghttp2_session_callbacks_set_on_frame_recv_callback(callbacks, HTTP2Session::onFrame);
      nghttp2_session_callbacks_set_on_stream_close_callback(callbacks, HTTP2Session::onClose);
      nghttp2_session_callbacks_set_on_header_callback(callbacks, HTTP2Session::onHeader);
      if (nghttp2_session_server_new(&session, callbacks, &state) != 0) session = nullptr;
      nghttp2_session_callbacks_del(callbacks);
    }
  }
  const nghttp2_settings_entry settings[] = {{NGHTTP2_SETTINGS_MAX_CONCURRENT_STREAMS, 128}};
  bool alive = session && nghttp2_submit_settings(session, NGHTTP2_FLAG_NONE, settings,
                                                  std::size(settings)) == 0;
  std::string out;
  const auto flush = [&] {
    const bool written = out.empty() || SSL_write(ssl, out.data(), static_cast<int>(out.size())) ==
                                            static_cast<int>(out.size());
    out.clear();
    return written;
  };
  uint8_t buffer[16 * 1024];
  while (alive && !listener_.stopping()) {
    while (alive) {
      const uint8_t* data = nullptr;
      const ssize_t n = nghttp2_session_mem_send(session, &data);
      if (n <= 0) {
        alive = n == 0 && flush();
        break;
      }
      out.append(reinterpret_cast<const char*>(data), static_cast<size_t>(n));
    }
    if (!alive ||
        (nghttp2_session_want_read(session) == 0 && nghttp2_session_want_write(session) == 0))
      break;
    const int got = SSL_read(ssl, buffer, sizeof buffer);
    alive = got > 0 && nghttp2_session_mem_recv(session, buffer, static_cast<size_t>(got)) == got;
  }
  ERR_clear_error();
  nghttp2_session_del(session);
  SSL_free(ssl);
}

}  // namespace zvtest
