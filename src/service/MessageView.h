#pragma once

#include <cstddef>
#include <iterator>
#include <memory>
#include <optional>
#include <string_view>
#include <vector>

#include "foundation/Export.h"

#include "message/HTTPMessage.h"
#include "service/HeadLine.h"
#include "service/MediaType.h"

namespace postwire {

class Answer;
class Request;

// A message, or a part of one, to look at: its fields in order, its body, its parts.
//
// Ownership: borrows the tree, and copies neither texts nor bodies. It, its copies and all that
//   they give are good until the tree changes or ends; those of a request, until its handler
//   returns, and those of an answer, as long as it is.
// Raises: std::bad_alloc where it is made; nothing afterwards.
// Rule: what came over the wire is shown as it came, line by line. A field of a tree that was built
//   by hand, or that someone has asked the tree for, is shown as the tree has it. Several threads
//   may use one view, and views of one tree, that only read.
class POSTWIRE_EXPORT MessageView {
public:
    struct Field {
        std::string_view name;
        std::string_view text;

        // Its value and its parameters.
        [[nodiscard]] MediaType parsed() const { return MediaType(text); }
    };
    class Parts;

    explicit MessageView(HTTPMessage const& message);
    // With the lines of each head, the parts' in the order in which they came, as Request and
    // Answer have them.
    // Where there are not as many heads as there are parts, they are not looked at.
    MessageView(HTTPMessage const& message, std::vector<std::vector<HeadLine>> const& heads);
    explicit MessageView(Request& request);
    explicit MessageView(Answer const& answer);
    MessageView(Answer&&) = delete;

    [[nodiscard]] std::vector<Field> const& fields() const;

    // The text of the first field of that name, in any letter case.
    [[nodiscard]] std::optional<std::string_view> find(std::string_view name) const;

    // Content-Type taken apart; an empty one where there is none.
    [[nodiscard]] MediaType type() const;

    // As it came; empty where there are parts.
    [[nodiscard]] std::string_view body() const;

    // The parts of this one; and all below it, each before its own.
    [[nodiscard]] Parts parts() const;
    [[nodiscard]] Parts allParts() const;

    // Whether both are the same part of one tree.
    [[nodiscard]] bool operator==(MessageView const& other) const;
    [[nodiscard]] bool operator!=(MessageView const& other) const { return !(*this == other); }

private:
    struct Node;
    struct Tree;
    MessageView(std::shared_ptr<Tree const> tree, std::size_t index);
    [[nodiscard]] Node const& node() const;

    std::shared_ptr<Tree const> m_tree;
    std::size_t m_index;  // of its node
};

// To iterate over; each item is a MessageView.
class POSTWIRE_EXPORT MessageView::Parts {
public:
    class POSTWIRE_EXPORT Iterator {
    public:
        using iterator_category = std::input_iterator_tag;
        using value_type = MessageView;
        using difference_type = std::ptrdiff_t;
        using pointer = void;
        using reference = MessageView;

        MessageView operator*() const;
        Iterator& operator++();
        bool operator==(Iterator const& other) const { return m_index == other.m_index; }
        bool operator!=(Iterator const& other) const { return m_index != other.m_index; }

    private:
        friend class Parts;
        Iterator(Parts const& parts, std::size_t index) : m_parts(&parts), m_index(index) {}

        Parts const* m_parts;
        std::size_t m_index;
    };

    [[nodiscard]] Iterator begin() const { return {*this, m_begin}; }
    [[nodiscard]] Iterator end() const { return {*this, m_end}; }
    [[nodiscard]] bool empty() const { return m_begin == m_end; }
    [[nodiscard]] std::size_t size() const;

private:
    friend class MessageView;
    Parts(std::shared_ptr<Tree const> tree, std::size_t begin, std::size_t end, bool deep)
        : m_tree(std::move(tree)), m_begin(begin), m_end(end), m_deep(deep) {}

    std::shared_ptr<Tree const> m_tree;
    std::size_t m_begin;
    std::size_t m_end;
    bool m_deep;
};

}  // namespace postwire
