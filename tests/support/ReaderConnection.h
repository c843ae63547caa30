#pragma once

#include <string>

#include <gtest/gtest.h>

#include "parser/HTTPMessageReader.h"
#include "support/FragmentingStream.h"
#include "support/TreeText.h"

// A reader of bytes that arrive in pieces, and what it read last.
struct ReaderConnection {
    explicit ReaderConnection(std::string const& bytes, int step = kAllAtOnce)
        : wire(bytes, step) {}

    FragmentingStream wire;
    ZULBufferedInputStream buffered{wire, 4096};
    HTTPMessageReader reader{buffered};
    HTTPMessage message;
    HTTPMessage::StatusCode status{};
    std::string text;

    void request() { reader.getRequest(&message, &text); }
    // The tree, and a line "request /uri" in front.
    std::string requestTree() {
        request();
        return "request " + text + '\n' + treeText(message);
    }
    // The same with "response 200 OK".
    std::string responseTree() {
        reader.getResponse(&message, &status, &text);
        return "response " + std::to_string(status) + ' ' + text + '\n' + treeText(message);
    }
    // All was read: a request that comes now is found.
    void expectNextRequest() {
        wire.append("POST /next HTTP/1.1\r\nContent-Length: 2\r\n\r\nok");
        EXPECT_EQ(requestTree(), "request /next\n  content-length: 2\n  body 2 79dcdd47 ok\n");
    }
};
