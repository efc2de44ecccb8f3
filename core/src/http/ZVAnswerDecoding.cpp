#include "http/ZVAnswerDecoding.h"

#include "base/ZVStrings.h"
#include "http/ZVHTTPErrors.h"
#include "runtime/ZorvaneSettings.h"

namespace zv_detail {
namespace {

const char* jsonTypeName(ZVJSONValue::Type type) {
  using T = ZVJSONValue::Type;
  switch (type) {
    case T::Null:
      return "null";
    case T::Bool:
      return "boolean";
    case T::Integer:
    case T::Double:
      return "number";
    case T::String:
      return "string";
    case T::Array:
      return "array";
    case T::Dictionary:
      return "object";
    case T::Nil:
      break;
  }
  return "nothing";
}

ZVOutcome invalidAnswer(const char* code, std::string message) {
  return failedOutcome(
      std::make_shared<ZVError>(ZVErrorTypeInvalidAnswer, code, std::move(message)));
}

}  // namespace

ZVOutcome failedOutcome(ZVErrorPtr error) {
  ZVDictionaryPtr raw = error ? error->raw() : nullptr;
  return {nullptr, std::move(error), std::move(raw)};
}

ZVOutcome decodeAnswer(ZVHTTPResult result, const ZVGenericRequest& request, ZVResolvedURL& where,
                       size_t maxResponseBytes) {
  if (result.failure != ZVTransportFailure::None) return failedOutcome(transportError(result));

  const int status = result.status;
  if (status < 200 || (status >= 300 && status < 400))
    return failedOutcome(unexpectedStatusError(result, where.hostAndPath()));
  ZVJSONParseResult parsed;
  if (result.body.empty())
    parsed.error = "the body is empty";
  else
    // The values' memory is bounded by the answer size limit, whatever the
    // answer holds (tiny containers cost many times their text).
    parsed = ZVJSONParse(result.body, {.maxValueBytes = ZVJSONMemoryForAnswer(maxResponseBytes)});

  if (status >= 400)
    return failedOutcome(httpStatusError(status, parsed.ok() ? parsed.value.dictionary() : nullptr,
                                         request, where.hostAndPath()));
  if (parsed.tooLarge)
    return invalidAnswer(ZVErrorAnswerTooLarge, strCat("answer from ", where.url,
                                                       " is too large to decode: ", parsed.error,
                                                       " (four times maxResponseBytes)"));
  if (!parsed.ok())
    return invalidAnswer(ZVErrorAnswerNotJSON,
                         strCat("answer from ", where.url, " is not JSON: ", parsed.error));
  ZVDictionaryPtr body = parsed.value.dictionary();
  if (!body)
    return invalidAnswer(ZVErrorAnswerNotObject,
                         strCat("answer from ", where.url, " is a JSON ",
                                jsonTypeName(parsed.value.type()), ", not an object"));
  auto response = std::make_shared<ZVGenericResponse>(status, std::move(where.url), body);
  response->setMaxResponseBytes(maxResponseBytes);
  return {std::move(response), nullptr, body};
}

}  // namespace zv_detail
