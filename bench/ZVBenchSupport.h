// What the benchmark programs share: the handler's decode path and the
// baselines it is held against.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include <ZorvaneRewardsKit/ZVOffer.h>

namespace zvbench {

/// Turns answer bytes into the offers array that the offers handler
/// delivers, through the same code: the request manager's parse, the
/// manager's routing and handler, and the delivery on the main queue. The
/// manager keeps the catalogue as its cache; call `forgetCatalogue` to
/// release it. Returns null when the body is not an offers answer. Give it
/// a body prepared by `asAnswerBody`, as the transport hands bodies over;
/// the parse pads it in place and leaves it as it was.
ZVOfferArrayPtr decodeOffers(std::string& body);

/// The same for a body the decode owns: like the request manager, which
/// drops the transport's result once it is parsed, it frees the body before
/// the records are built.
ZVOfferArrayPtr decodeOffers(std::string&& body);

/// Gives `body` the spare capacity past its end that the transport leaves
/// on every answer body (`ZVJSONPadding`), so that parsers read it in place.
std::string asAnswerBody(std::string body);

/// Drops the catalogue that the manager keeps as its cache.
void forgetCatalogue();

/// simdjson's DOM parse of `body` with a reused parser, in place when the
/// body has the padding (as ours is); returns an element count so that the
/// work cannot be optimised away.
size_t simdjsonDOMParse(const std::string& body);

/// nlohmann::json's parse of `body` alone, the result dropped outside the
/// measured region by the caller; returns the offer count.
size_t nlohmannParse(std::string_view body);

/// Peak resident set size of this process in bytes (VmHWM), or 0.
size_t peakResidentBytes();
/// Current resident set size in bytes (VmRSS), or 0.
size_t residentBytes();
/// Lowers the recorded peak to the current resident size (Linux clear_refs);
/// false when the kernel refuses.
bool resetPeakResident();

/// The whole file, or an empty string with a message in `error`.
std::string readFile(const std::string& path, std::string& error);

/// Keeps the SDK's logger silent and its main queue driven by the caller.
void quietSDK();

}  // namespace zvbench
