// An engine-style host: C++17, no exceptions, no RTTI. It reads a catalogue
// answer as the SDK would and prints its offers, then the SDK's version.
#include <cstdio>

#include <ZorvaneRewardsKit/ZorvaneRewardsKit.h>

int main() {
  const ZVJSONParseResult parsed =
      ZVJSONParse(R"({"id":"7","name":"Mug","points":150,"status":"available"})");
  if (!parsed.ok()) return 1;
  const auto offer = ZVOffer::initMutableWithDictionary(parsed.value);
  std::printf("%s: %lld points (%s)\n", offer->offerID().value_or("?").c_str(),
              static_cast<long long>(offer->points()),
              ZVOffer::stringForStatus(offer->status()).c_str());
  std::printf("ZorvaneRewardsKit %.1f\n", ZorvaneRewardsKitVersionNumber);
  return offer->points() == 150 ? 0 : 1;
}
