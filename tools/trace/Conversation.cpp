#include "tools/trace/Conversation.h"

#include <algorithm>

#include "foundation/QORThrowable.h"
#include "foundation/ZULBufferedInputStream.h"
#include "foundation/ZULInputStream.h"

#include "foundation/AsciiText.h"
#include "parser/HTTPParser.h"
#include "parser/HTTPReadPolicy.h"

namespace {

constexpr int kReadAhead = 4096;

// Counts what is taken from it, so that the end of a message can be told. Its size is no int, as
// that of a ZULMemoryInputStream is: a connection may carry any number of messages.
class CountedStream : public ZULInputStream {
public:
    explicit CountedStream(std::string_view bytes) : m_bytes(bytes) {}

    using ZULInputStream::read;
    int read(char* bytes, int n) override {
        if (m_taken == m_bytes.size()) return -1;
        std::size_t const got = m_bytes.copy(bytes, static_cast<std::size_t>(n), m_taken);
        m_taken += got;
        return static_cast<int>(got);
    }
    std::size_t taken() const { return m_taken; }

private:
    std::string_view m_bytes;
    std::size_t m_taken = 0;
};

struct Head {
    std::string_view text;
    std::size_t size;  // with the empty lines around it
};

// As the parser sees it: from the first line that is not empty to the next that is, white space
// aside.
Head headOf(std::string_view bytes) {
    std::size_t begin = bytes.npos;
    for (std::size_t at = 0; at < bytes.size();) {
        std::size_t const end = std::min(bytes.find('\n', at), bytes.size() - 1) + 1;
        bool const empty = withoutSpaces(bytes.substr(at, end - at)).empty();
        if (empty && begin != bytes.npos) return {bytes.substr(begin, at - begin), end};
        if (!empty) begin = std::min(begin, at);
        at = end;
    }
    return {bytes.substr(std::min(begin, bytes.size())), bytes.size()};
}

// RFC 9110 sections 15.2, 15.3.5 and 15.4.5: 1xx, 204 and 304 end with their head.
bool endsWithHead(std::string_view head) {
    std::string_view const code = head.substr(std::min<std::size_t>(9, head.size()), 3);
    return code.substr(0, 1) == "1" || code == "204" || code == "304";
}

}  // namespace

Conversation::Conversation(TraceFile const& trace, Role role) {
    std::size_t index = 0;
    for (TraceBlock const& block : trace.blocks()) {
        Direction& direction = block.read ? m_received : m_sent;
        direction.starts.push_back(direction.bytes.size());
        direction.blocks.push_back(index++);
        direction.bytes += block.bytes;
    }
    m_server = role == Role::Server ||
               (role == Role::Guess && m_sent.bytes.rfind("HTTP/", 0) == 0) ||
               (role == Role::Guess && m_received.bytes.rfind("POST", 0) == 0);
    readMessages(m_received, true);
    readMessages(m_sent, false);
    std::stable_sort(m_messages.begin(), m_messages.end(),
                     [](auto const& a, auto const& b) { return a.firstBlock < b.firstBlock; });
}

void Conversation::readMessages(Direction const& direction, bool read) {
    for (std::size_t at = 0; at < direction.bytes.size();) {
        TracedMessage message = readMessage(direction, at, read == m_server);
        message.read = read;
        locate(direction, at, message);
        at += message.bytes.size();
        m_messages.push_back(std::move(message));
    }
}

// A message that can't be read takes the rest of its direction: where the next one begins is not
// known any more.
TracedMessage Conversation::readMessage(Direction const& direction, std::size_t begin,
                                        bool request) const {
    std::string_view const rest = std::string_view(direction.bytes).substr(begin);
    Head const head = headOf(rest);
    TracedMessage message{request, false, rest, head.text, 0, 0, nullptr, {}};
    if (!request && endsWithHead(head.text)) {
        message.bytes = rest.substr(0, head.size);
        return message;
    }
    message.tree = std::make_unique<HTTPMessage>();
    CountedStream counted(rest);
    ZULBufferedInputStream stream(counted, kReadAhead);
    HTTPMOMMsgHandler builder;
    builder.setMessage(message.tree.get());
    HTTPParser parser;
    parser.setMsgHandler(&builder);
    // As the programs read that write traces, but for strict framing: what they refused is shown.
    HTTPReadPolicy policy;
    policy.boundMessage = policy.partsEndAtBoundary = true;
    parser.setReadPolicy(policy);
    try {
        request ? parser.parseRequest(&stream) : parser.parseResponse(&stream);
        int ahead = 0;
        stream.peek(ahead);
        message.bytes = rest.substr(0, counted.taken() - static_cast<std::size_t>(ahead));
    } catch (QORException& e) {
        char const* const text = e.getMessage();
        message.error = std::string(e.getThrowableName()) + ": " + (text ? text : "no text");
    }
    return message;
}

void Conversation::locate(Direction const& direction, std::size_t begin, TracedMessage& message) {
    auto const blockOf = [&direction](std::size_t at) {
        auto const next = std::upper_bound(direction.starts.begin(), direction.starts.end(), at);
        return static_cast<std::size_t>(next - direction.starts.begin()) - 1;
    };
    std::size_t const first = blockOf(begin);
    message.firstBlock = direction.blocks[first];
    message.calls = blockOf(begin + message.bytes.size() - 1) - first + 1;
}
