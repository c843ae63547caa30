#include "service/RequestSource.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <string>

namespace postwire {

InputWait::~InputWait() = default;

bool RequestSource::begin(Connection& connection, InputWait* wait) {
    m_connection = &connection;
    m_wait = wait;
    m_at = m_begin = m_end = 0;
    m_receives = wait != nullptr;
    m_keepsHead = false;
    m_inHead = true;
    m_received = 0;
    m_left = LLONG_MAX;
    return wait || beginWindow();
}

// Receives only where something may have come: a connection with nothing to say costs no memory,
// and one that says a whole request, which is the usual case, no second call.
bool RequestSource::beginWindow() {
    if (!m_window) m_window = std::make_unique<char[]>(kWindow);
    std::string& input = m_connection->input;
    m_end = input.size();
    std::memcpy(m_window.get(), input.data(), m_end);
    if (m_connection->pending && !m_connection->ended) receiveWindow();
    char const* const window = m_window.get();
    while (m_end - m_begin > 1 && window[m_begin] == '\r' && window[m_begin + 1] == '\n')
        m_begin += 2;
    m_at = m_begin;
    if (m_begin == m_end) input.clear();
    return m_begin < m_end;
}

// A receive that leaves room has taken all there was, and of more an event will tell. No event
// will tell of an end that came with the bytes.
void RequestSource::receiveWindow() {
    int got = 1;
    while (m_end < kWindow && got > 0) {
        got = m_connection->receive(m_window.get() + m_end, kWindow - m_end);
        if (got > 0) m_end += static_cast<std::size_t>(got);
        if (!m_connection->hungUp) break;
    }
    m_connection->pending = m_end == kWindow && !m_connection->ended;
}

int RequestSource::read(char* bytes, int n) {
    int const got = give(bytes, static_cast<std::size_t>(n));
    if (got <= 0) return got;
    m_received += got;
    m_left -= got;
    if (m_left < 0) throw TooLarge();
    return got;
}

int RequestSource::give(char* bytes, std::size_t room) {
    std::string& input = m_connection->input;
    char const* const held = m_wait ? input.data() : m_window.get();
    std::size_t const end = m_wait ? input.size() : m_end;
    if (m_at < end) {
        std::size_t const given = std::min(room, end - m_at);
        std::memcpy(bytes, held + m_at, given);
        m_at += given;
        return static_cast<int>(given);
    }
    for (;;) {
        if (m_connection->ended) return -1;
        if (!m_wait || !m_receives) throw NotHere();
        int const got = m_connection->receive(bytes, room);
        if (got < 0) {
            m_wait->wait(*m_connection, m_inHead);
        } else if (got > 0) {
            if (!m_keepsHead || !m_inHead) return got;
            input.append(bytes, static_cast<std::size_t>(got));
            m_at = input.size();
            return got;
        }
    }
}

void RequestSource::endAt(std::string_view unread) {
    std::string& input = m_connection->input;
    if (m_wait) {
        input.replace(0, m_at, unread);
    } else {
        std::size_t const at = m_at - unread.size();
        input.assign(m_window.get() + at, m_end - at);
    }
}

void RequestSource::giveUp() {
    if (!m_wait) m_connection->input.assign(m_window.get() + m_begin, m_end - m_begin);
}

}  // namespace postwire
