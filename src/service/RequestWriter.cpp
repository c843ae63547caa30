#include "service/RequestWriter.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <string_view>

namespace postwire {

namespace {

constexpr std::size_t kHeld = 65536;
constexpr std::size_t kMostInterim = 65536;  // of interim answers at a time

// Of a chunk of so many bytes.
std::string sizeLine(std::size_t size) {
    std::array<char, 24> line{};
    std::snprintf(line.data(), line.size(), "%zx\r\n", size);
    return line.data();
}

}  // namespace

RequestWriter::RequestWriter(ClientSocket& socket, ExchangeWatch& watch,
                             std::optional<std::uint64_t> size, std::size_t chunkSize)
    : m_socket(socket),
      m_watch(watch),
      m_size(size),
      m_chunkSize(chunkSize > 0 ? std::min(chunkSize, kHeld) : kHeld),
      m_sizeLine(sizeLine(m_chunkSize)) {}

RequestWriter::~RequestWriter() = default;

void RequestWriter::begin(std::string const& head) { m_held = head; }

void RequestWriter::awaitContinue(std::chrono::milliseconds limit) {
    pushHeld();
    m_socket.flush();
    auto const until = ExchangeWatch::Clock::now() + limit;
    for (;;) {
        if (lookAtInput()) throw AnsweredEarly();
        if (m_saidContinue) return;
        pollfd socket{m_socket.descriptor(), POLLIN, 0};
        if (!m_watch.await(&socket, 1, until)) return;
    }
}

void RequestWriter::write(char const* data, int length) {
    if (length <= 0) return;
    auto const size = static_cast<std::size_t>(length);
    m_bodyBytes += size;
    if (m_size && m_bodyBytes > *m_size)
        m_watch.raise(ClientError::Code::usage, "the body is longer than was said");
    m_size ? put(data, size) : putInChunks(data, size);
    m_watch.tell(m_bodyBytes, false);
}

// A large piece of a body with a length is sent from where it stands.
void RequestWriter::put(char const* data, std::size_t size) {
    if (m_held.size() + size > kHeld) {
        pushHeld();
        if (size >= kHeld) return push(data, size);
    }
    m_held.append(data, size);
}

void RequestWriter::putInChunks(char const* data, std::size_t size) {
    while (size > 0) {
        if (!m_chunkOpen) {
            m_chunkBegin = m_held.size();
            m_chunkOpen = true;
            m_held += m_sizeLine;
        }
        std::size_t const room = m_chunkBegin + m_sizeLine.size() + m_chunkSize - m_held.size();
        std::size_t const piece = std::min(size, room);
        m_held.append(data, piece);
        data += piece;
        size -= piece;
        if (piece < room) return;
        endChunk();
        if (m_held.size() >= kHeld) pushHeld();
    }
}

// The last one may be shorter than its line says.
void RequestWriter::endChunk() {
    if (!m_chunkOpen) return;
    m_chunkOpen = false;
    std::size_t const size = m_held.size() - m_chunkBegin - m_sizeLine.size();
    if (size < m_chunkSize) m_held.replace(m_chunkBegin, m_sizeLine.size(), sizeLine(size));
    m_held += "\r\n";
}

void RequestWriter::finish() {
    if (m_size && m_bodyBytes != *m_size)
        m_watch.raise(ClientError::Code::usage, "the body is shorter than was said");
    endChunk();
    if (!m_size) m_held += "0\r\n\r\n";
    pushHeld();
    m_socket.flush();
    m_watch.sentAll();
    m_watch.tell(m_bodyBytes, true);
}

void RequestWriter::pushHeld() {
    push(m_held.data(), m_held.size());
    m_held.clear();
}

// A server that refuses a message answers, and may then close: the answer is worth more than the
// error, if it is here.
void RequestWriter::push(char const* data, std::size_t size) {
    while (size > 0) {
        std::size_t taken = 0;
        try {
            taken = m_socket.trySend(data, size);
        } catch (ClientError const&) {
            bool isAnswered = false;
            try {
                isAnswered = lookAtInput();
            } catch (ClientError const&) {
                // What stopped the sending is told.
            }
            if (!isAnswered) throw;
            throw AnsweredEarly();
        }
        data += taken;
        size -= taken;
        if (m_bodyBytes > kHeld || taken == 0)
            if (lookAtInput()) throw AnsweredEarly();
        if (taken == 0) m_socket.awaitRoom();
    }
}

// Whether the answer has begun.
bool RequestWriter::lookAtInput() {
    std::array<char, 4096> block;
    for (;;) {
        int const n = m_socket.tryRead(block.data(), block.size());
        if (n == -1) return false;
        if (n == 0 && m_early.empty())
            m_watch.raise(m_watch.codeOfFailure(),
                          "the server closed the connection while the message was sent");
        m_early.append(block.data(), static_cast<std::size_t>(n));
        while (takeInterim()) m_saidContinue = true;
        constexpr std::size_t kStatus = sizeof "HTTP/1.1 " - 1;
        if (m_early.size() > kStatus && m_early[kStatus] != '1') return true;
        if (n == 0) return true;
        if (m_early.size() > kMostInterim) return true;  // for the reader to refuse
    }
}

// Drops one whole head of an interim answer, RFC 9110 section 15.2.
bool RequestWriter::takeInterim() {
    constexpr std::string_view kEnd = "\r\n\r\n";
    if (m_early.compare(0, 7, "HTTP/1.") != 0 || m_early.compare(8, 2, " 1") != 0) return false;
    std::size_t const end = m_early.find(kEnd);
    if (end == std::string::npos) return false;
    m_early.erase(0, end + kEnd.size());
    return true;
}

}  // namespace postwire
