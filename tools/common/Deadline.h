#pragma once

#include <chrono>
#include <stdexcept>

#include "foundation/ZULInputStream.h"
#include "foundation/ZULOutputStream.h"

class SoapSocket;

// Raised by Deadline::check.
struct TimeLimitPassed : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// The moment at which something has to be over. A limit for each single read can be stretched for
// ever by a peer that sends a byte now and then; a moment can't.
class Deadline {
public:
    using Clock = std::chrono::steady_clock;

    // A limit that a person gives. Raises std::invalid_argument for "nan", which is outside no
    // range.
    static Clock::duration seconds(double number);

    Deadline() = default;
    Deadline(Deadline const&) = delete;
    Deadline& operator=(Deadline const&) = delete;
    virtual ~Deadline();

    // From now on; before the first call there is no limit.
    void start(Clock::duration limit) { m_end = Clock::now() + limit; }

    // Raises TimeLimitPassed when the moment has come.
    virtual void check() const;

protected:
    Clock::time_point end() const { return m_end; }

private:
    Clock::time_point m_end = Clock::time_point::max();
};

// How long one send on the socket may wait for a peer that does not read.
void limitSends(int descriptor, Deadline::Clock::duration limit);

// Reads from a socket as long as the deadline allows: it is checked before every read, and every
// kCheckInterval while a read waits.
//
// Ownership: socket and deadline are borrowed; the socket's time-limit callback is this stream's.
class DeadlineInputStream : public ZULFilterInputStream {
public:
    static constexpr std::chrono::milliseconds kCheckInterval{100};

    DeadlineInputStream(SoapSocket& socket, Deadline const& deadline);
    DeadlineInputStream(DeadlineInputStream const&) = delete;
    ~DeadlineInputStream() override;

    using ZULFilterInputStream::read;
    int read(char* bytes, int n) override;

private:
    static void checkDeadline(void* self);

    SoapSocket& m_socket;
    Deadline const& m_deadline;
};

// Writes to another stream as long as the deadline allows: it is checked before every piece of at
// most kPiece bytes. How long a single piece may wait is for the socket's own limit to say.
class DeadlineOutputStream : public ZULOutputStream {
public:
    static constexpr int kPiece = 262144;

    DeadlineOutputStream(ZULOutputStream& out, Deadline const& deadline);
    ~DeadlineOutputStream() override;

    void write(char const* data, int length) override;
    void flush() override;

    // What has been given to the stream beneath so far.
    long long bytesWritten() const { return m_bytesWritten; }

private:
    ZULOutputStream& m_out;
    Deadline const& m_deadline;
    long long m_bytesWritten = 0;
};
