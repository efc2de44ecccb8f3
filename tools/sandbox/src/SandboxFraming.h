// Where an HTTP/1.1 request ends in the bytes of a connection, within the
// sandbox's limits, before any of it reaches the HTTP library.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "ZVSandbox.h"

namespace zvsandbox {

/// The refusal of an Idempotency-Key that is not one valid value.
inline constexpr std::string_view kBadIdempotencyKey =
    "Idempotency-Key must be one value of 1 to 255 printable ASCII characters without spaces";

/// What is known about the request at the start of a connection's buffer.
struct Framing {
  enum class State {
    incomplete,  ///< more bytes needed
    complete,    ///< `end` bytes hold the whole request
    refused,     ///< answer `status` with `message`, then close
  };
  State state = State::incomplete;
  size_t end = 0;
  int status = 0;
  std::string message;
  /// The head is complete, the body is not, and the client waits for a
  /// "100 Continue" before it sends the body.
  bool expectsContinue = false;
  /// Some bytes of the request arrived (a timeout then deserves an answer).
  bool started = false;
};

/// Frames one request at a time. Resumes where the last call stopped, so a
/// body that arrives in many reads is scanned once.
///
/// Accepted framing: a head ending in an empty line (CRLF line ends); a body
/// given by one Content-Length, or by "Transfer-Encoding: chunked" without
/// trailers, or none. Refused: a head over `maxHeadBytes` or with more than
/// `maxHeaderCount` fields (431); a body over `maxBodyBytes` decoded or twice
/// that on the wire (413); a compressed body (415); any other transfer coding
/// (501); ambiguous or malformed framing (400).
class RequestFramer {
 public:
  explicit RequestFramer(const ZVSandboxLimits& limits) : limits_(limits) {}

  /// Looks at `bytes`, the connection's buffer from the request's first byte
  /// on; between calls it may only have grown at its end.
  Framing advance(std::string_view bytes);
  /// Starts over for the next request, whose first byte is at offset 0.
  void reset() { *this = RequestFramer(limits_); }

 private:
  enum class Phase { head, lengthBody, chunkSize, chunkData, chunkEnd, lastChunkEnd, done };
  Framing parseHead(std::string_view head);
  Framing refuse(int status, std::string message);

  ZVSandboxLimits limits_;
  Phase phase_ = Phase::head;
  size_t pos_ = 0;        // next byte to look at
  size_t remaining_ = 0;  // of the body or of the current chunk
  size_t headEnd_ = 0;    // where the body starts
  size_t decoded_ = 0;    // body bytes after chunk decoding
  bool expectsContinue_ = false;
};

}  // namespace zvsandbox
