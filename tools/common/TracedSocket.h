#pragma once

#include "socket/SoapSocket.h"

// A socket whose trace goes to a file that is open already, and that tells what became of it.
class TracedSocket : public SoapSocket {
public:
    using SoapSocket::SoapSocket;
    ~TracedSocket() override;

    // Takes the descriptor over. Raises std::system_error.
    void traceInto(int descriptor);

    // Ends the trace; false when some of it could not be written.
    bool endTrace();
};
