#include "tools/common/Deadline.h"

#include <algorithm>
#include <cmath>

#include <sys/socket.h>
#include <sys/time.h>

#include "socket/SoapSocket.h"

Deadline::~Deadline() = default;

Deadline::Clock::duration Deadline::seconds(double number) {
    if (std::isnan(number)) throw std::invalid_argument("a time limit is a number of seconds");
    return std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(number));
}

void Deadline::check() const {
    if (Clock::now() >= m_end) throw TimeLimitPassed("the time limit has passed");
}

void limitSends(int descriptor, Deadline::Clock::duration limit) {
    auto const microseconds = std::chrono::duration_cast<std::chrono::microseconds>(limit).count();
    timeval time{};
    time.tv_sec = static_cast<time_t>(microseconds / 1000000);
    time.tv_usec = static_cast<suseconds_t>(microseconds % 1000000);
    ::setsockopt(descriptor, SOL_SOCKET, SO_SNDTIMEO, &time, sizeof time);
}

DeadlineInputStream::DeadlineInputStream(SoapSocket& socket, Deadline const& deadline)
    : ZULFilterInputStream(*socket.getInputStream()), m_socket(socket), m_deadline(deadline) {
    m_socket.setTimeLimitCallback(&checkDeadline, this, static_cast<int>(kCheckInterval.count()));
}

DeadlineInputStream::~DeadlineInputStream() { m_socket.setTimeLimitCallback(nullptr, nullptr, 0); }

int DeadlineInputStream::read(char* bytes, int n) {
    m_deadline.check();
    return beneath().read(bytes, n);
}

void DeadlineInputStream::checkDeadline(void* self) {
    static_cast<DeadlineInputStream*>(self)->m_deadline.check();
}

DeadlineOutputStream::DeadlineOutputStream(ZULOutputStream& out, Deadline const& deadline)
    : m_out(out), m_deadline(deadline) {}

DeadlineOutputStream::~DeadlineOutputStream() = default;

void DeadlineOutputStream::write(char const* data, int length) {
    while (length > 0) {
        m_deadline.check();
        int const piece = std::min(length, kPiece);
        m_bytesWritten += piece;  // before: part of it may be on the wire when write raises
        m_out.write(data, piece);
        data += piece;
        length -= piece;
    }
}

void DeadlineOutputStream::flush() { m_out.flush(); }
