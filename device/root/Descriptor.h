#pragma once

#include "files/Descriptor.h"

namespace appsync::device {

using appsync::Descriptor;

} // namespace appsync::device
