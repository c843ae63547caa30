#pragma once

#include <string_view>

#include "foundation/Export.h"

namespace postwire {

// One header line as it came. The texts are good as long as those of whoever gave it.
struct POSTWIRE_EXPORT HeadLine {
    std::string_view name;  // in its own letter case
    std::string_view text;  // without white space at its ends; continued lines joined by a blank
};

}  // namespace postwire
