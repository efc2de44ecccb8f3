// zv_bench_catalogue OFFERS [SEED] > FILE: writes a generated offers answer.
#include <cstdio>
#include <cstdlib>
#include <string>

#include <fmt/format.h>

#include "ZVBenchCatalogue.h"

int main(int argc, char** argv) {
  if (argc < 2 || argc > 3) {
    fmt::print(stderr, "usage: zv_bench_catalogue OFFERS [SEED] > FILE\n");
    return 2;
  }
  const size_t offers = std::strtoull(argv[1], nullptr, 10);
  const uint64_t seed = argc == 3 ? std::strtoull(argv[2], nullptr, 10) : 1;
  const std::string body = zvbench::makeCatalogue(offers, seed);
  return std::fwrite(body.data(), 1, body.size(), stdout) == body.size() ? 0 : 1;
}
