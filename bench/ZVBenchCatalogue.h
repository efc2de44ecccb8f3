// Offer catalogues for the benchmarks: answer bodies shaped like the rewards
// service's, deterministic from a seed.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace zvbench {

/// An offers answer {"status":"ok","offers":[...]} with `offers` offers of
/// about 1.5 KB each: numeric strings, booleans as text, nested options and
/// data, unknown keys, non-ASCII text and escapes, key order shuffled per
/// object. The same seed gives the same bytes.
std::string makeCatalogue(size_t offers, uint64_t seed = 1);

}  // namespace zvbench
