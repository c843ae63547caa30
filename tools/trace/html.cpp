#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <deque>
#include <map>
#include <system_error>
#include <vector>

#include <unistd.h>

#include "tools/common/PrivateFile.h"
#include "tools/common/TextEscapes.h"
#include "tools/trace/HtmlPage.h"
#include "tools/trace/Jobs.h"

namespace {

constexpr std::size_t kPage = 2000000;  // bytes of markup
constexpr std::size_t kAround = 20000;  // of it for what is no message: the template, counted ones
constexpr std::uint64_t kEnd = 20;      // messages at either end
constexpr std::size_t kFaults = 40, kPicked = 400;
constexpr std::size_t kExcerpt = 49152, kExcerpts = 131072, kParts = 200, kHead = 65536;

// Picks the messages that the page shows while all go by; the others are counted.
class Selection {
public:
    explicit Selection(Options const& options)
        : m_chosen(options.from > 1 || options.count > 0),
          m_from(options.from),
          m_count(options.count > 0 ? options.count : 2 * kEnd) {}

    void add(PageMessage&& page) {
        std::uint64_t const number = page.message.number;
        bool const picked =
            m_chosen ? number >= m_from && number - m_from < m_count : number <= kEnd;
        bool const fault = !page.message.error.empty();
        m_bytes += page.message.span.bytes;
        if (picked && m_first.size() < kPicked) {
            m_first.push_back(std::move(page));
        } else if (fault && m_faults.size() < kFaults) {
            m_faults.push_back(std::move(page));
        } else if (!m_chosen) {
            m_last.push_back(std::move(page));
            if (m_last.size() > kEnd) m_last.pop_front();
        }
        m_total = number;
    }

    std::uint64_t total() const { return m_total; }
    std::uint64_t bytes() const { return m_bytes; }

    // In the order in which the page's room is given to them.
    std::vector<PageMessage const*> byWeight() const {
        std::vector<PageMessage const*> all;
        for (PageMessage const& page : m_faults) all.push_back(&page);
        auto first = m_first.begin();
        auto last = m_last.rbegin();
        while (first != m_first.end() || last != m_last.rend()) {
            if (first != m_first.end()) all.push_back(&*first++);
            if (last != m_last.rend()) all.push_back(&*last++);
        }
        return all;
    }

private:
    bool m_chosen;
    std::uint64_t m_from, m_count;
    std::deque<PageMessage> m_first, m_last, m_faults;
    std::uint64_t m_total = 0, m_bytes = 0;
};

std::string counted(std::uint64_t messages) {
    return "<li class=\"counted\">" + std::to_string(messages) +
           (messages == 1 ? " message is" : " messages are") + " not shown</li>\n";
}

// The rungs with as much detail as there is room for, and between them how many are missing.
std::string rungs(Selection const& selection, Options const& options) {
    std::map<std::uint64_t, std::string> shown;
    std::size_t room = kPage - kAround;
    for (PageMessage const* page : selection.byWeight()) {
        std::uint64_t const number = page->message.number;
        bool const open =
            number == 1 || number == selection.total() || !page->message.error.empty();
        for (Detail const detail : {Detail::Whole, Detail::Head, Detail::Row}) {
            std::string markup = markupOf(*page, options.trace, detail, open);
            if (markup.size() > room) continue;
            room -= markup.size();
            shown.emplace(number, std::move(markup));
            break;
        }
    }
    std::string all;
    std::uint64_t before = 0;
    for (auto const& [number, markup] : shown) {
        if (number > before + 1) all += counted(number - before - 1);
        all += markup;
        before = number;
    }
    if (before < selection.total()) all += counted(selection.total() - before);
    return all;
}

void write(std::string const& path, std::string const& page) {
    int const descriptor = path == "-" ? ::dup(STDOUT_FILENO) : openPrivately(path);
    std::FILE* const file = descriptor == -1 ? nullptr : ::fdopen(descriptor, "wb");
    bool const written = file && std::fwrite(page.data(), 1, page.size(), file) == page.size();
    if ((file && std::fclose(file) != 0) || !written)
        throw std::system_error(errno, std::generic_category(), path);
}

}  // namespace

std::string html(Options const& options) {
    TraceFile file(options.trace, false);
    Keeping keeping;
    keeping.excerpt = kExcerpt;
    keeping.excerpts = kExcerpts;
    keeping.parts = kParts;
    keeping.fields = true;
    Conversation conversation(file, roleOf(options), keeping);
    Selection selection(options);
    Microseconds start = kNoTime, before = kNoTime;
    for (PageMessage page; conversation.next(page.message); page = {}) {
        Span const& span = page.message.span;
        if (page.message.head.size() > kHead) page.message.head.resize(kHead);
        if (span.begin != kNoTime) {
            if (start == kNoTime) start = before = span.begin;
            page.at = span.begin - start;
            page.gap = std::max<Microseconds>(0, span.begin - before);
            before = std::max(before, span.end);
        }
        selection.add(std::move(page));
    }
    std::string const complaint = complaintOf(conversation.received().cursor(), options.trace);
    std::string summary = std::to_string(selection.total()) + " messages, " +
                          bytesInWords(selection.bytes()) + ", traced by the " +
                          (conversation.isServer() ? "server" : "client");
    if (start != kNoTime) summary += ", in " + seconds(before - start);
    if (conversation.received().cursor().times().areOfTls()) summary += ", clear text of TLS";
    if (!complaint.empty())
        summary += "<br><span class=\"fault\">" + escapedForXml(complaint) + "</span>";
    std::string const name = options.trace.substr(options.trace.rfind('/') + 1);
    write(options.out, pageOf(name, summary, rungs(selection, options)));
    return complaint;
}
