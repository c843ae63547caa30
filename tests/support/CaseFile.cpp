#include "support/CaseFile.h"

#include <fstream>
#include <stdexcept>
#include <string_view>

namespace {

std::string stripped(std::string text) {
    constexpr char kBlanks[] = " \t\r";
    text.erase(text.find_last_not_of(kBlanks) + 1);
    return text.erase(0, text.find_first_not_of(kBlanks));
}

// Resolves what follows a backslash at text[at]; moves `at` behind it.
char escapedByte(std::string const& text, std::size_t& at) {
    constexpr std::string_view kNames = "rnts0\\|{}";
    constexpr std::string_view kBytes("\r\n\t \0\\|{}", 9);
    char const name = at < text.size() ? text[at++] : ' ';
    std::size_t const known = kNames.find(name);
    if (known != std::string_view::npos) return kBytes[known];
    if (name != 'x') throw std::invalid_argument("unknown escape");
    at += 2;
    return static_cast<char>(std::stoi(text.substr(at - 2, 2), nullptr, 16));
}

// The fields between bars that no backslash precedes.
std::vector<std::string> fields(std::string const& row) {
    std::vector<std::string> found;
    std::size_t begin = 0;
    for (std::size_t i = 0; i <= row.size(); ++i) {
        if (i < row.size() && row[i] == '\\')
            ++i;
        else if (i == row.size() || row[i] == '|') {
            found.push_back(stripped(row.substr(begin, i - begin)));
            begin = i + 1;
        }
    }
    return found;
}

}  // namespace

std::string const& TestCase::operator[](std::string const& key) const {
    static std::string const kNone;
    m_read.insert(key);
    auto const found = m_values.find(key);
    return found == m_values.end() ? kNone : found->second;
}

long TestCase::number(std::string const& key) const {
    std::string const& text = (*this)[key];
    std::size_t taken = 0;
    long const value = text.empty() ? 0 : std::stol(text, &taken);
    if (taken != text.size()) throw std::invalid_argument(where() + ": no number: " + text);
    return value;
}

std::string TestCase::unread() const {
    for (auto const& [key, value] : m_values)
        if (m_read.count(key) == 0) return key;
    return "";
}

std::string unescaped(std::string const& text) {
    std::string bytes;
    std::size_t repeated = std::string::npos;  // where the text of an open brace begins
    for (std::size_t at = 0; at < text.size();) {
        char const c = text[at++];
        if (c == '\\') {
            bytes += escapedByte(text, at);
        } else if (c == '{') {
            repeated = bytes.size();
        } else if (c == '*' && repeated != std::string::npos) {
            std::size_t const end = text.find('}', at);
            int const times = std::stoi(text.substr(at, end - at));
            std::string const once = bytes.substr(repeated);
            bytes.resize(repeated);
            for (int i = 0; i < times; ++i) bytes += once;
            repeated = std::string::npos;
            at = end + 1;
        } else {
            bytes += c;
        }
    }
    if (repeated != std::string::npos) throw std::invalid_argument("brace without an end");
    return bytes;
}

std::vector<TestCase> loadCases(std::string const& fileName) {
    std::ifstream file(std::string(POSTWIRE_TEST_DATA "/") + fileName);
    std::vector<TestCase> cases;
    std::vector<std::string> columns;
    enum { kNothing, kTable, kKeys, kTranscript } inside = kNothing;
    int number = 0;
    for (std::string line; std::getline(file, line);) try {
            ++number;
            std::string const text = stripped(line);
            if (text.empty()) inside = kNothing;
            if (text.empty() || text[0] == '#') continue;
            std::string const key = text.substr(0, text.find(':'));
            if (inside == kNothing && key == "columns") {
                columns = fields(text.substr(8));
                inside = kTable;
                continue;
            }
            if (inside <= kTable) cases.emplace_back(fileName, number);
            if (inside == kTable) {
                std::vector<std::string> const values = fields(text);
                for (std::size_t i = 0; i < values.size(); ++i)
                    cases.back().add(columns.at(i), unescaped(values[i]));
            } else if (inside == kTranscript) {
                cases.back().add("calls", text + '\n');
            } else if (text[0] == '=') {
                inside = kTranscript;
            } else {
                inside = kKeys;
                cases.back().add(key, unescaped(stripped(text.substr(key.size() + 1))));
            }
        } catch (std::logic_error const& e) {
            throw std::runtime_error(fileName + ':' + std::to_string(number) + ": " + e.what());
        }
    if (cases.empty()) throw std::runtime_error(fileName + " holds no case");
    return cases;
}
