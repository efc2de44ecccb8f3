#include "http/ZVGenericRequest.h"

#include "base/ZVStrings.h"

namespace {

// A parameter's text form: strings as they stand, containers as compact JSON,
// everything else as "%@" prints it.
std::string paramText(const ZVJSONValue& value) {
  if (const auto text = value.string()) return std::string(*text);
  if (value.isArray() || value.isDictionary()) {
    std::string json;
    if (ZVJSONSerialize(value, false, json)) return json;
  }
  return value.description();
}

}  // namespace

std::shared_ptr<ZVGenericRequestBuilder> ZVGenericRequestBuilder::requestBuilderWithMethod(
    int method, std::string kind) {
  return std::make_shared<ZVGenericRequestBuilder>(method, std::move(kind));
}

ZVGenericRequestBuilder::ZVGenericRequestBuilder(int method, std::string kind)
    : method_(method), kind_(std::move(kind)) {}

std::shared_ptr<ZVGenericRequest> ZVGenericRequestBuilder::build() const {
  std::shared_ptr<ZVGenericRequest> request(new ZVGenericRequest());
  request->method_ = method_;
  request->kind_ = kind_;
  request->baseURL_ = baseURL_;
  request->pathValues_ = pathValues_;
  request->idempotencyKey_ = idempotencyKey_;
  params_->forEach([&](std::string_view key, const ZVJSONValue& value) {
    // A JSON null has no text worth sending.
    if (!value.isNull()) request->params_.emplace_back(key, paramText(value));
  });
  request->body_ = body_;
  request->errorMessageMaker_ = errorMessageMaker_;
  return request;
}

std::string ZVGenericRequest::description() const {
  return zv_detail::strCat("<ZVGenericRequest: ", kind_, " ",
                           method_ == ZVRequestMethodSubmit ? "POST" : "GET", " ", baseURL_, ">");
}

std::string ZVGenericResponse::description() const {
  return zv_detail::strCat("<ZVGenericResponse: ", statusCode_, " ", url_, ">");
}
