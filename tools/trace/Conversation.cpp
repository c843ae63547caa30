#include "tools/trace/Conversation.h"

#include <algorithm>

#include "foundation/AsciiText.h"
#include "parser/HTTPPolicyException.h"
#include "parser/HTTPReadPolicy.h"

namespace {

// What a line, a head and a head of a part may hold: a trace is larger than memory.
constexpr int kMaxLine = 1 << 18, kMaxHead = 1 << 20;

struct Head {
    std::string_view text;
    std::size_t size;  // with the empty lines around it
    bool whole;
};

// As the parser sees it: from the first line that is not empty to the next that is, white space
// aside.
Head headOf(std::string_view bytes) {
    std::size_t begin = bytes.npos;
    for (std::size_t at = 0, end = 0; at < bytes.size(); at = end) {
        std::size_t const line = bytes.find('\n', at);
        if (line == bytes.npos) break;
        end = line + 1;
        bool const empty = withoutSpaces(bytes.substr(at, end - at)).empty();
        if (empty && begin != bytes.npos) return {bytes.substr(begin, at - begin), end, true};
        if (!empty) begin = std::min(begin, at);
    }
    std::size_t const size = bytes.size();
    while (begin == bytes.npos && !bytes.empty() && isAsciiSpace(bytes.front()))
        bytes.remove_prefix(1);
    return {bytes.substr(begin == bytes.npos ? 0 : begin), size, false};
}

// RFC 9110 sections 15.2, 15.3.5 and 15.4.5: 1xx, 204 and 304 end with their head.
bool endsWithHead(std::string_view head) {
    std::string_view const code = head.substr(std::min<std::size_t>(9, head.size()), 3);
    return code.substr(0, 1) == "1" || code == "204" || code == "304";
}

std::string_view peek(ZULBufferedInputStream& stream) {
    int n = 0;
    char const* const bytes = stream.peek(n);
    return {bytes, static_cast<std::size_t>(n)};
}

bool begins(Direction& direction, std::string_view text) {
    std::string_view const bytes = peek(direction.stream()).substr(0, text.size());
    return !bytes.empty() && bytes == text.substr(0, bytes.size());
}

}  // namespace

Conversation::Conversation(TraceFile& file, Role role, Keeping keeping)
    : m_file(file),
      m_role(role),
      m_keeping(std::move(keeping)),
      m_received(file, true),
      m_sent(file, false) {
    m_parser.setMsgHandler(&m_collector);
    // As the programs read that write traces, but for strict framing: what they refused is shown.
    HTTPReadPolicy policy;
    policy.boundMessage = policy.partsEndAtBoundary = true;
    policy.maxLine = kMaxLine;
    policy.maxHead = policy.maxPartHead = kMaxHead;
    m_parser.setReadPolicy(policy);
}

bool Conversation::next(TracedMessage& message) {
    Direction* direction = nextDirection();
    while (direction && drop(*direction)) direction = nextDirection();
    if (!direction) return false;
    message.read = direction == &m_received;
    message.request = message.read == isServer();
    message.number = ++m_messages;
    message.head.clear();
    message.error.clear();
    message.body = {};
    direction->begin();
    readMessage(*direction, message);
    message.span = direction->end();
    m_before[message.read] = message.number;
    return true;
}

bool Conversation::isServer() {
    if (!m_server)
        m_server = m_role == Role::Server || (m_role == Role::Guess && guess(nextDirection()));
    return *m_server;
}

// The direction whose next byte stands first, or null at the end of both.
Direction* Conversation::nextDirection() {
    for (;;) {
        std::uint64_t const received = m_received.record(), sent = m_sent.record();
        bool const equal = received == sent && !m_received.hasByte();
        Direction& first = received < sent || equal ? m_received : m_sent;
        if (first.hasByte()) return &first;
        if (first.record() == Direction::kNoRecord) return nullptr;
        first.step();
    }
}

// By the side that began, as the other may be long in coming; else by that one.
bool Conversation::guess(Direction const* first) {
    if (!first) return false;
    if (first == &m_sent)
        return begins(m_sent, "HTTP/") || (!begins(m_sent, "POST") && begins(m_received, "POST"));
    return begins(m_received, "POST") || (!begins(m_received, "HTTP/") && begins(m_sent, "HTTP/"));
}

void Conversation::readHead(Direction& direction, TracedMessage& message) {
    ZULBufferedInputStream& stream = direction.stream();
    Head const head = headOf(peek(stream));
    message.head = head.text;
    if (head.whole) return;
    std::string ahead;
    while (ahead.size() < 2 * kMaxHead && !headOf(ahead).whole) {
        std::string_view const bytes = peek(stream);
        if (bytes.empty()) break;
        ahead += bytes;
        stream.skip(static_cast<int>(bytes.size()));
    }
    message.head = headOf(ahead).text;
    stream.unread(ahead.data(), static_cast<int>(ahead.size()));
}

void Conversation::readMessage(Direction& direction, TracedMessage& message) {
    ZULBufferedInputStream& stream = direction.stream();
    m_collector.collectInto(message.body);
    try {
        readHead(direction, message);
        if (!message.request && endsWithHead(message.head)) {
            stream.skip(static_cast<int>(headOf(peek(stream)).size));
            return;
        }
        message.request ? m_parser.parseRequest(&stream) : m_parser.parseResponse(&stream);
    } catch (QORException& e) {
        message.error = why(e, direction);
        m_collector.current().broken = true;
        m_broken[message.read] = true;
        // Of a trace that grows the rest may be long in coming.
        if (!m_file.isFollowed()) drop(direction);
    }
}

// Leaves out what is there of a direction that can't be read, and of a last record that is cut
// behind its line; whether there is no message.
bool Conversation::drop(Direction& direction) {
    if (!m_broken[&direction == &m_received]) return peek(direction.stream()).empty();
    ZULBufferedInputStream& stream = direction.stream();
    do stream.skip(stream.buffered());
    while (!m_file.isFollowed() && !peek(stream).empty());
    return true;
}

// What is wrong in the words of the exchange, then in the library's.
std::string Conversation::why(QORException& error, Direction& direction) {
    long const code = error.getCode();
    std::uint64_t const before = m_before[&direction == &m_received];
    TracedPart const& part = m_collector.current();
    std::string text;
    for (std::size_t const number : m_collector.place())
        text += (text.empty() ? "part " : ".") + std::to_string(number);
    if (!text.empty()) text += ": ";
    bool const ended = code == HTTPException::HTTP_ERR_END_OF_STREAM ||
                       code == HTTPPolicyException::HTTP_ERR_BODY_CUT;
    std::string const came = std::to_string(part.size) + " bytes";
    std::string const declared = "the length says " + std::to_string(part.declared) + " bytes, ";
    if (!m_collector.startLineRead() && before > 0 && !ended) {
        text = "bytes behind the end of message " + std::to_string(before) + " begin no message";
    } else if (code == HTTPPolicyException::HTTP_ERR_NO_DELIMITER &&
               part.declared > static_cast<std::int64_t>(part.size)) {
        text += declared + "and the delimiter stands behind " + came;
    } else if (code == HTTPPolicyException::HTTP_ERR_NO_DELIMITER) {
        text += "the delimiter is missing behind the " + came + " of the body";
    } else if (code == HTTPPolicyException::HTTP_ERR_BODY_OVERRUN) {
        text += declared + "more than the body around it has left";
    } else if (ended && m_collector.inBody() && part.declared >= 0) {
        text += declared + "of which " + came + " came before the end";
    } else if (ended && m_collector.inBody()) {
        text += "the end came before that of the body, behind " + came;
    } else if (ended) {
        text += "the end came in the middle of the message";
    } else {
        text += "this can't be read";
    }
    char const* const said = error.getMessage();
    return text + " (" + error.getThrowableName() + ": " + (said ? said : "no text") + ")";
}
