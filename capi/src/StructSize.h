// Versioned structs: the caller's struct_size says which fields it knows.
#pragma once

#include <cstddef>
#include <cstdint>

namespace zvr {

/// Whether a struct of `size` bytes at `data` can be read by this library,
/// whose struct is `known` bytes and whose first version was `first` bytes:
/// an older (smaller) struct is fine; a newer one only when every byte this
/// library does not know is zero, i.e. no newer field is set.
inline bool structSizeAccepted(const void* data, uint32_t size, size_t first, size_t known) {
  if (size < first) return false;
  const auto* bytes = static_cast<const unsigned char*>(data);
  for (size_t i = known; i < size; ++i)
    if (bytes[i] != 0) return false;
  return true;
}

}  // namespace zvr
