#include <ZorvaneCoreKit/ZVError.h>

#include "base/ZVStrings.h"

const char* const ZVErrorServerNoRequest = "ZVErrorServerNoRequest";
const char* const ZVErrorValidationNoOfferID = "ZVErrorValidationNoOfferID";
const char* const ZVErrorValidationNoQuestionID = "ZVErrorValidationNoQuestionID";
const char* const ZVErrorValidationNoAnswer = "ZVErrorValidationNoAnswer";
const char* const ZVErrorTransportConnect = "ZVErrorTransportConnect";
const char* const ZVErrorTransportTimeout = "ZVErrorTransportTimeout";
const char* const ZVErrorTransportTLS = "ZVErrorTransportTLS";
const char* const ZVErrorTransportReset = "ZVErrorTransportReset";
const char* const ZVErrorTransportOther = "ZVErrorTransportOther";
const char* const ZVErrorHTTPStatus = "ZVErrorHTTPStatus";
const char* const ZVErrorAnswerNotJSON = "ZVErrorAnswerNotJSON";
const char* const ZVErrorAnswerNotObject = "ZVErrorAnswerNotObject";
const char* const ZVErrorAnswerTooLarge = "ZVErrorAnswerTooLarge";
const char* const ZVErrorAnswerNotDecoded = "ZVErrorAnswerNotDecoded";
const char* const ZVErrorNotConfigured = "ZVErrorNotConfigured";
const char* const ZVErrorShutdown = "ZVErrorShutdown";
const char* const ZVErrorHTTPUnexpectedStatus = "ZVErrorHTTPUnexpectedStatus";
const char* const ZVErrorTooManyRequests = "ZVErrorTooManyRequests";
const char* const ZVErrorInvalidPathValue = "ZVErrorInvalidPathValue";
const char* const ZVErrorInvalidIdempotencyKey = "ZVErrorInvalidIdempotencyKey";
const char* const ZVErrorInvalidBody = "ZVErrorInvalidBody";

ZVError::ZVError(int64_t type, ZVDictionaryPtr result) : type_(type), raw_(std::move(result)) {}

ZVError::ZVError(int64_t type, std::string code, std::string message)
    : type_(type), code_(std::move(code)), message_(std::move(message)) {}

ZVError::~ZVError() = default;

std::string ZVError::description() const {
  return zv_detail::strCat("Error Domain=ZVError Type=", type_,
                           " Code=", code_.empty() ? "(null)" : code_, " \"",
                           message_ ? zv_detail::describedText(*message_) : "(null)", "\"");
}
