#include "tools/trace/MessageCollector.h"

#include <algorithm>

#include "foundation/QORByteBuffer.h"
#include "foundation/ZULInputStream.h"

namespace {

constexpr std::size_t kMostFields = 1 << 17;

}  // namespace

std::string TracedPart::field(std::string_view name) const {
    auto const found = std::find_if(fields.begin(), fields.end(),
                                    [name](auto const& field) { return field.first == name; });
    return found == fields.end() ? std::string() : found->second;
}

MessageCollector::MessageCollector(Keeping const& keeping) : m_keeping(keeping), m_block(kBlock) {}

void MessageCollector::collectInto(TracedPart& message) {
    m_open.assign(1, &message);
    m_place.clear();
    m_parts = m_excerpts = m_fields = m_unkeptDepth = 0;
    m_startLineRead = m_inBody = false;
}

void MessageCollector::setURI(char const*) { m_startLineRead = true; }
void MessageCollector::setStatusCode(HTTPMessage::StatusCode) { m_startLineRead = true; }
void MessageCollector::setStatusMessage(char const*) {}

void MessageCollector::header(char const* name, HTTPHeader* value) {
    if (!m_keeping.fields || m_unkeptDepth > 0 || m_fields > kMostFields) return;
    QORByteBuffer text(128, 128);
    value->dump(text);
    m_fields += text.pcount();
    current().fields.emplace_back(name, std::string(text.str(), text.pcount()));
}

void MessageCollector::content(ZULInputStream& is, int length) {
    current().declared = length;
    content(is);
}

void MessageCollector::content(ZULInputStream& is) {
    TracedPart& part = current();
    m_inBody = true;
    for (int got = 0; (got = is.read(m_block.data(), kBlock)) > 0;) {
        std::string_view const bytes(m_block.data(), static_cast<std::size_t>(got));
        part.size += bytes.size();
        std::size_t const room =
            std::min(m_keeping.excerpt - std::min(m_keeping.excerpt, part.excerpt.size()),
                     m_keeping.excerpts - m_excerpts);
        part.excerpt += bytes.substr(0, room);
        m_excerpts += std::min(room, bytes.size());
        if (m_keeping.bytes) m_keeping.bytes(m_place, bytes);
    }
    m_inBody = false;
}

void MessageCollector::startMultiParts(char const* boundary) {
    current().boundary = boundary;
    m_place.push_back(0);
}

void MessageCollector::startPart() {
    ++m_place.back();
    TracedPart& around = current();
    if (m_unkeptDepth > 0 || m_parts == m_keeping.parts) {
        if (m_unkeptDepth++ == 0) ++around.moreParts;
        m_notKept = {};
        m_open.push_back(&m_notKept);
        return;
    }
    ++m_parts;
    around.parts.emplace_back();
    m_open.push_back(&around.parts.back());
}

void MessageCollector::endPart() {
    m_open.pop_back();
    if (m_unkeptDepth > 0) --m_unkeptDepth;
}

void MessageCollector::endMultiParts(char const*) { m_place.pop_back(); }
