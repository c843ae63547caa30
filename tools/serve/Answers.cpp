#include "tools/serve/Answers.h"

#include <cstdio>

#include "foundation/QORThrowable.h"

#include "service/ServiceError.h"
#include "tools/serve/Complaints.h"
#include "tools/serve/Echo.h"
#include "tools/serve/Receipt.h"

Answers::Answers(AnswerOptions const& options) : m_options(options) {
    if (options.saveFolder.empty()) return;
    m_files = std::make_unique<PartFiles>(options.saveFolder);
    m_files->requireWritable();
}

// A client that has gone, or does not take its answer, is no fault of this machine's.
void Answers::answer(postwire::Request& request, postwire::Response& response) try {
    if (m_files) save(request.message());
    give(request, response);
} catch (postwire::ServiceError const& e) {
    using Code = postwire::ServiceError::Code;
    if (e.code() != Code::peerGone && e.code() != Code::timeLimit) complain(e.what());
    throw;
} catch (QORThrowable& e) {
    complain(e.toString());
    throw;
} catch (std::exception const& e) {
    complain(e.what());
    throw;
}

void Answers::save(HTTPMessage& message) {
    char prefix[16];
    std::snprintf(prefix, sizeof prefix, "%06d-", ++m_requests);
    m_files->save(message, prefix);
}

void Answers::give(postwire::Request& request, postwire::Response& response) const {
    if (m_options.echo)
        sendEcho(request, response, m_options.chunkSize);
    else if (!m_options.type.empty())
        response.send(200, m_options.type, m_options.body);
    else
        response.send(200, "application/xml; charset=utf-8", makeReceipt(request));
}
