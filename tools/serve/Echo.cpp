#include "tools/serve/Echo.h"

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <string>
#include <string_view>

#include "foundation/QORByteBuffer.h"

#include "foundation/AsciiText.h"
#include "tools/common/Boundary.h"
#include "tools/common/HeaderFields.h"
#include "tools/serve/RequestReader.h"

namespace {

// Framing is the writer's own; the others speak of this connection or of this request.
bool isEchoed(std::string const& name) {
    static constexpr std::string_view kOwn[] = {"connection", "content-length",
                                                "expect",     "host",
                                                "keep-alive", "te",
                                                "trailer",    "transfer-encoding",
                                                "upgrade",    "proxy-connection"};
    return isToken(name) && std::find(std::begin(kOwn), std::end(kOwn), name) == std::end(kOwn);
}

std::string textOf(HTTPHeader& field) {
    QORByteBuffer dumped(128, 128);
    field.dump(dumped);
    std::string text(dumped.str(), dumped.pcount());
    for (char& c : text)
        if (!isFieldValue({&c, 1})) c = ' ';
    return text;
}

// Whether the field is a value alone, and that fit to be written.
bool isPlain(HTTPHeader& field) {
    std::string_view const value = field.getValue();
    return field.dumpSize() == value.size() && isFieldValue(value);
}

// Walks the tree in the order in which it was read, beside the heads.
class Echo {
public:
    explicit Echo(Request& request) : m_request(request) {}

    void write(WholeOnePiece& node, AnswerFields const& own) {
        start(node, own);
        writeBody(node, m_request.message);
        node.finish();
    }

    void writeMultipart(ZULOutputStream& out, int chunkSize, AnswerFields const& own) {
        std::string const boundary = chooseBoundary(m_request.message);
        WholeMultipart node(out, chunkSize, boundary.c_str());
        start(node, own);
        writeParts(node, m_request.message);
        node.finish();
    }

private:
    // The boundary for the echo, which the head names from now on.
    std::string chooseBoundary(HTTPMessage& message) {
        std::string boundary = message.getBoundary();
        if (!isPlainBoundary(boundary) || boundaryOccurs(boundary, message))
            boundary = makeBoundary();
        HTTPHeader* const type = m_request.heads[m_next].find("content-type");
        if (type) type->setAttribute("boundary", boundary.c_str());
        return boundary;
    }

    template <class Node>
    void start(WholeMessage<Node>& node, AnswerFields const& own) {
        node.startResponse(200, "OK");
        for (EntityHead::Field& field : m_request.heads[m_next++].fields) {
            if (!isEchoed(field.name)) continue;
            if (isPlain(field.value)) {
                node.takeField(field.name.c_str(), field.value);  // most fields: the cheaper way
            } else {
                node.setField(field.name.c_str(), textOf(field.value).c_str());
            }
        }
        own.set(node);
    }

    void writeParts(MultipartHttpMsg& node, HTTPMessage& message) {
        for (int i = 0; i < message.num_parts(); ++i) writePart(node, *message.getPart(i));
    }

    void writePart(MultipartHttpMsg& node, HTTPMessage& message) {
        if (m_request.heads[m_next].multipart) {
            MultipartHttpMsg* const part = node.addMultiPart(0, chooseBoundary(message).c_str());
            setPartHead(*part);
            writeParts(*part, message);
            node.endPart(part);
        } else {
            OnePieceHttpMsg* const part = node.addOnePiece(0);
            setPartHead(*part);
            writeBody(*part, message);
            node.endPart(part);
        }
    }

    void setPartHead(HttpMsgNode& node) {
        node.reset();  // drops the machine's Host
        for (EntityHead::Field& field : m_request.heads[m_next++].fields)
            if (isEchoed(field.name))
                node.setHeader(field.name.c_str(), textOf(field.value).c_str());
    }

    static void writeBody(OnePieceHttpMsg& node, HTTPMessage& message) {
        if (message.contentSize() > 0) node.write(message.contentBytes(), message.contentSize());
    }

    Request& m_request;
    std::size_t m_next = 0;  // of m_request.heads
};

}  // namespace

void writeEcho(WholeOnePiece& node, Request& request, AnswerFields const& own) {
    Echo(request).write(node, own);
}

void writeMultipartEcho(ZULOutputStream& out, int chunkSize, Request& request,
                        AnswerFields const& own) {
    Echo(request).writeMultipart(out, chunkSize, own);
}
