// Percent-encoding of URL components (RFC 3986, section 2.1), shared by URLs, file
// paths and query strings.
#pragma once

#include <string>
#include <string_view>

namespace vkq::platform {

// A byte class: true for the bytes a component may carry as they are.
using ByteFilter = bool (*)(unsigned char byte);

// ALPHA / DIGIT / "-" / "." / "_" / "~"
bool isUnreservedByte(unsigned char byte);
// A path segment's characters (unreserved, sub-delims, ":" and "@") and "/".
bool isPathByte(unsigned char byte);

// Replaces every byte that `keep` refuses by "%XX" (upper-case hex digits).
std::string percentEncode(std::string_view text, ByteFilter keep);
// Replaces "%XX" escapes by their byte; a "%" without two hex digits stays as it is.
std::string percentDecode(std::string_view text);

}  // namespace vkq::platform
