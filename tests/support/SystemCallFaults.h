#pragma once

#include <string>

// Makes calls of the system fail by a script, and keeps a log of them: those that our own objects
// make on this thread while the script lives; one script lives at a time.
//
// A script is a list of "call=result" or "call@n=result", for the first or the nth call:
//   "send=EPIPE" fails, "connect=EINTR*10" fails ten times in a row, "recv=3" may take 3 bytes at
//   most, and "poll=0" gives 0; all but recv and send then reach no system.
class SystemCallFaults {
public:
    explicit SystemCallFaults(std::string const& script);
    ~SystemCallFaults();
    SystemCallFaults(SystemCallFaults const&) = delete;
    SystemCallFaults& operator=(SystemCallFaults const&) = delete;

    // "socket fcntl connect*11 setsockopt": the calls so far, repeated ones counted.
    static std::string log();
};
