#pragma once

#include <string>
#include <vector>

#include "foundation/ZULOutputStream.h"

#include "support/Raised.h"

// Keeps each write apart. The call numbered failAt (from 1; 0: none) raises kStreamFailure, and so
// do the later ones, unless it is to be `once`.
class RecordingOutputStream : public ZULOutputStream {
public:
    void write(char const* data, int length) override {
        count();
        writes.emplace_back(data, static_cast<std::size_t>(length));
    }
    void flush() override {
        count();
        ++flushes;
    }
    void close() override { ++closes; }

    std::string joined() const {
        std::string all;
        for (std::string const& bytes : writes) all += bytes;
        return all;
    }

    std::vector<std::string> writes;
    void failIn(int calls) { failAt = m_calls + calls; }
    int failAt = 0;
    bool once = false;
    int flushes = 0;
    int closes = 0;

private:
    void count() {
        ++m_calls;
        if (failAt > 0 && (m_calls == failAt || (m_calls > failAt && !once))) failStream();
    }
    int m_calls = 0;
};
