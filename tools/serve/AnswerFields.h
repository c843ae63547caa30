#pragma once

#include "tools/common/WholeMessage.h"

// The time now as a Date field gives it, RFC 9110 section 5.6.7. Good until the thread's next call.
char const* httpDate();

// The fields of every answer that are the server's own, whatever else stands in its head.
struct AnswerFields {
    char const* connection;  // null: no such field

    // Replaces fields of these names.
    template <class Node>
    void set(WholeMessage<Node>& node) const {
        node.setField("Date", httpDate());
        if (connection) node.setField("Connection", connection);
    }
};
