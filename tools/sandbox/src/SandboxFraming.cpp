#include "SandboxFraming.h"

#include <strings.h>

#include <algorithm>
#include <charconv>

#include <fmt/core.h>

namespace zvsandbox {
namespace {

constexpr std::string_view kCRLF = "\r\n";
constexpr size_t kMaxChunkLine = 1024;  // a chunk size and its extensions
// A header field with its CRLF: the HTTP parser behind the framer refuses a
// longer one with a bare 400, so it is refused here, saying why.
constexpr size_t kMaxFieldLine = 8192;

std::string_view trim(std::string_view text) {
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
  while (!text.empty() && (text.back() == ' ' || text.back() == '\t')) text.remove_suffix(1);
  return text;
}

bool sameName(std::string_view a, std::string_view b) {
  return a.size() == b.size() && ::strncasecmp(a.data(), b.data(), a.size()) == 0;
}

}  // namespace

Framing RequestFramer::refuse(int status, std::string message) {
  phase_ = Phase::done;
  Framing framing;
  framing.state = Framing::State::refused;
  framing.status = status;
  framing.message = std::move(message);
  framing.started = true;
  return framing;
}

// Reads the framing headers of a complete head (request line and fields,
// without the empty line).
Framing RequestFramer::parseHead(std::string_view head) {
  std::string_view contentLength, transferEncoding;
  size_t lengthCount = 0, encodingCount = 0, fields = 0;
  size_t at = head.find(kCRLF);
  while (at != std::string_view::npos) {
    const size_t start = at + kCRLF.size();
    const size_t next = head.find(kCRLF, start);
    const auto line = head.substr(start, next == std::string_view::npos ? next : next - start);
    at = next;
    if (++fields > limits_.maxHeaderCount) {
      return refuse(
          431, fmt::format("the request has more than {} header fields", limits_.maxHeaderCount));
    }
    if (line.size() + kCRLF.size() > kMaxFieldLine) {
      return refuse(431, fmt::format("a header field is longer than {} bytes", kMaxFieldLine));
    }
    const size_t colon = line.find(':');
    if (colon == std::string_view::npos) continue;
    const auto name = line.substr(0, colon);
    const auto value = trim(line.substr(colon + 1));
    if (sameName(name, "Content-Length")) {
      contentLength = value;
      ++lengthCount;
    } else if (sameName(name, "Transfer-Encoding")) {
      transferEncoding = value;
      ++encodingCount;
    } else if (sameName(name, "Content-Encoding") && !sameName(value, "identity")) {
      return refuse(415, "compressed request bodies are not accepted");
    } else if (sameName(name, "Expect") && sameName(value, "100-continue")) {
      expectsContinue_ = true;
    } else if (sameName(name, "Idempotency-Key") && value.empty()) {
      // The HTTP library drops an empty field: the request would order unkeyed.
      return refuse(400, std::string(kBadIdempotencyKey));
    }
  }

  if (encodingCount > 0) {
    if (lengthCount > 0 || encodingCount > 1) {
      return refuse(400, "the request gives its body length more than once");
    }
    if (!sameName(transferEncoding, "chunked")) {
      return refuse(501, fmt::format("transfer coding '{}' is not supported",
                                     transferEncoding.substr(0, 64)));
    }
    phase_ = Phase::chunkSize;
    return {};
  }
  if (lengthCount > 1) return refuse(400, "the request gives its body length more than once");
  if (lengthCount == 0) {
    phase_ = Phase::done;  // no body
    return {};
  }
  uint64_t length = 0;
  const auto [end, ec] =
      std::from_chars(contentLength.data(), contentLength.data() + contentLength.size(), length);
  if (contentLength.empty() || end != contentLength.data() + contentLength.size()) {
    return refuse(400, "Content-Length is not a number");
  }
  if (ec == std::errc::result_out_of_range || length > limits_.maxBodyBytes) {
    return refuse(413, fmt::format("the body is larger than {} bytes", limits_.maxBodyBytes));
  }
  remaining_ = static_cast<size_t>(length);
  phase_ = Phase::lengthBody;
  return {};
}

Framing RequestFramer::advance(std::string_view bytes) {
  Framing pending;
  pending.started = !bytes.empty();
  if (phase_ == Phase::head) {
    // The empty line may straddle the previous call's end.
    const size_t from = pos_ >= 3 ? pos_ - 3 : 0;
    const size_t found = bytes.find("\r\n\r\n", from);
    if (found == std::string_view::npos || found + 4 > limits_.maxHeadBytes) {
      if (bytes.size() > limits_.maxHeadBytes) {
        return refuse(
            431, fmt::format("the request head is larger than {} bytes", limits_.maxHeadBytes));
      }
      pos_ = bytes.size();
      return pending;
    }
    headEnd_ = pos_ = found + 4;
    if (auto refused = parseHead(bytes.substr(0, found));
        refused.state != Framing::State::incomplete)
      return refused;
  }

  while (phase_ != Phase::done) {
    const std::string_view rest = bytes.substr(pos_);
    if (pos_ - headEnd_ > 2 * limits_.maxBodyBytes) {
      return refuse(413, fmt::format("the body is larger than {} bytes", limits_.maxBodyBytes));
    }
    switch (phase_) {
      case Phase::lengthBody:
      case Phase::chunkData: {
        const size_t take = std::min(remaining_, rest.size());
        pos_ += take;
        remaining_ -= take;
        if (remaining_ > 0) break;
        phase_ = phase_ == Phase::lengthBody ? Phase::done : Phase::chunkEnd;
        continue;
      }
      case Phase::chunkEnd:
      case Phase::lastChunkEnd:
        if (rest.size() < 2) break;
        if (!rest.starts_with(kCRLF)) {
          return refuse(400, phase_ == Phase::chunkEnd ? "a chunk does not end in CRLF"
                                                       : "chunk trailers are not supported");
        }
        pos_ += 2;
        phase_ = phase_ == Phase::chunkEnd ? Phase::chunkSize : Phase::done;
        continue;
      case Phase::chunkSize: {
        const size_t lineEnd = rest.find(kCRLF);
        if (lineEnd == std::string_view::npos) {
          if (rest.size() > kMaxChunkLine) return refuse(400, "a chunk size line is too long");
          break;
        }
        if (lineEnd > kMaxChunkLine) return refuse(400, "a chunk size line is too long");
        const auto line = rest.substr(0, lineEnd);
        const size_t digits =
            std::min(line.find_first_not_of("0123456789abcdefABCDEF"), line.size());
        const auto after = trim(line.substr(digits));
        uint64_t size = 0;
        const auto [end, ec] = std::from_chars(line.data(), line.data() + digits, size, 16);
        if (digits == 0 || (!after.empty() && after.front() != ';')) {
          return refuse(400, "a chunk size is not a hexadecimal number");
        }
        if (ec == std::errc::result_out_of_range || size > limits_.maxBodyBytes - decoded_) {
          return refuse(413, fmt::format("the body is larger than {} bytes", limits_.maxBodyBytes));
        }
        pos_ += lineEnd + 2;
        decoded_ += static_cast<size_t>(size);
        remaining_ = static_cast<size_t>(size);
        phase_ = size == 0 ? Phase::lastChunkEnd : Phase::chunkData;
        continue;
      }
      case Phase::head:
      case Phase::done:
        break;
    }
    pending.expectsContinue = expectsContinue_ && pos_ == headEnd_;
    return pending;
  }
  Framing complete;
  complete.state = Framing::State::complete;
  complete.end = pos_;
  complete.started = true;
  return complete;
}

}  // namespace zvsandbox
