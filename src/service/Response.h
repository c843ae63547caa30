#pragma once

#include <cstdint>
#include <string_view>

#include "foundation/Export.h"

#include "sender/HTTPMessageSender.h"
#include "service/OutgoingMessage.h"

namespace postwire {

struct Exchange;

// The answer to one request. A handler that gives none answers 202 with an empty body, as one-way
// messages want it.
//
// Ownership: the server's; it ends with the handler's call. Texts and bytes are not kept beyond a
//   call, or are copied.
// Raises: ServiceError::Code::usage for a second answer, for a status outside 200 to 599, and for
//   a name or text that would break its line; Code::peerGone and Code::timeLimit when the answer
//   can't be sent: a handler may let both pass.
// Rule: used by the thread that runs the handler, also within a catch. The server adds Date,
//   Content-Length and Connection.
class POSTWIRE_EXPORT Response {
public:
    explicit Response(Exchange& exchange) : m_exchange(exchange) {}
    Response(Response const&) = delete;
    Response& operator=(Response const&) = delete;

    // A header line of the answer to come.
    void setHeader(std::string_view name, std::string_view text);

    // The whole answer. Of a large one the call waits until the peer has taken all but what fits
    // into the server's memory for bodies.
    void send(int status, std::string_view type, std::string_view body);

    // The same for an envelope with attachments, without holding its files and streams: with a
    // length, or in chunks where its size is not known before, which HTTP/1.0 gets whole.
    void send(int status, OutgoingMessage const& message);

    // An answer that is written piece by piece; the node is good until the handler returns, which
    // ends the message: its finish is not to be called. With a chunk size above 0 it leaves in
    // chunks while it is written, and each write waits for a peer that is slow; clients of HTTP/1.0
    // and chunk size 0 get it whole, with a length.
    OnePieceHttpMsg& onePiece(int status, std::string_view type, int chunkSize = 0);

    // The same with parts, multipart/related, between lines of a boundary that no one can guess.
    MultipartHttpMsg& multipart(int status, int chunkSize = 0);

    // An answer of a length that is known before. It leaves while it is written, and each write
    // waits for a peer that is slow. With a chunk size above 0 it leaves in chunks, but for clients
    // of HTTP/1.0. The stream is good until the handler returns; a handler that writes less or more
    // has raised ServiceError::Code::usage, which breaks the connection off.
    ZULOutputStream& stream(int status, std::string_view type, std::uint64_t length,
                            int chunkSize = 0);

    // One more part of an answer that multipart has begun; without an id it gets no Content-ID.
    void addPart(std::string_view type, std::string_view id, std::string_view bytes);

private:
    Exchange& m_exchange;
};

}  // namespace postwire
