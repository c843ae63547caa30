#pragma once

namespace postwire {

// What an envelope is written in.
enum class SoapVersion { none, soap11, soap12 };

}  // namespace postwire
