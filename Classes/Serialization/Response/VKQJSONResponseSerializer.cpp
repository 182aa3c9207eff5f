#include "Classes/Serialization/Response/VKQJSONResponseSerializer.h"

#include "Classes/VKQVeskRequest.h"
#include "Classes/VKQVeskResult.h"
#include "Platform/Base/Assert.h"
#include "Platform/Base/Log.h"

using vkq::platform::ErrorPtr;
using vkq::platform::Object;

std::shared_ptr<VKQJSONResponseSerializer> VKQJSONResponseSerializer::serializer() {
  return std::make_shared<VKQJSONResponseSerializer>();
}

std::shared_ptr<VKQVeskResult> VKQJSONResponseSerializer::deserialize(const std::shared_ptr<VKQVeskRequest>& request,
                                                                      const ErrorPtr* error) const {
  VKQParameterAssert(request != nullptr);
  if (error != nullptr && *error) {
    DDDebug("request faild", request->description());
    return VKQVeskResult::resultWithErrorCode(-2, request);
  }
  ErrorPtr validationError;
  Object parsed = responseObjectForResponse(request->response().get(), request->responseData(), &validationError);
  // The error alone decides: an object parsed despite it is dropped.
  if (validationError) {
    DDDebug("serialization faild", request->description());
    request->setError(std::move(validationError));  // the request's error says why the answer was refused
    return VKQVeskResult::resultWithErrorCode(-2, request);
  }
  return VKQVeskResult::initWith(VKQResponseCode::responseCode(0), std::move(parsed), request);
}
