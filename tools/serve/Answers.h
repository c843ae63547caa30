#pragma once

#include <atomic>
#include <memory>
#include <string>

#include "service/Request.h"
#include "service/Response.h"
#include "tools/common/PartFiles.h"

struct AnswerOptions {
    bool echo = false;
    int chunkSize = 0;  // of echoed messages; 0: with a length
    std::string body;   // sent instead of a receipt where there is a type
    std::string type;
    std::string saveFolder;  // empty: nothing is saved
};

// Makes the answer to each request: a receipt, the message again, or a file. Saves its parts first,
// where that is asked for.
//
// Raises: std::system_error for a folder in which nothing can be made.
class Answers {
public:
    explicit Answers(AnswerOptions const& options);

    // From several threads at once. What goes wrong is told on standard error, and raised.
    void answer(postwire::Request& request, postwire::Response& response);

private:
    void save(HTTPMessage& message);
    void give(postwire::Request& request, postwire::Response& response) const;

    AnswerOptions const& m_options;
    std::unique_ptr<PartFiles> m_files;
    std::atomic<int> m_requests{0};
};
