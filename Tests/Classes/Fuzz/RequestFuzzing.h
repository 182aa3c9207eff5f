// Fuzz body for the URL a request is sent to, built from a request's url, host, path and
// parameters that the application may have taken from anywhere.
#pragma once

#include "Tests/Support/Fuzzing.h"

namespace vkq::testing {

// Fields separated by NUL: url, host, path, parameters (JSON text; POST when it begins
// with a space, else GET, which puts them in the query). A URL that is built parses
// again to the same parts, and so does the URL of the request serialized from it.
void buildRequestURL(FuzzInput input);

}  // namespace vkq::testing
