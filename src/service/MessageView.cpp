#include "service/MessageView.h"

#include <deque>
#include <string>
#include <utility>

#include "foundation/AsciiText.h"
#include "message/ConstTree.h"
#include "service/Answer.h"
#include "service/Request.h"

namespace postwire {

using internal::ConstTree;

struct MessageView::Node {
    std::vector<Field> fields;
    std::string_view body;
    std::size_t end = 0;  // behind its parts
};

// All is settled when it is made, so that whoever reads changes nothing.
struct MessageView::Tree {
    using Heads = std::vector<std::vector<HeadLine>>;

    Tree(HTTPMessage const& message, Heads const& heads) {
        add(message);
        if (nodes.size() != heads.size()) {
            addFields();
            return;
        }
        for (std::size_t i = 0; i < nodes.size(); ++i)
            for (HeadLine const& line : heads[i]) nodes[i].fields.push_back({line.name, line.text});
    }

    // By recursion: a tree is three levels deep, unless it was built by hand.
    void add(HTTPMessage const& message) {
        std::size_t const index = nodes.size();
        messages.push_back(&message);
        nodes.push_back({{}, ConstTree::body(message), 0});
        ConstTree::forEachPart(message, [this](HTTPMessage const& part) { add(part); });
        nodes[index].end = nodes.size();
    }

    void addFields() {
        for (std::size_t i = 0; i < nodes.size(); ++i) {
            std::vector<Field>& fields = nodes[i].fields;
            auto const addHeader = [&](std::string_view name, HTTPHeader const& header) {
                fields.push_back({name, textOf(header)});
            };
            auto const addLine = [&](std::string_view name, std::string_view text) {
                fields.push_back({name, withoutSpaces(text)});
            };
            ConstTree::forEachField(*messages[i], addHeader, addLine);
        }
    }

    // The tree holds it in pieces, unless it is one.
    std::string_view textOf(HTTPHeader const& header) {
        std::string_view const value = ConstTree::value(header);
        auto const& attributes = ConstTree::attributes(header);
        if (attributes.empty() && !ConstTree::isQuoted(header)) return value;
        std::string const quote = ConstTree::isQuoted(header) ? "\"" : "";
        std::string text = quote + std::string(value);
        for (auto const& [name, attribute] : attributes) MediaType::append(text, name, attribute);
        return texts.emplace_back(text + quote);
    }

    std::vector<Node> nodes;  // each before its parts
    std::vector<HTTPMessage const*> messages;
    std::deque<std::string> texts;
};

namespace {

template <class Received>
std::vector<std::vector<HeadLine>> headsOf(Received const& received) {
    std::vector<std::vector<HeadLine>> heads;
    heads.reserve(static_cast<std::size_t>(received.headCount()));
    for (int i = 0; i < received.headCount(); ++i) heads.push_back(received.headLines(i));
    return heads;
}

}  // namespace

MessageView::MessageView(HTTPMessage const& message) : MessageView(message, {}) {}

MessageView::MessageView(HTTPMessage const& message,
                         std::vector<std::vector<HeadLine>> const& heads)
    : MessageView(std::make_shared<Tree const>(message, heads), 0) {}

MessageView::MessageView(Request& request) : MessageView(request.message(), headsOf(request)) {}

MessageView::MessageView(Answer const& answer) : MessageView(answer.message(), headsOf(answer)) {}

MessageView::MessageView(std::shared_ptr<Tree const> tree, std::size_t index)
    : m_tree(std::move(tree)), m_index(index) {}

MessageView::Node const& MessageView::node() const { return m_tree->nodes[m_index]; }

std::vector<MessageView::Field> const& MessageView::fields() const { return node().fields; }

std::optional<std::string_view> MessageView::find(std::string_view name) const {
    for (Field const& field : fields())
        if (equalsInAnyCase(field.name, name)) return field.text;
    return {};
}

MediaType MessageView::type() const { return MediaType(find("Content-Type").value_or("")); }

std::string_view MessageView::body() const { return node().body; }

MessageView::Parts MessageView::parts() const { return {m_tree, m_index + 1, node().end, false}; }

MessageView::Parts MessageView::allParts() const { return {m_tree, m_index + 1, node().end, true}; }

bool MessageView::operator==(MessageView const& other) const {
    return m_tree == other.m_tree && m_index == other.m_index;
}

MessageView MessageView::Parts::Iterator::operator*() const { return {m_parts->m_tree, m_index}; }

MessageView::Parts::Iterator& MessageView::Parts::Iterator::operator++() {
    m_index = m_parts->m_deep ? m_index + 1 : m_parts->m_tree->nodes[m_index].end;
    return *this;
}

std::size_t MessageView::Parts::size() const {
    return static_cast<std::size_t>(std::distance(begin(), end()));
}

}  // namespace postwire
