// Everything zvrewards prints goes through here: text from the service may
// hold terminal control sequences, and an answer may quote the access token.
#pragma once

#include <cstdio>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <ZorvaneCoreKit/ZVJSON.h>

namespace zvcli {

/// Masks a secret as "***", whatever its letter case. A secret of at least
/// `kWholeWordBelow` characters is masked wherever it occurs; a shorter one
/// only where it stands alone, between characters that cannot belong to a
/// token (anything but ASCII letters, digits and "-._~+/="), so that a
/// one-letter token does not mask that letter all over the output.
class Redactor {
 public:
  static constexpr size_t kWholeWordBelow = 8;

  explicit Redactor(std::string secret = {});
  std::string operator()(std::string_view text) const;
  /// A copy of `value` with the secret masked in every string and key.
  ZVJSONValue json(const ZVJSONValue& value) const;
  /// Serialised JSON with the secret masked where the serialiser's own
  /// escapes complete it (the escape \t before "ok-1234" reads "tok-1234"): an
  /// escape that a match starts or ends in is masked with it, and a match in a
  /// number or keyword makes it the string "***", so the JSON stays valid.
  std::string serialized(std::string_view json) const;

 private:
  /// Where the secret occurs in `text`, in order, without overlaps.
  std::vector<std::pair<size_t, size_t>> matches(std::string_view text) const;

  std::string lowered_;  // the secret in lower case (ASCII)
};

/// `text` with every control character (C0, DEL, C1), Unicode bidirectional
/// control and byte that is not valid UTF-8 written as a visible escape
/// ("\n", "\t", "\r", "\x1b", "\u009b", "\u202e", "\xff"); the rest of the
/// text, accented letters included, unchanged. `keepLineFeeds` leaves line
/// feeds alone, for text whose lines are our own.
std::string terminalSafe(std::string_view text, bool keepLineFeeds = false);

/// Serialised JSON with DEL, C1 and bidirectional controls escaped as
/// "\uXXXX" (the serialiser escapes the rest of the control characters):
/// the same document, harmless on a terminal.
std::string terminalSafeJSON(std::string_view json);

/// The secret that output masks. Set once, before any thread that prints
/// starts; empty (the default) masks nothing.
void setOutputSecret(const std::string& secret);
const Redactor& outputRedactor();

/// A text from the service, for a line of ours: the secret masked, then
/// made terminal-safe (its line feeds included).
std::string shown(std::string_view text);

/// Writes our own text: the secret masked, control characters other than
/// line feeds escaped.
void writeText(std::FILE* out, std::string_view text);

}  // namespace zvcli
