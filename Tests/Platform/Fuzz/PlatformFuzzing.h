// Fuzz bodies for the platform's decoders of bytes from the network or the disk. Each
// decodes one arbitrary input and aborts when the decoder breaks a promise.
#pragma once

#include "Tests/Support/Fuzzing.h"

namespace vkq::testing {

// Resume data read back from disk: refused with an error, or fields that survive
// being encoded and decoded again.
void decodeResumeData(FuzzInput input);

// An answer's header lines as received: "Name: value" fields with names that hold no
// separator and values without line breaks; the length and media type
// read from the raw lines agree with those read from the parsed fields.
void parseHeaderLines(FuzzInput input);

}  // namespace vkq::testing
