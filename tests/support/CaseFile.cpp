#include "support/CaseFile.h"

#include <cctype>
#include <fstream>
#include <stdexcept>
#include <string_view>

namespace {

[[noreturn]] void refuse(std::string const& where, std::string const& what) {
    throw std::runtime_error(where + ": " + what);
}

std::string_view stripped(std::string_view text) {
    constexpr char kBlanks[] = " \t\r";
    std::size_t const first = text.find_first_not_of(kBlanks);
    if (first == std::string_view::npos) return {};
    return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

// Resolves what follows a backslash at text[at]; moves `at` behind it.
char escapedByte(std::string_view text, std::size_t& at) {
    constexpr std::string_view kNames = "rnts0\\|{}";
    constexpr std::string_view kBytes("\r\n\t \0\\|{}", 9);
    char const name = at < text.size() ? text[at++] : ' ';
    std::size_t const known = kNames.find(name);
    if (known != std::string_view::npos) return kBytes[known];
    if (name != 'x') throw std::invalid_argument("unknown escape");
    std::string const digits(text.substr(at, 2));
    at += 2;
    return static_cast<char>(std::stoi(digits, nullptr, 16));
}

std::string resolved(std::string_view text) {
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
            int const times = std::stoi(std::string(text.substr(at, end - at)));
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

// The fields between bars that no backslash precedes.
std::vector<std::string_view> fields(std::string_view row) {
    std::vector<std::string_view> found;
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

class Loader {
public:
    explicit Loader(std::string const& name) : m_name(name) {}

    void line(std::string_view text) {
        ++m_line;
        text = stripped(text);
        if (text.empty()) {
            m_columns.clear();
            m_open = false;
        } else if (text[0] != '#') {
            try {
                m_columns.empty() ? pair(text) : row(text);
            } catch (std::logic_error const& e) {
                refuse(m_name + ':' + std::to_string(m_line), e.what());
            }
        }
    }

    std::vector<TestCase> cases;

private:
    void pair(std::string_view text) {
        std::size_t const colon = text.find(':');
        if (colon == std::string_view::npos) throw std::invalid_argument("no key");
        std::string const key(text.substr(0, colon));
        std::string_view const value = stripped(text.substr(colon + 1));
        if (key == "columns" && !m_open) {
            for (std::string_view const f : fields(value)) m_columns.emplace_back(f);
            return;
        }
        if (!m_open) cases.emplace_back(m_name, m_line);
        m_open = true;
        cases.back().add(key, resolved(value));
    }

    void row(std::string_view text) {
        auto const values = fields(text);
        if (values.size() > m_columns.size()) throw std::invalid_argument("too many columns");
        cases.emplace_back(m_name, m_line);
        for (std::size_t i = 0; i < values.size(); ++i)
            cases.back().add(m_columns[i], resolved(values[i]));
    }

    std::string m_name;
    int m_line = 0;
    bool m_open = false;
    std::vector<std::string> m_columns;
};

}  // namespace

TestCase::TestCase(std::string const& file, int line)
    : m_where(file + ':' + std::to_string(line)) {}

std::string const& TestCase::operator[](std::string const& key) const {
    static std::string const kNone;
    auto const found = m_values.find(key);
    return found == m_values.end() ? kNone : found->second;
}

long TestCase::number(std::string const& key) const {
    return has(key) ? std::stol((*this)[key]) : 0;
}

std::vector<TestCase> loadCases(std::string const& fileName) {
    std::ifstream file(std::string(POSTWIRE_TEST_DATA "/") + fileName);
    if (!file) refuse(fileName, "cannot be read");
    Loader loader(fileName);
    for (std::string line; std::getline(file, line);) loader.line(line);
    if (loader.cases.empty()) refuse(fileName, "holds no case");
    return loader.cases;
}

std::string unescaped(std::string const& text) { return resolved(text); }
