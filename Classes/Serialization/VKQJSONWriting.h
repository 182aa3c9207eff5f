// The JSON writer of the request serializers: validity test and encoding with option
// bits. Stateless and thread-safe.
#pragma once

#include <cstdint>
#include <optional>

#include "Platform/Base/Bytes.h"
#include "Platform/Base/Error.h"
#include "Platform/Serialization/Object.h"

// Option bits of the JSON writer; 0 writes compact JSON with "/" escaped as "\/".
enum VKQJSONWritingOptions : std::uint64_t {
  // Line breaks, two spaces of indentation per level, " : " between key and value.
  VKQJSONWritingPrettyPrinted = 1 << 0,
  // Object keys in ascending order. Objects are always written so; the bit is accepted.
  VKQJSONWritingSortedKeys = 1 << 1,
  // "/" written as it is.
  VKQJSONWritingWithoutEscapingSlashes = 1 << 3,
};

// Domain of writer failures (a string that is not valid UTF-8).
inline constexpr const char* VKQJSONWritingErrorDomain = "com.vkqlabs.json.writing";
inline constexpr std::int64_t VKQJSONWritingErrorInvalidString = 1;

namespace VKQJSONWriting {

// True for an array or an object at the top that holds only JSON values: no binary
// values, and no number that is infinite or not a number.
bool isValidJSONObject(const vkq::platform::JSON& object);

// The UTF-8 text of `object`. Absent, with an error of VKQJSONWritingErrorDomain, when
// a string in it is not valid UTF-8. REQUIRES: isValidJSONObject(object).
std::optional<vkq::platform::Bytes> dataWithJSONObject(const vkq::platform::JSON& object, std::uint64_t options,
                                                       vkq::platform::ErrorPtr* error);

}  // namespace VKQJSONWriting
