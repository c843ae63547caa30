#include "message/HTTPMessage.h"

#include <algorithm>
#include <array>
#include <climits>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <memory>
#include <tuple>
#include <utility>

#include "foundation/QORThrowable.h"

#include "foundation/AsciiText.h"
#include "foundation/GuardedAllocation.h"

static char const kSourceFile[] = "HTTPMessage";

using postwire::internal::HeaderLine;

namespace {

// The rule of HTTPMessage::trim.
std::string_view trimmed(std::string_view text) {
    text = withoutSpaces(text);
    bool const quoted = text.size() > 1 && text.front() == '"' && text.back() == '"';
    return quoted ? withoutSpaces(text.substr(1, text.size() - 2)) : text;
}

// Of a header's text.
std::string_view mainValueOf(std::string_view text) {
    return trimmed(text.substr(0, text.find(';')));
}

bool isQuoted(std::string_view text) { return !text.empty() && text.front() == '"'; }

// A search for a name walks over the lines that are kept. They are those of a usual head; of more,
// up to all of a hostile one, all are sorted in, so that the cost of look-ups stays in proportion.
constexpr std::size_t kMaxSearched = 4096;
// Lines that are written in their order without being stored in it: more than a node usually has,
// few enough to be sorted on the stack.
constexpr std::size_t kMaxSortedInPlace = 16;

// An envelope and its attachments: room for these is taken at once.
constexpr std::size_t kUsualParts = 4;

// Its lines can't be joined into one, RFC 9110 section 5.3.
bool isRepeatable(char const* name) { return compareInAnyCase(name, "set-cookie") == 0; }

void append(QORByteBuffer& buf, std::string_view text) {
    buf.appendChars(text.data(), static_cast<unsigned int>(text.size()));
}

void dumpLine(QORByteBuffer& buf, std::string_view name, HTTPHeader& header) {
    append(buf, name);
    append(buf, ": ");
    header.dump(buf);
    append(buf, "\r\n");
}

// Size line, data and the CRLF behind each of them.
std::uint64_t chunkDumpSize(std::uint64_t bytes) {
    std::uint64_t digits = 1;
    for (std::uint64_t rest = bytes; rest > 15; rest /= 16) ++digits;
    return digits + bytes + 4;
}

}  // namespace

// HTTPHeader

HTTPHeader::HTTPHeader() : m_quoted(0), m_borrowed(nullptr) {}

HTTPHeader::HTTPHeader(char const* value) : HTTPHeader() { setValue(value); }

HTTPHeader::HTTPHeader(HeaderLine const& line)
    : m_value(mainValueOf(line.text())), m_quoted(isQuoted(line.text())), m_borrowed(nullptr) {
    parseAttributes(line.text());
}

// A copy may outlive the line that the other header borrows.
HTTPHeader::HTTPHeader(HTTPHeader const& other)
    : m_value(other.m_value),
      m_attributes(other.m_attributes),
      m_quoted(other.m_quoted),
      m_borrowed(nullptr) {
    if (other.m_borrowed) parseText(other.m_borrowed->text());
}

HTTPHeader::~HTTPHeader() = default;

HTTPHeader& HTTPHeader::operator=(HTTPHeader const& other) {
    if (this == &other) return *this;
    HTTPHeader copy(other);
    moveFrom(copy);
    return *this;
}

// The other one, which has been taken apart, is left empty.
void HTTPHeader::moveFrom(HTTPHeader& other) {
    m_value.swap(other.m_value);
    m_attributes.swap(other.m_attributes);
    m_quoted = other.m_quoted;
    m_borrowed = nullptr;
    other.reset();
}

void HTTPHeader::reset() {
    m_value.clear();
    m_attributes.clear();
    m_quoted = 0;
    m_borrowed = nullptr;
}

void HTTPHeader::setValue(char const* value) {
    QOR_ASSERT(value);
    parseBorrowed();
    m_value = value;
    m_quoted = 0;
}

char const* HTTPHeader::getValue() {
    parseBorrowed();
    return m_value.c_str();
}

void HTTPHeader::setAttribute(char const* field, char const* value) {
    QOR_ASSERT(field);
    QOR_ASSERT(value);
    parseBorrowed();
    storeAttribute(field, value);
}

void HTTPHeader::storeAttribute(std::string_view name, std::string_view value) {
    auto const at = m_attributes.lower_bound(name);
    if (at != m_attributes.end() && at->first == name)
        at->second = value;
    else
        m_attributes.emplace_hint(at, name, value);
}

char const* HTTPHeader::getAttribute(char const* field) {
    QOR_ASSERT(field);
    parseBorrowed();
    auto const found = m_attributes.find(std::string_view(field));
    return found == m_attributes.end() ? nullptr : found->second.c_str();
}

void HTTPHeader::parse(char const* pvalue) {
    QOR_ASSERT(pvalue);
    parseBorrowed();
    if (holds(pvalue))
        parseText(std::string(pvalue));
    else
        parseText(pvalue);
}

void HTTPHeader::parseBorrowed() {
    if (!m_borrowed) return;
    parseText(m_borrowed->text());
    m_borrowed = nullptr;
}

// Whether the text is one of our own, which storing parts of it would change under way.
bool HTTPHeader::holds(char const* text) const {
    auto const isIn = [text](std::string const& s) {
        std::less<> const before;
        return !before(text, s.data()) && !before(s.data() + s.size(), text);
    };
    return isIn(m_value) || std::any_of(m_attributes.begin(), m_attributes.end(),
                                        [&](auto const& a) { return isIn(a.second); });
}

void HTTPHeader::parseText(std::string_view text) {
    m_value = mainValueOf(text);
    m_quoted = isQuoted(text);
    parseAttributes(text);
}

void HTTPHeader::parseAttributes(std::string_view text) {
    std::size_t semicolon = text.find(';');
    while (semicolon != std::string_view::npos) {
        std::size_t const start = text.find_first_not_of("; \t", semicolon);
        if (start == std::string_view::npos) return;
        semicolon = text.find(';', start);
        std::string_view const segment = text.substr(start, semicolon - start);
        std::size_t const equals = segment.find('=');
        if (equals != std::string_view::npos)
            storeAttribute(trimmed(segment.substr(0, equals)), trimmed(segment.substr(equals + 1)));
    }
}

void HTTPHeader::dump(QORByteBuffer& buf) {
    parseBorrowed();
    if (m_quoted) buf << '"';
    append(buf, m_value);
    for (auto const& [name, value] : m_attributes) {
        buf << "; ";
        append(buf, name);
        buf << '=';
        append(buf, value);
    }
    if (m_quoted) buf << '"';
}

std::size_t HTTPHeader::dumpSize() {
    parseBorrowed();
    std::size_t size = m_value.size() + (m_quoted ? 2 : 0);
    for (auto const& [name, value] : m_attributes) size += name.size() + value.size() + 3;
    return size;
}

// HTTPHeaders

bool httphdr_CaseInsensitiveStringComparePredicate::operator()(char const* a, char const* b) const {
    return compareInAnyCase(a, b) < 0;
}

HTTPHeaders::HTTPHeaders() = default;

HTTPHeaders::~HTTPHeaders() = default;

HTTPHeader* HTTPHeaders::getHeader(char const* field) {
    QOR_ASSERT(field);
    auto const found = findEntry(field);
    return found == m_headers.end() ? nullptr : &found->second;
}

HTTPHeader* HTTPHeaders::setHeader(char const* name, HTTPHeader* phdr) {
    QOR_ASSERT(name);
    QOR_ASSERT(phdr);
    if (!isRepeatable(name) && getHeader(name) == phdr) return phdr;
    HTTPHeader copy(*phdr);
    return moveHeader(name, copy);
}

HTTPHeader* HTTPHeaders::moveHeader(char const* name, HTTPHeader& header) {
    QOR_ASSERT(name);
    header.parseBorrowed();
    HTTPHeader& stored = entryToSet(name)->second;
    if (&stored != &header) stored.moveFrom(header);
    return &stored;
}

// A line as the parser reports it, before anyone has asked for one, is nearly all that comes here.
void HTTPHeaders::addLine(char const* name, HTTPHeader* phdr) {
    HeaderLine const* const line = phdr ? phdr->m_borrowed : nullptr;
    if (line && line->bytes == name && m_headers.empty())
        m_lines.add(*line);
    else
        addOtherLine(name, phdr);
}

void HTTPHeaders::addOtherLine(char const* name, HTTPHeader* phdr) {
    QOR_ASSERT(name);
    QOR_ASSERT(phdr);
    HeaderLine const* const line = phdr->m_borrowed;
    if (!line || hasEntry(name))
        setHeader(name, phdr);
    else if (name == line->bytes)
        m_lines.add(*line);
    else
        m_lines.add(name, line->text());
}

void HTTPHeaders::addLine(char const* name, char const* pvalue) {
    QOR_ASSERT(pvalue);
    QOR_ASSERT(name);
    if (!hasEntry(name)) return m_lines.add(name, pvalue);
    HTTPHeader header;
    header.parse(pvalue);
    moveHeader(name, header);
}

bool HTTPHeaders::hasEntry(char const* name) const {
    return !m_headers.empty() && m_headers.find(name) != m_headers.end();
}

// The first entry of that name. Of lines that are kept of it, the first names the entry and the
// last gives its value, but where each is an entry of its own.
HTTPHeaders::Entries::iterator HTTPHeaders::findEntry(char const* name) {
    storeManyLines();
    auto const at = m_headers.lower_bound(name);
    if (at != m_headers.end() && compareInAnyCase(at->first.c_str(), name) == 0) return at;
    std::string_view const view(name);
    auto const first = m_lines.find(view);
    if (first == m_lines.end()) return m_headers.end();
    auto last = first;
    for (auto line = first; line != m_lines.end() && !isRepeatable(name);
         line = m_lines.find(view, ++line))
        last = line;
    auto const entry =
        m_headers.emplace_hint(at, std::piecewise_construct, std::forward_as_tuple((*first).name()),
                               std::forward_as_tuple(*last));
    for (auto line = first;; line = m_lines.find(view, line)) {
        m_lines.remove(line);
        if (line == last) return entry;
    }
}

// The entry whose value is to be replaced, or a new one behind its equals.
HTTPHeaders::Entries::iterator HTTPHeaders::entryToSet(char const* name) {
    if (isRepeatable(name))
        storeLines();
    else if (auto const entry = findEntry(name); entry != m_headers.end())
        return entry;
    return m_headers.emplace_hint(m_headers.upper_bound(name), std::piecewise_construct,
                                  std::forward_as_tuple(name), std::tuple<>());
}

// Where there are too many of them to be searched.
void HTTPHeaders::storeManyLines() {
    if (m_lines.size() > kMaxSearched) storeLines();
}

// All or nothing: when memory runs out, the lines are still kept.
void HTTPHeaders::storeLines() {
    if (m_lines.size() == 0) return;
    HTTPHeaders stored;
    for (HeaderLine const line : m_lines) {
        HTTPHeader header(line);
        stored.moveHeader(line.bytes, header);
    }
    m_headers.merge(stored.m_headers);
    m_lines.release();
}

void HTTPHeaders::removeHeader(char const* name) {
    QOR_ASSERT(name);
    storeManyLines();
    for (auto line = m_lines.find(name); line != m_lines.end(); line = m_lines.find(name, line))
        m_lines.remove(line);
    auto const [first, last] = m_headers.equal_range(name);
    m_headers.erase(first, last);
}

void HTTPHeaders::dump(QORByteBuffer& buf) {
    if (m_headers.empty() && dumpLines(buf)) return;
    storeLines();
    for (auto& [name, header] : m_headers) dumpLine(buf, name, header);
}

// The lines that are kept, straight from their texts: staged headers are written once and never
// asked for. False where they are many, or a name is repeated: that takes the collection to sort
// out.
bool HTTPHeaders::dumpLines(QORByteBuffer& buf) {
    std::array<HeaderLine, kMaxSortedInPlace> lines;
    auto const begin = lines.begin();
    auto end = begin;
    for (HeaderLine const line : m_lines) {
        if (end == lines.end()) return false;
        *end++ = line;
    }
    auto const order = [](HeaderLine const& a, HeaderLine const& b) {
        return compareInAnyCase(a.bytes, b.bytes);
    };
    std::sort(begin, end, [&](auto const& a, auto const& b) { return order(a, b) < 0; });
    auto const same = [&](auto const& a, auto const& b) { return order(a, b) == 0; };
    if (std::adjacent_find(begin, end, same) != end) return false;
    HTTPHeader header;
    for (auto line = begin; line != end; ++line) {
        header.borrow(*line);
        dumpLine(buf, line->name(), header);
    }
    return true;
}

std::size_t HTTPHeaders::dumpSize() {
    storeLines();
    std::size_t size = 0;
    for (auto& [name, header] : m_headers) size += name.size() + header.dumpSize() + 4;
    return size;
}

void HTTPHeaders::reset() {
    m_headers.clear();
    m_lines.clear();
}

// VecpHTTPMessages

VecpHTTPMessages::VecpHTTPMessages() = default;

VecpHTTPMessages::~VecpHTTPMessages() { reset(); }

void VecpHTTPMessages::reset() {
    for (HTTPMessage*& part : *this) dropQuietly(part);
    clear();
}

// HTTPMessage

HTTPMessage::HTTPMessage() : m_pContent(nullptr), m_pParts(nullptr) {}

HTTPMessage::~HTTPMessage() {
    dropQuietly(m_pParts);
    dropQuietly(m_pContent);
}

char const* HTTPMessage::getContentType() {
    if (m_contentType.empty()) {
        if (HTTPHeader* const header = m_headers.getHeader("Content-Type")) {
            char const* const charset = header->getAttribute("charset");
            setContentType(header->getValue(), charset ? charset : "");
        }
    }
    return m_contentType.c_str();
}

char const* HTTPMessage::getCharset() {
    if (m_charset.empty()) getContentType();
    return m_charset.c_str();
}

// Both or neither; they may be given crosswise.
void HTTPMessage::setContentType(char const* content_type, char const* charset) {
    QOR_ASSERT(content_type);
    QOR_ASSERT(charset);
    std::string newType(content_type);
    std::string newCharset(charset);
    m_contentType.swap(newType);
    m_charset.swap(newCharset);
}

HTTPHeader* HTTPMessage::getHeader(char const* field) {
    QOR_ASSERT(field);
    return m_headers.getHeader(field);
}

HTTPHeader* HTTPMessage::setHeader(char const* field, char const* pvalue) {
    QOR_ASSERT(field);
    QOR_ASSERT(pvalue);
    HTTPHeader header;
    header.parse(pvalue);
    return m_headers.moveHeader(field, header);
}

void HTTPMessage::reset() {
    m_headers.reset();
    m_contentType.clear();
    m_charset.clear();
    std::unique_ptr<QORByteBuffer>(std::exchange(m_pContent, nullptr)).reset();
    std::unique_ptr<VecpHTTPMessages>(std::exchange(m_pParts, nullptr)).reset();
}

void HTTPMessage::dump(QORByteBuffer& buf, int chunksize) {
    if (!m_pParts) QOR_ASSERT(chunksize >= 0);
    setFraming(chunksize);
    // Room for the whole tree at once: no byte of a body is moved after it has been copied, and
    // when memory runs out nothing has been written.
    std::uint64_t const total = buf.pcount() + dumpSize(chunksize);
    buf.reserve(static_cast<unsigned int>(std::min<std::uint64_t>(total, UINT_MAX)));
    dumpFramed(buf, chunksize);
}

void HTTPMessage::setFraming(int chunksize) {
    if (m_pParts) {
        m_headers.removeHeader("Transfer-Encoding");
        m_headers.removeHeader("Content-Length");
        for (HTTPMessage* const part : *m_pParts) part->setFraming(0);
    } else if (chunksize != 0) {
        m_headers.removeHeader("Content-Length");
        setHeader("Transfer-Encoding", "chunked");
    } else {
        QORByteBuffer length(16, 16);
        length << contentSize();
        setHeader("Content-Length", length.str());
        m_headers.removeHeader("Transfer-Encoding");
    }
}

// What dumpFramed appends. Parts can hold more than a buffer.
std::uint64_t HTTPMessage::dumpSize(int chunksize) {
    std::uint64_t size = m_headers.dumpSize() + 2;
    if (m_pParts) {
        for (HTTPMessage* const part : *m_pParts) size += m_boundary.size() + 6 + part->dumpSize(0);
        return size + m_boundary.size() + 8;
    }
    auto const content = static_cast<std::uint64_t>(contentSize());
    if (chunksize == 0) return size + content;
    auto const chunk = static_cast<std::uint64_t>(chunksize);
    size += content / chunk * chunkDumpSize(chunk) + 5;
    return content % chunk == 0 ? size : size + chunkDumpSize(content % chunk);
}

void HTTPMessage::dumpFramed(QORByteBuffer& buf, int chunksize) {
    m_headers.dump(buf);
    buf << "\r\n";
    if (m_pParts)
        dumpParts(buf);
    else if (chunksize > 0)
        dumpChunks(buf, chunksize);
    else if (m_pContent)
        buf.appendChars(m_pContent->str(), m_pContent->pcount());
}

void HTTPMessage::dumpParts(QORByteBuffer& buf) {
    for (HTTPMessage* const part : *m_pParts) {
        buf << "\r\n--" << m_boundary.c_str() << "\r\n";
        part->dumpFramed(buf, 0);
    }
    buf << "\r\n--" << m_boundary.c_str() << "--\r\n";
}

void HTTPMessage::dumpChunks(QORByteBuffer& buf, int chunksize) {
    buf.setHexRadix(1);
    char const* bytes = contentBytes();
    for (int left = contentSize(); left > 0;) {
        int const n = std::min(chunksize, left);
        buf << n << "\r\n";
        buf.appendChars(bytes, static_cast<unsigned int>(n));
        buf << "\r\n";
        bytes += n;
        left -= n;
    }
    buf << "0\r\n\r\n";
}

void HTTPMessage::trim(std::string& s) {
    std::string_view const kept = trimmed(s);
    auto const first = static_cast<std::size_t>(kept.data() - s.data());
    s.resize(first + kept.size());
    s.erase(0, first);
}

int HTTPMessage::contentSize() { return m_pContent ? static_cast<int>(m_pContent->pcount()) : 0; }

char const* HTTPMessage::contentBytes() { return m_pContent ? m_pContent->str() : nullptr; }

HTTPMessage* HTTPMessage::getPart(int i) {
    return i >= 0 && i < num_parts() ? (*m_pParts)[static_cast<std::size_t>(i)] : nullptr;
}

int HTTPMessage::num_parts() { return m_pParts ? static_cast<int>(m_pParts->size()) : 0; }

void HTTPMessage::addChild(HTTPMessage* pChild) {
    QOR_ASSERT(pChild);
    if (m_pParts) {
        m_pParts->push_back(pChild);
        return;
    }
    auto parts = guardedNew<VecpHTTPMessages>(QORFileLocation(kSourceFile, __LINE__));
    parts->reserve(kUsualParts);
    parts->push_back(pChild);
    m_pParts = parts.release();
}

char const* HTTPMessage::getStatusText(StatusCode code) {
    switch (static_cast<int>(code)) {
        case 200:
            return "OK";
        case 500:
            return "Internal Server Error";
        default:
            return "";
    }
}

void HTTPMessage::setContent(char const* bytes, int length) {
    QOR_ASSERT(bytes);
    QOR_ASSERT(length >= 0);
    auto const size = static_cast<unsigned int>(length);
    auto content = guardedNew<QORByteBuffer>(QORFileLocation(kSourceFile, __LINE__), size, 256U);
    content->appendChars(bytes, size);
    std::unique_ptr<QORByteBuffer> const old(std::exchange(m_pContent, content.release()));
}

void HTTPMessage::setBoundary(char const* boundary) {
    QOR_ASSERT(boundary);
    m_boundary = boundary;
}

char const* HTTPMessage::getBoundary() { return m_boundary.c_str(); }
