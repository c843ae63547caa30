#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "foundation/ZULOutputStream.h"

#include "service/ClientSocket.h"

namespace postwire {

// Sends one request of a client: the head waits here for the first bytes of the body, which go with
// a length or in chunks. While it sends it looks whether the server has answered already.
//
// Ownership: socket and watch are borrowed.
// Raises: what the socket raises; Code::usage for a body that is not as long as was said.
class RequestWriter : public ZULOutputStream {
public:
    // Raised by any operation when the server has given its answer before it had all of the
    // request: the rest is not to be sent.
    struct AnsweredEarly {};

    // Without a size in chunks of so many bytes, at most 65536; 0: of 65536.
    RequestWriter(ClientSocket& socket, ExchangeWatch& watch, std::optional<std::uint64_t> size,
                  std::size_t chunkSize);
    ~RequestWriter() override;

    // The head, which says how the body is framed.
    void begin(std::string const& head);

    // Sends the head alone and waits until the server has said "100 Continue", or the time is up.
    void awaitContinue(std::chrono::milliseconds limit);

    // Of the body.
    void write(char const* data, int length) override;

    // The body's end.
    void finish();

    // What came from the server behind its interim answers.
    [[nodiscard]] std::string const& early() const { return m_early; }
    [[nodiscard]] std::uint64_t bodyBytes() const { return m_bodyBytes; }

private:
    void put(char const* data, std::size_t size);
    void putInChunks(char const* data, std::size_t size);
    void endChunk();
    void push(char const* data, std::size_t size);
    void pushHeld();
    bool lookAtInput();
    bool takeInterim();

    ClientSocket& m_socket;
    ExchangeWatch& m_watch;
    std::optional<std::uint64_t> const m_size;
    std::size_t const m_chunkSize;
    std::string const m_sizeLine;  // of a whole chunk
    std::string m_held;            // head, and body bytes that are not worth a send yet
    std::size_t m_chunkBegin = 0;  // of the open chunk's size line, in m_held
    bool m_chunkOpen = false;
    std::uint64_t m_bodyBytes = 0;
    std::string m_early;
    bool m_saidContinue = false;
};

}  // namespace postwire
