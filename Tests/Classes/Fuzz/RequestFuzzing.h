// Fuzz bodies for what a request makes of bytes it did not choose: JSON answers, and
// the URL built from a request's url, host, path and parameters. Each aborts when a
// promise is broken.
#pragma once

#include "Tests/Support/Fuzzing.h"

namespace vkq::testing {

// Byte 0 picks the status, byte 1 the content type; the rest is the body. The answer
// is code 0 with absent data or JSON no deeper than the serializer's limit that prints
// and parses back to itself, or -2 with no data and the reason in the request's error.
void decodeJSONAnswer(FuzzInput input);

// Fields separated by NUL: url, host, path, parameters (JSON text; POST when it begins
// with a space, else GET). A URL that is built parses again to
// the same parts, and so does the URL of the request serialized with the parameters.
void buildRequestURL(FuzzInput input);

}  // namespace vkq::testing
