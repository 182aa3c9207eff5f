// Base of the binary-protocol response serializer: the platform response serializer.
#pragma once

#include "Platform/Serialization/HTTPResponseSerializer.h"

class VKQHTTPResponseSerializer : public vkq::platform::HTTPResponseSerializer {};
