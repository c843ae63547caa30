#include "support/Transcript.h"

#include <algorithm>
#include <cstdlib>
#include <sstream>
#include <stdexcept>

#include "support/CaseFile.h"

Call::Call(std::string const& line) : m_verb(line.substr(0, line.find(':'))) {
    std::string const all = line.size() > m_verb.size() + 2 ? line.substr(m_verb.size() + 2) : "";
    std::size_t const blank = std::min(all.find(' '), all.size());
    text = unescaped(all);
    m_first = unescaped(all.substr(0, blank));
    m_rest = unescaped(all.substr(blank).erase(0, 1));
}

int Call::number() const { return std::atoi(m_first.c_str()); }

bool Call::is(char const* verb) const {
    m_known = m_known || m_verb == verb;
    return m_verb == verb;
}

void Call::mustBeKnown() const {
    if (!m_known) throw std::invalid_argument("no such call: " + m_verb);
}

bool isCall(std::string const& line) { return line[0] != '>' && line[0] != '!'; }

std::vector<Call> callsOf(std::string const& transcript) {
    std::istringstream stream(transcript);
    std::vector<Call> calls;
    for (std::string line; std::getline(stream, line);)
        if (isCall(line)) calls.emplace_back(line);
    return calls;
}
