// A dictionary key in 8 bytes.
#pragma once

#include <bit>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <utility>

#include "json/ZVJSONText.h"

namespace zv_detail {

// Up to 7 bytes held inline, or a shared ZVText (the parser shares one text
// among the equal long keys of a document). One byte tags the form: odd for
// inline keys, with the count in its upper bits and the rest zeroed, so two
// inline keys are equal exactly when their 8 bytes are; a text's address is
// even there.
class ZVKey {
 public:
  static constexpr size_t kInline = 7;

  ZVKey() noexcept { clearInline(); }
  explicit ZVKey(std::string_view s) {
    if (s.size() <= kInline) {
      std::memset(bytes_, 0, sizeof bytes_);
      if (!s.empty()) std::memcpy(bytes_ + kCharsAt, s.data(), s.size());
      bytes_[kTagAt] = static_cast<char>((s.size() << 1) | 1);
    } else {
      setText(ZVText::make(s));
    }
  }
  /// Takes over one reference to `text`.
  explicit ZVKey(ZVText* text) noexcept { setText(text); }
  /// An inline key (`s` at most kInline bytes) from text that may be read
  /// eight bytes from its start: one word load and one store instead of a
  /// byte-wise copy.
  static ZVKey fromPadded(std::string_view s) noexcept {
    uint64_t word;
    std::memcpy(&word, s.data(), sizeof word);
    const unsigned bits = 8 * static_cast<unsigned>(s.size());
    const uint64_t tag = (s.size() << 1) | 1;
    if constexpr (kLittle)
      word = bits == 0 ? tag : ((word & (~uint64_t{0} >> (64 - bits))) << 8) | tag;
    else
      word = bits == 0 ? tag : (word & ~(~uint64_t{0} >> bits)) | tag;
    ZVKey key;
    std::memcpy(key.bytes_, &word, sizeof word);
    return key;
  }
  ZVKey(const ZVKey& other) noexcept {
    std::memcpy(bytes_, other.bytes_, sizeof bytes_);
    if (shared()) text()->retain();
  }
  ZVKey(ZVKey&& other) noexcept {
    std::memcpy(bytes_, other.bytes_, sizeof bytes_);
    other.clearInline();
  }
  ZVKey& operator=(ZVKey other) noexcept {
    std::swap(bytes_, other.bytes_);
    return *this;
  }
  ~ZVKey() {
    if (shared()) text()->release();
  }

  std::string_view view() const {
    if (shared()) return text()->view();
    return {bytes_ + kCharsAt, inlineSize()};
  }
  size_t size() const { return shared() ? text()->size : inlineSize(); }
  bool shared() const { return (bytes_[kTagAt] & 1) == 0; }
  /// The 8 bytes as a number, for hashing inline keys.
  uint64_t bits() const {
    uint64_t word;
    std::memcpy(&word, bytes_, sizeof word);
    return word;
  }
  /// Byte-wise equality: exact when either key is inline.
  bool sameBytes(const ZVKey& other) const {
    return std::memcmp(bytes_, other.bytes_, sizeof bytes_) == 0;
  }

 private:
  static constexpr bool kLittle = std::endian::native == std::endian::little;
  static_assert(kLittle || std::endian::native == std::endian::big, "mixed-endian platform");
  // The byte that holds a pointer's lowest bits, and where inline bytes start.
  static constexpr size_t kTagAt = kLittle ? 0 : 7;
  static constexpr size_t kCharsAt = kLittle ? 1 : 0;

  size_t inlineSize() const { return static_cast<unsigned char>(bytes_[kTagAt]) >> 1; }
  void clearInline() {
    constexpr uint64_t kEmpty = 1;  // the tag of "", in the tag byte on either byte order
    std::memcpy(bytes_, &kEmpty, sizeof bytes_);
  }
  void setText(ZVText* text) {
    static_assert(alignof(ZVText) >= 2, "a text's address must be even");
    std::memcpy(bytes_, &text, sizeof text);
  }
  ZVText* text() const {
    ZVText* t;
    std::memcpy(&t, bytes_, sizeof t);
    return t;
  }
  alignas(8) char bytes_[8];
};

}  // namespace zv_detail
