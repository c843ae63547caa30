#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "foundation/ZULChunkedOutputStream.h"
#include "foundation/ZULOutputStream.h"

#include "sender/HTTPMessageSender.h"
#include "service/Budget.h"
#include "service/Connection.h"
#include "service/OutgoingMessage.h"
#include "service/RequestReader.h"

namespace postwire {

// Writes one answer to a connection: what a handler gives it waits here until it is worth a send,
// and what the peer does not take at once is left to the connection's loop.
//
// Raises: ServiceError::Code::peerGone and Code::timeLimit.
class AnswerWriter : public ZULOutputStream {
public:
    // Above this many bytes an answer begins to leave while it is written.
    static constexpr std::size_t kHeld = 65536;

    AnswerWriter(ServerOptions const& options, Budget& budget)
        : m_options(options), m_budget(budget) {}
    ~AnswerWriter() override;

    void begin(Connection& connection, int minorVersion);

    // Stages a line of the head.
    void setHeader(std::string_view name, std::string_view text);

    // The whole answer; an empty type is left out.
    void send(int status, std::string_view type, std::string_view body);

    // As Response says.
    void send(int status, OutgoingMessage const& message);

    // As Response says.
    OnePieceHttpMsg& onePiece(int status, std::string_view type, int chunkSize);
    MultipartHttpMsg& multipart(int status, int chunkSize);
    ZULOutputStream& stream(int status, std::string_view type, std::uint64_t length, int chunkSize);
    void addPart(std::string_view type, std::string_view id, std::string_view bytes);

    // The same as send for a request that was refused; it drops what was written but has not left.
    void refuse(int status, std::string_view text);

    // Bytes of the message.
    void write(char const* data, int length) override;

    // Ends the message; where none was begun it is 202.
    void complete();

    // Sends what the peer takes now; the rest becomes the connection's.
    void leave();

    [[nodiscard]] int status() const { return m_status; }

    // Whether a part of the answer has left, so that no other can be given.
    [[nodiscard]] bool hasLeft() const { return m_left; }

private:
    void begin(int status, std::string_view type);
    void writeHead(int status, std::string_view type, std::optional<std::uint64_t> length);
    void startNode(HttpMsgNode& node, int status);
    void nameRootType(std::string_view type);
    int chunkSizeFor(int asked) const;
    char const* date();
    void put(char const* data, std::size_t size);
    void push(char const* data, std::size_t size);
    void awaitPeer();

    ServerOptions const& m_options;
    Budget& m_budget;
    Connection* m_connection = nullptr;
    std::string m_fields;  // staged lines
    std::string m_held;    // from m_sent on still to be sent
    std::size_t m_sent = 0;
    std::unique_ptr<OnePieceHttpMsg> m_onePiece;  // what the message is written with, if anything
    std::unique_ptr<MultipartHttpMsg> m_multipart;
    std::string m_relatedType;  // of it, until its first part has a type to tell
    std::unique_ptr<ZULChunkedOutputStream> m_chunks;
    std::optional<std::uint64_t> m_toCome;  // of a stream's length
    int m_minorVersion = 1;
    int m_status = 0;
    bool m_given = false;
    bool m_left = false;
    std::time_t m_dateTime = -1;
    char m_date[32] = "";  // of m_dateTime
};

}  // namespace postwire
