#pragma once

#include <map>
#include <set>
#include <string>
#include <vector>

// One case of a data file: values by key.
class TestCase {
public:
    TestCase(std::string const& file, int line) : m_file(file), m_line(line) {}

    // The value, escapes resolved; empty where the case has no such key.
    std::string const& operator[](std::string const& key) const;
    bool has(std::string const& key) const { return m_values.count(key) != 0; }
    // The value as a decimal number, 0 where there is none.
    long number(std::string const& key) const;
    // A key whose value nobody took or skipped so far, empty where there is none.
    std::string unread() const;
    void skip(std::string const& key) const { m_read.insert(key); }

    std::string const& file() const { return m_file; }
    int line() const { return m_line; }
    // "chunks.txt:12", for SCOPED_TRACE.
    std::string where() const { return m_file + ':' + std::to_string(m_line); }

    // Goes on with the value where the key is there already.
    void add(std::string const& key, std::string const& value) { m_values[key] += value; }

private:
    std::string m_file;
    int m_line;
    std::map<std::string, std::string> m_values;
    mutable std::set<std::string> m_read;
};

// Reads a file of cases below tests/data. A line "key: value" adds a value to the case at hand,
// and an empty line ends the case; a key given again goes on with its value, so that long inputs
// can be broken into lines. After a line "columns: a | b | c" each line up to the next empty one
// is a case of its own, with values between " | ". A line "= title" begins a transcript: the lines
// up to the next empty one as they stand, which are the value of "calls", see Transcript.h. Lines
// that begin with # are comments.
// Values know the escapes \r \n \t \s (a blank) \0 \\ \| \{ \} \xHH, and {text*1000} for a text
// repeated 1000 times. White space around a value is not part of it.
std::vector<TestCase> loadCases(std::string const& fileName);

// The same escapes, for texts that stand in the source.
std::string unescaped(std::string const& text);
