#include "tools/serve/Echo.h"

#include <algorithm>
#include <cstdint>
#include <functional>
#include <iterator>
#include <string>
#include <string_view>
#include <vector>

#include "foundation/ZULOutputStream.h"

#include "foundation/AsciiText.h"
#include "tools/common/Boundary.h"

namespace {

using postwire::HeadLine;
using postwire::Request;
using postwire::Response;

// Framing is the writer's own; the others speak of this connection or of this request.
bool isEchoed(HeadLine const& line) {
    static constexpr std::string_view kOwn[] = {
        "connection", "content-length",    "date",    "expect",          "host", "keep-alive", "te",
        "trailer",    "transfer-encoding", "upgrade", "proxy-connection"};
    return isToken(line.name) &&
           std::none_of(std::begin(kOwn), std::end(kOwn),
                        [&](std::string_view own) { return equalsInAnyCase(line.name, own); });
}

// The text of a Content-Type with another boundary.
std::string withBoundary(std::string_view text, std::string const& boundary) {
    std::string changed;
    for (std::string_view rest = text; !rest.empty();) {
        std::string_view const segment = rest.substr(0, rest.find(';'));
        rest.remove_prefix(std::min(rest.size(), segment.size() + 1));
        std::string_view const name = withoutBlanks(segment.substr(0, segment.find('=')));
        if (!equalsInAnyCase(name, "boundary")) changed.append(segment).append(";");
    }
    return changed.append(" boundary=").append(boundary);
}

bool isMultipart(HTTPMessage& message) {
    return message.num_parts() > 0 || !message.contentBytes();
}

// Walks the tree in the order in which it was read, beside the heads: once to learn how long the
// answer is, and once to write it.
class Echo {
public:
    explicit Echo(Request& request) : m_request(request) { chooseBoundaries(request.message()); }

    void send(Response& response, int chunkSize) {
        for (HeadLine const& line : m_request.headLines())
            if (isEchoed(line)) response.setHeader(line.name, textOf(line, 0));
        std::uint64_t length = 0;
        m_write = [&length](std::string_view bytes) { length += bytes.size(); };
        writeBody();
        ZULOutputStream& out = response.stream(200, {}, length, chunkSize);
        m_write = [&out](std::string_view bytes) {
            constexpr std::size_t kPiece = 1 << 20;
            for (; !bytes.empty(); bytes.remove_prefix(std::min(kPiece, bytes.size())))
                out.write(bytes.data(), static_cast<int>(std::min(kPiece, bytes.size())));
        };
        writeBody();
    }

private:
    // For each head, in the order of the heads; empty where it stays what it was.
    void chooseBoundaries(HTTPMessage& message) {
        std::string boundary = isMultipart(message) ? message.getBoundary() : "";
        bool const occurs = !boundary.empty() && boundaryOccurs(boundary, message);
        m_newBoundaries.push_back(occurs ? makeBoundary() : "");
        for (int i = 0; i < message.num_parts(); ++i) chooseBoundaries(*message.getPart(i));
    }

    std::string textOf(HeadLine const& line, std::size_t head) const {
        std::string const& boundary = m_newBoundaries[head];
        bool const changes = !boundary.empty() && equalsInAnyCase(line.name, "content-type");
        std::string text = changes ? withBoundary(line.text, boundary) : std::string(line.text);
        std::replace_if(text.begin(), text.end(), isControlCharacter, ' ');
        return text;
    }

    void writeBody() {
        m_head = 0;
        write(m_request.message());
    }

    void write(HTTPMessage& message) {
        std::string const& chosen = m_newBoundaries[m_head];
        if (!isMultipart(message)) {
            if (message.contentSize() > 0)
                m_write({message.contentBytes(), static_cast<std::size_t>(message.contentSize())});
            return;
        }
        std::string const delimiter = "\r\n--" + (chosen.empty() ? message.getBoundary() : chosen);
        for (int i = 0; i < message.num_parts(); ++i) {
            ++m_head;
            m_write(delimiter);
            writeHead(*message.getPart(i));
            write(*message.getPart(i));
        }
        m_write(delimiter);
        m_write("--\r\n");
    }

    void writeHead(HTTPMessage& part) {
        std::string text = "\r\n";
        for (HeadLine const& line : m_request.headLines(static_cast<int>(m_head)))
            if (isEchoed(line))
                text.append(line.name).append(": ").append(textOf(line, m_head)).append("\r\n");
        if (!isMultipart(part))
            text.append("content-length: ")
                .append(std::to_string(part.contentSize()))
                .append("\r\n");
        m_write(text.append("\r\n"));
    }

    Request& m_request;
    std::vector<std::string> m_newBoundaries;
    std::size_t m_head = 0;
    std::function<void(std::string_view)> m_write;
};

}  // namespace

void sendEcho(Request& request, Response& response, int chunkSize) {
    Echo(request).send(response, chunkSize);
}
