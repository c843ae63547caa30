#pragma once

#include <string>
#include <vector>

#include "foundation/QORThrowable.h"
#include "foundation/ZULOutputStream.h"

#include "support/FragmentingStream.h"

// Keeps each write apart. The write numbered failAt (from 1; 0: none) raises kStreamFailure, and
// so do the later ones.
class RecordingOutputStream : public ZULOutputStream {
public:
    void write(char const* data, int length) override {
        if (failAt > 0 && static_cast<int>(writes.size()) + 1 >= failAt)
            QORException(kStreamFailure).hurl(QORFileLocation("test", 0), nullptr, "QOR_THROW");
        writes.emplace_back(data, static_cast<std::size_t>(length));
    }
    void flush() override { ++flushes; }
    void close() override { ++closes; }

    std::vector<std::string> writes;
    int failAt = 0;
    int flushes = 0;
    int closes = 0;
};
