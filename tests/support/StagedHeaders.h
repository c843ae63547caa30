#pragma once

#include "foundation/ZULMemoryOutputStream.h"

#include "sender/HTTPMessageSender.h"

// A node for the sake of its headers, which it keeps as texts until someone asks.
struct StagedHeaders : private ZULMemoryOutputStream, HttpMsgNode {
    StagedHeaders()
        : ZULMemoryOutputStream(16, 16),
          HttpMsgNode(static_cast<ZULMemoryOutputStream&>(*this), 0) {}
    using HttpMsgNode::headers;
};
