#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "foundation/ZULBufferedInputStream.h"

#include "message/HTTPMessage.h"
#include "service/Budget.h"
#include "service/Connection.h"
#include "service/IncomingMessage.h"
#include "service/Request.h"
#include "service/RequestSource.h"
#include "service/ServerOptions.h"

namespace postwire {

// Whether a peer has moved fewer bytes than it has to in the time since a beginning.
bool isTooSlow(ServerOptions const& options, Clock::duration since, long long bytes);

// What a peer is told instead of an answer.
struct Refusal {
    int status = 0;
    std::string text;
    long code = 0;  // of the HTTPException, if it was one
};

// Reads requests into a tree, or to the handler that the program chose for the body.
class RequestReader : private IncomingMessage {
public:
    enum class Outcome {
        whole,     // the request is here
        notHere,   // not all of it has come: the connection keeps what did
        headHere,  // the program has to be asked how the body is read, or its handler waits for it
        closed,    // the connection is over, without a request
        refused,   // see refusal()
        failed,    // the program's part in reading it raised
        answered,  // given by no reader: nothing is left to do for it
    };

    RequestReader(ServerOptions const& options, Budget& budget);
    RequestReader(RequestReader const&) = delete;
    RequestReader& operator=(RequestReader const&) = delete;
    ~RequestReader() override;

    // The program says how a body is read.
    using Choose = std::function<BodyChoice()>;

    // Reads the next request, from its first byte; without a wait only if all of it has come. Where
    // the program has to be asked how the body is read, a wait is for one that goes to a handler
    // alone: that is not read without. What the program's code raises passes through.
    Outcome read(Connection& connection, InputWait* wait, Choose const& choose);

    // Frees what the request has taken.
    void clear();

    [[nodiscard]] long long received() const { return m_source.received(); }
    // When the head was complete; only where exchanges are observed.
    [[nodiscard]] Clock::time_point headEnd() const { return m_headEnd; }
    [[nodiscard]] Refusal const& refusal() const { return m_refusal; }
    [[nodiscard]] std::string const& uri() const { return m_uri; }
    [[nodiscard]] int minorVersion() const { return m_parser.getMinorVersion(); }
    [[nodiscard]] bool keepAlive() const { return m_parser.keepAlive(); }
    [[nodiscard]] HTTPMessage& message() { return m_message; }
    [[nodiscard]] int headCount() const { return m_heads.count(); }
    [[nodiscard]] std::vector<HeadLine> headLines(int head) const { return m_heads.lines(head); }

private:
    void reset() override;
    void setURI(char const* uri) override;
    void header(char const* name, HTTPHeader* value) override;
    void content(ZULInputStream& is, int length) override;
    void content(ZULInputStream& is) override;
    void startMultiParts(char const* boundary) override;
    void startPart() override;

    Outcome parse();
    Outcome refuse(int status, std::string text, long code = 0);
    void takeMemory(std::size_t bytes);
    void beginBody(long long length);
    [[nodiscard]] bool isChunked() const;
    void contentWithoutEnd(ZULInputStream& is);
    void endHead();
    void choose();
    void tellHead(HTTPMsgHandler& handler);
    static void wantGoOn(void* self);
    void sayGoOn();

    ServerOptions const& m_options;
    Budget& m_budget;
    RequestSource m_source;
    ZULBufferedInputStream m_in;
    HTTPParser m_parser;
    HTTPMessage m_message;
    Refusal m_refusal;
    std::string m_uri;
    KeptHeads m_lines;
    std::size_t m_budgeted = 0;  // for the bodies of the tree
    Connection* m_connection = nullptr;
    bool m_waits = false;
    Choose const* m_choose = nullptr;
    bool m_goOnWanted = false;
    long long m_bodyLeft = 0;
    Clock::time_point m_headEnd{};
};

}  // namespace postwire
