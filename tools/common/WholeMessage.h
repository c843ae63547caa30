#pragma once

#include "message/HTTPMessage.h"
#include "sender/HTTPMessageSender.h"

// A node for a whole message whose header fields go out as they are given. HttpMsgNode::setHeader
// takes a text apart and puts it together again, which loses quotes, and what stands between two
// semicolons without "=".
template <class Node>
class WholeMessage : public Node {
public:
    using Node::Node;

    void setField(char const* name, char const* value) {
        HTTPHeader text(value);
        this->headers.moveHeader(name, text);
    }

    // Leaves the field given empty.
    void takeField(char const* name, HTTPHeader& value) { this->headers.moveHeader(name, value); }
};

using WholeOnePiece = WholeMessage<OnePieceHttpMsg>;
using WholeMultipart = WholeMessage<MultipartHttpMsg>;
