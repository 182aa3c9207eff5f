// Fuzz bodies for the platform's decoders of bytes from the network or the disk. Each
// decodes one arbitrary input and aborts when the decoder breaks a promise.
#pragma once

#include "Tests/Support/Fuzzing.h"

namespace vkq::testing {

// A JSON answer: byte 0 picks the status, byte 1 the content type, the rest is the
// body. Refused with an error and nothing parsed, or absent, or JSON no deeper than the
// limit that prints and parses back to itself.
void decodeJSONAnswer(FuzzInput input);

// Resume data read back from disk: refused with an error, or fields that survive
// being encoded and decoded again.
void decodeResumeData(FuzzInput input);

// An answer's header lines as received: fields whose names hold no separator and whose
// values hold no line break; the length and media type read from the raw lines agree
// with those read from the parsed fields.
void parseHeaderLines(FuzzInput input);

}  // namespace vkq::testing
