// Makes the calls on its standard input, see support/WriterCalls.h, an empty line between messages.
// For each message it writes a line with two lengths, then the tree that the reader finds in it, or
// what it raised, then the message's bytes.

#include <iostream>
#include <stdexcept>

#include "foundation/QORThrowable.h"
#include "foundation/ZULMemoryInputStream.h"

#include "parser/HTTPMessageReader.h"
#include "support/RecordingOutputStream.h"
#include "support/TreeText.h"
#include "support/WriterCalls.h"

static std::string readBack(std::string const& bytes) {
    ZULMemoryInputStream memory(bytes.data(), static_cast<int>(bytes.size()));
    ZULBufferedInputStream in(memory, 4096);
    HTTPMessageReader reader(in);
    HTTPMessage message;
    std::string uri;
    try {
        reader.getRequest(&message, &uri);
        return treeText(message, 0);
    } catch (QORException& e) {
        return e.getMessage();
    }
}

int main() {
    for (std::string line; std::cin;) {
        RecordingOutputStream os;
        WriterCalls calls(os);
        while (std::getline(std::cin, line) && !line.empty()) {
            auto const error = raised([&] { calls.make(Call(line)); });
            if (error) throw std::runtime_error(error->toString());
        }
        std::string const bytes = os.joined();
        std::string const tree = readBack(bytes);
        std::cout << tree.size() << ' ' << bytes.size() << '\n' << tree << bytes;
    }
}
