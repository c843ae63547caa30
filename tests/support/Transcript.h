#pragma once

#include <string>
#include <vector>

// A line "verb: arguments" of a transcript, its escapes resolved.
class Call {
public:
    explicit Call(std::string const& line);

    bool is(char const* verb) const;
    // Raises where none that was asked for is its verb.
    void mustBeKnown() const;

    // All arguments; the one before the first blank, also as a number; what follows that blank.
    // "(null)" is a null pointer.
    std::string text;
    char const* all() const { return text == "(null)" ? nullptr : text.c_str(); }
    char const* first() const { return m_first == "(null)" ? nullptr : m_first.c_str(); }
    char const* rest() const { return m_rest == "(null)" ? nullptr : m_rest.c_str(); }
    int number() const;
    int restSize() const { return static_cast<int>(m_rest.size()); }

private:
    std::string m_verb, m_first, m_rest;
    mutable bool m_known = false;
};

// The calls of a transcript: of the lines of a case that begins with "= title", those that neither
// begin with "> ", an answer, nor with "! ", the text of what was raised.
std::vector<Call> callsOf(std::string const& transcript);
bool isCall(std::string const& line);
