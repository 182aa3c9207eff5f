// The KXP frame settings of a request, as its overridable accessors answer them: the one
// place where the serializers read a request's framing.
#pragma once

#include "Classes/Codec/VKQKXPFrame.h"

class VKQVeskRequest;

VKQKXPFrameSettings VKQKXPFrameSettingsOf(const VKQVeskRequest& request);
