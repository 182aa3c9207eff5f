// The KXP frame settings of a request, as its overridable accessors answer them: the one
// place where the serializers read a request's framing.
#pragma once

#include "Classes/Codec/VKQKXPFrame.h"

class VKQVeskRequest;

// The request's version, mask key, compression, begin marker, OS-type byte, package
// name, release version and non-protocol switch, read through its accessors.
VKQKXPFrameSettings VKQKXPFrameSettingsOf(const VKQVeskRequest& request);
