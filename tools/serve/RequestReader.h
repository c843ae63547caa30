#pragma once

#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "foundation/QORByteBuffer.h"
#include "foundation/ZULBufferedInputStream.h"

#include "message/HTTPMessage.h"
#include "parser/HTTPParser.h"
#include "tools/serve/LimitedInputStream.h"

class ZULOutputStream;

// The head of a message or a part, with what an HTTPMessage does not tell.
struct EntityHead {
    struct Field {
        std::string name;  // in lower case
        HTTPHeader value;
    };

    // The field of that name, or null.
    HTTPHeader* find(std::string_view name);

    // In the order in which they came; of fields with one name the last value. Empty unless the
    // reader keeps them.
    std::vector<Field> fields;
    bool multipart = false;
};

// One request, and what a server needs to know for its answer.
struct Request {
    std::string uri;
    HTTPMessage message;
    std::vector<EntityHead> heads;  // of the message, then of its parts in the order of the input
    int minorVersion = 1;           // HTTP/1.0 or HTTP/1.1
    bool keepAlive = true;          // whether another may follow, RFC 9112 section 9.3
};

// A request that can be read but will not be answered as asked; `status` says why.
struct RequestRefused : std::runtime_error {
    RequestRefused(int refusedWith, std::string const& text)
        : std::runtime_error(text), status(refusedWith) {}

    int status;
};

// Reads the requests of one connection, one after the other, each into a message tree.
//
// It parses from a buffered stream of its own, because it must see what a tree does not hold: the
// moment at which a body begins, all header fields in their order.
//
// Ownership: the streams are borrowed.
// Raises: what HTTPParser raises; RequestRefused and SizeLimitPassed for requests beyond the limits
//   or without the framing that a request needs. The connection can't be read any further then.
// Rule: a request with neither Content-Length nor Transfer-Encoding has no body, RFC 9112 section
//   6.3: the client waits for its answer, not we for the end of the connection.
class RequestReader : private HTTPMOMMsgHandler {
public:
    // `out` gets the interim answer that a client may wait for before it sends a body. The fields
    // of heads are kept where they are asked for: it costs as much as reading them. Hardened, it
    // reads by HTTPReadPolicy::hardened(), with this limit for bodies.
    RequestReader(ZULInputStream& in, ZULOutputStream& out, int maxBody, bool keepFields,
                  bool hardened);
    ~RequestReader() override;

    // Waits for the first byte of a request, empty lines before it passed over; false when the
    // client has closed instead.
    bool waitForRequest();

    // Empties the request, then fills it.
    void read(Request& request);

private:
    void reset() override;
    void setURI(char const* uri) override;
    void header(char const* name, HTTPHeader* value) override;
    void content(ZULInputStream& is, int length) override;
    void content(ZULInputStream& is) override;
    void startMultiParts(char const* boundary) override;
    void startPart() override;

    static void sendContinue(void* self);
    void countField(char const* name);
    void recordFraming(std::string_view name);
    void keepField(char const* name, HTTPHeader const& value);

    LimitedInputStream m_limited;
    ZULBufferedInputStream m_in;
    ZULOutputStream& m_out;
    HTTPParser m_parser;
    Request* m_request = nullptr;
    // Of the message's own head, without a policy.
    bool m_declaresLength = false;
    bool m_declaresCoding = false;
    std::vector<std::string> m_names;  // of the fields of the message, or of the part being read
    std::size_t m_nameCount = 0;       // how many of them; those behind are kept for their memory
    bool m_keepFields;
    bool m_hardened;
    int m_maxBody;
    int m_bodyLeft = 0;  // of m_maxBody, for the bodies still to come
};
