#pragma once

#include "foundation/Export.h"

namespace postwire {

// What an envelope is written in.
enum class POSTWIRE_EXPORT SoapVersion { none, soap11, soap12 };

}  // namespace postwire
