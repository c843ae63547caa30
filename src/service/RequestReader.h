#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "foundation/ZULBufferedInputStream.h"
#include "foundation/ZULInputStream.h"

#include "message/HTTPMessage.h"
#include "parser/HTTPParser.h"
#include "service/Budget.h"
#include "service/Connection.h"
#include "service/Request.h"
#include "service/ServerOptions.h"

namespace postwire {

// What a peer is told instead of an answer.
struct Refusal {
    int status = 0;
    std::string text;
};

// What a reader does where the bytes of a request have not come yet.
class InputWait {
public:
    virtual ~InputWait();

    // Returns when the connection may have input; raises TimeLimitPassed. `inHead` while the head
    // of the request is not complete.
    virtual void wait(Connection& connection, bool inHead) = 0;
};

struct TimeLimitPassed {};

// The bytes of one request: those that the connection holds already, then what it receives.
class RequestSource : public ZULInputStream {
public:
    // Without a wait it gives what has come, at most kWindow bytes, and raises NotHere behind it.
    struct NotHere {};
    static constexpr std::size_t kWindow = 65536;

    // False when there is nothing to read. Line ends in front of the request are dropped: they do
    // not begin one, RFC 9112 section 2.2.
    bool begin(Connection& connection, InputWait* wait);

    using ZULInputStream::read;
    int read(char* bytes, int n) override;

    // The request was read but for the last `unread` bytes that this has given: they and what
    // stands behind them are the connection's again. Or it was not, and all that came without a
    // wait is.
    void endAt(std::size_t unread);
    void giveUp();

    bool inHead = true;

private:
    bool beginWindow();
    void receiveWindow();

    Connection* m_connection = nullptr;
    InputWait* m_wait = nullptr;
    std::unique_ptr<char[]> m_window;
    std::size_t m_begin = 0;  // of the request
    std::size_t m_at = 0;     // in the window, or with a wait in the connection's input
    std::size_t m_end = 0;    // of the window
};

// Reads requests into a tree, with the lines of each head beside it.
class RequestReader : private HTTPMOMMsgHandler {
public:
    enum class Outcome {
        whole,    // the request is here
        notHere,  // not all of it has come: the connection keeps what did
        closed,   // the connection is over, without a request
        refused,  // see refusal()
    };

    RequestReader(ServerOptions const& options, Budget& budget);
    RequestReader(RequestReader const&) = delete;
    RequestReader& operator=(RequestReader const&) = delete;
    ~RequestReader() override;

    // Reads the next request; without a wait only if all of it has come.
    Outcome read(Connection& connection, InputWait* wait);

    // Frees what the request has taken.
    void clear();

    [[nodiscard]] Refusal const& refusal() const { return m_refusal; }
    [[nodiscard]] std::string const& uri() const { return m_uri; }
    [[nodiscard]] int minorVersion() const { return m_parser.getMinorVersion(); }
    [[nodiscard]] bool keepAlive() const { return m_parser.keepAlive(); }
    [[nodiscard]] HTTPMessage& message() { return m_message; }
    [[nodiscard]] int headCount() const { return static_cast<int>(m_heads.size()); }
    [[nodiscard]] std::vector<HeadLine> headLines(int head) const;

private:
    void reset() override;
    void setURI(char const* uri) override;
    void header(char const* name, HTTPHeader* value) override;
    void content(ZULInputStream& is, int length) override;
    void content(ZULInputStream& is) override;
    void startMultiParts(char const* boundary) override;
    void startPart() override;

    static void goOn(void* self);
    Outcome parse();
    Outcome refuse(int status, std::string text);

    Budget& m_budget;
    RequestSource m_source;
    ZULBufferedInputStream m_in;
    HTTPParser m_parser;
    HTTPMessage m_message;
    Refusal m_refusal;
    std::string m_uri;
    std::string m_lines;               // of all heads: names and texts, each with a zero byte
    std::vector<std::size_t> m_heads;  // where in m_lines each begins
    std::size_t m_budgeted = 0;        // for the bodies of the tree
    Connection* m_connection = nullptr;
    bool m_waits = false;
};

}  // namespace postwire
