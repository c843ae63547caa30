#pragma once

#include <string>

#include "service/ClientOptions.h"
#include "service/Descriptor.h"
#include "service/ExchangeWatch.h"

namespace postwire {

// Connects to the first address of a host that answers: the addresses of both families in turn,
// each a quarter of a second after the one before, or when that has failed, and all that have begun
// side by side, RFC 8305. The descriptor does not block and does not wait to send small pieces.
//
// Names are looked up on a thread of their own, since no call of the system does that within a
// limit; one that takes longer than the exchange may is left to end by itself.
//
// Raises: Code::resolve, Code::connect, and what the watch raises.
Descriptor connectTo(std::string const& host, int port, ClientOptions const& options,
                     ExchangeWatch& watch);

}  // namespace postwire
