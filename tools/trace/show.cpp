#include <algorithm>
#include <cstdio>
#include <stdexcept>

#include "tools/common/StandardStreams.h"
#include "tools/common/TextEscapes.h"
#include "tools/trace/Jobs.h"

namespace {

constexpr std::size_t kShown = 60;         // bytes of a body
constexpr std::size_t kShownParts = 1000;  // of a message
constexpr std::size_t kShownOfBad = 4096;  // bytes of a head that is none

void appendHead(std::string& to, std::string_view head) {
    while (!head.empty()) {
        std::string_view const line = head.substr(0, head.find('\n'));
        head.remove_prefix(std::min(head.size(), line.size() + 1));
        bool const crlf = !line.empty() && line.back() == '\r';
        to.append("    ").append(printable(line.substr(0, line.size() - (crlf ? 1 : 0)))) += '\n';
    }
}

// The parts with their sizes, each leaf with the beginning of its bytes.
void appendBody(std::string& to, TracedPart const& part, std::size_t depth = 2) {
    std::string const indent(depth * 2, ' ');
    std::size_t number = 0;
    for (TracedPart const& inner : part.parts) {
        to.append(indent).append("part ").append(std::to_string(++number)).append(": ");
        to.append(printable(inner.field("content-type"))) += '\n';
        appendBody(to, inner, depth + 1);
    }
    if (part.moreParts > 0)
        to.append(indent).append(std::to_string(part.moreParts)).append(" parts more\n");
    if (part.size == 0) return;
    to.append(indent).append(std::to_string(part.size)).append(" bytes: ");
    to.append(printable(part.excerpt)).append(part.size > part.excerpt.size() ? " ...\n" : "\n");
}

class Clock {
public:
    // When the message was, in words; empty without times.
    std::string told(Span const& span) {
        if (span.begin == kNoTime) return {};
        if (m_start == kNoTime) m_start = m_before = span.begin;
        std::string text = "; at " + seconds(span.begin - m_start) + ", " +
                           seconds(span.begin - m_before) + " after what was before, in " +
                           seconds(span.end - span.begin);
        if (span.longestGap != kNoTime) text += ", longest gap " + seconds(span.longestGap);
        m_before = span.end;
        return text;
    }

private:
    Microseconds m_start = kNoTime, m_before = kNoTime;
};

}  // namespace

std::string show(Options const& options) {
    TraceFile file(options.trace, options.follow);
    Keeping keeping;
    keeping.excerpt = kShown;
    keeping.parts = kShownParts;
    keeping.fields = true;
    Conversation conversation(file, roleOf(options), keeping);
    TracedMessage message;
    Clock clock;
    std::string text;
    while (conversation.next(message)) {
        std::string const times = clock.told(message.span);
        if (message.number < options.from) continue;
        if (options.count > 0 && message.number - options.from >= options.count) break;
        text = message.read ? "<- " : "-> ";
        text.append("message ").append(std::to_string(message.number)).append(": ");
        text.append(message.request ? "request, " : "response, ");
        text.append(std::to_string(message.span.bytes)).append(" bytes in ");
        text.append(std::to_string(message.span.calls)).append(message.read ? " receive" : " send");
        text.append(message.span.calls == 1 ? "" : "s").append(times).append("\n");
        bool const bad = !message.error.empty();
        appendHead(text, std::string_view(message.head).substr(0, bad ? kShownOfBad : ~size_t{0}));
        appendBody(text, message.body);
        if (bad) text.append("    stopped here: ").append(printable(message.error)).append("\n");
        std::fwrite(text.data(), 1, text.size(), stdout);
        if (options.follow) finishOutput();
        if (std::ferror(stdout)) break;  // what is left need not be read
    }
    return complaintOf(conversation.received().cursor(), options.trace);
}

std::string writeBody(Options const& options) {
    TraceFile file(options.trace, false);
    TracedMessage message;
    bool found = false;
    Keeping keeping;
    keeping.bytes = [&](std::vector<std::size_t> const& place, std::string_view bytes) {
        if (message.number != options.message) return;
        std::string name;
        for (std::size_t const number : place)
            name += (name.empty() ? "" : ".") + std::to_string(number);
        if (name != options.part) return;
        found = true;
        std::fwrite(bytes.data(), 1, bytes.size(), stdout);
    };
    Conversation conversation(file, roleOf(options), keeping);
    while (message.number < options.message && conversation.next(message)) {
    }
    if (!found) throw std::runtime_error(options.trace + ": no such body, or an empty one");
    return complaintOf(conversation.received().cursor(), options.trace);
}
