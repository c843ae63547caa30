#include "tools/serve/ServedConnection.h"

#include <algorithm>
#include <chrono>
#include <cstdio>

#include <sys/socket.h>

#include "foundation/QORThrowable.h"
#include "foundation/ZULStreamException.h"

#include "foundation/HTTPException.h"
#include "parser/HTTPReadPolicy.h"
#include "tools/serve/Echo.h"
#include "tools/serve/Receipt.h"
#include "tools/serve/Server.h"

namespace {

constexpr int kAnswerBuffer = 65536;
// What is taken from a client that was refused, so that it gets its answer: closing a connection
// with input unread makes the system drop what the client has not read yet, RFC 9112 section 9.6.
constexpr int kDiscardedBytes = 65536;
constexpr std::chrono::seconds kDiscardTime{2};

char const* reasonOf(int status) {
    switch (status) {
        case 400:
            return "Bad Request";
        case 405:
            return "Method Not Allowed";
        case 408:
            return "Request Timeout";
        case 413:
            return "Content Too Large";
        case 414:
            return "URI Too Long";
        case 431:
            return "Request Header Fields Too Large";
        case 501:
            return "Not Implemented";
        case 505:
            return "HTTP Version Not Supported";
        default:
            return "Internal Server Error";
    }
}

std::string textOf(QORThrowable const& e) {
    char const* const text = e.getMessage();
    return text ? text : e.getThrowableName();
}

}  // namespace

void ConnectionDeadline::startIdle() {
    start(m_server.options().idleTimeout);
    m_idleUntil = Clock::now() + DeadlineInputStream::kCheckInterval;
}

void ConnectionDeadline::startRequest() {
    start(m_server.options().requestTimeout);
    m_idleUntil = Clock::time_point::max();
}

void ConnectionDeadline::check() const {
    Clock::time_point const now = Clock::now();
    if (now >= std::min(end(), m_server.stopBy()) ||
        (now >= m_idleUntil && m_server.wantsIdleToEnd()))
        throw TimeLimitPassed("the request took too long");
}

ServedConnection::ServedConnection(Server& server, int descriptor)
    : m_server(server),
      m_descriptor(descriptor),
      m_socket(descriptor),
      m_deadline(server),
      m_in(m_socket, m_deadline),
      m_out(*m_socket.getOutputStream(), m_deadline),
      m_answer(m_out, kAnswerBuffer),
      m_reader(m_in, m_out, server.options().maxBody, server.options().echo,
               !server.options().contract),
      m_node(m_answer, 0) {
    limitSends(descriptor, server.options().requestTimeout);
    if (!server.options().traceDirectory.empty()) m_socket.traceInto(server.makeTraceFile());
}

ServedConnection::~ServedConnection() {
    if (!m_socket.endTrace())
        std::fprintf(stderr, "postwire-serve: a trace in %s could not be written\n",
                     m_server.options().traceDirectory.c_str());
}

void ServedConnection::run() {
    while (serveRequest()) {
    }
}

// Whether another request may follow.
bool ServedConnection::serveRequest() {
    m_deadline.startIdle();
    if (!m_reader.waitForRequest()) return false;
    m_deadline.startRequest();
    m_writtenBefore = -1;
    std::optional<Refusal> refusal = read();
    if (!refusal) refusal = answer();
    if (refusal) {
        refuse(*refusal);
    } else if (m_server.options().contract) {
        discardInput();  // the client did not ask for the end: it may have sent more
    }
    return !refusal && m_request.keepAlive;
}

// 400 for what input alone can bring about, assertions of the parser among it: their text is for
// its authors.
std::optional<ServedConnection::Refusal> ServedConnection::read() try {
    m_reader.read(m_request);
    return {};
} catch (RequestRefused const& e) {
    return Refusal{e.status, e.what()};
} catch (SizeLimitPassed const& e) {
    return Refusal{413, e.what()};
} catch (TimeLimitPassed const& e) {
    return Refusal{408, e.what()};
} catch (HTTPException const& e) {
    return Refusal{HTTPPolicyException::getHttpStatus(e), textOf(e)};
} catch (ZULStreamException const& e) {
    bool const target =
        e.getCode() == ZULStreamException::ZUL_ERR_LINE_TOO_LONG && m_request.uri.empty();
    return Refusal{target ? 414 : 400, textOf(e)};
} catch (QORAssertError const&) {
    return Refusal{400, "the request can't be read"};
} catch (QORThrowable& e) {
    Server::complain(e.toString());
    return Refusal{500, "the request could not be read"};
} catch (std::exception const& e) {
    Server::complain(e.what());
    return Refusal{500, "the request could not be read"};
}

std::optional<ServedConnection::Refusal> ServedConnection::answer() try {
    m_deadline.startAnswer();
    m_writtenBefore = m_out.bytesWritten();
    m_request.keepAlive = m_request.keepAlive && !m_server.wantsIdleToEnd();
    if (m_server.partFiles()) {
        char prefix[16];
        std::snprintf(prefix, sizeof prefix, "%06d-", m_server.nextRequest());
        m_server.partFiles()->save(m_request.message, prefix);
    }
    ServerOptions const& options = m_server.options();
    if (options.echo) {
        writeEcho();
    } else if (!options.answerType.empty()) {
        writeAnswer(options.answerType, options.answer);
    } else {
        writeAnswer("application/xml; charset=utf-8", makeReceipt(m_request));
    }
    m_answer.flush();
    m_request.message.reset();  // an idle connection holds no body
    return {};
} catch (TimeLimitPassed const&) {
    throw;
} catch (QORThrowable& e) {
    Server::complain(e.toString());
    return Refusal{500, "the request could not be answered"};
} catch (std::exception const& e) {
    Server::complain(e.what());
    return Refusal{500, "the request could not be answered"};
}

// Nothing is said of the connection where going on is what the client's version takes for granted.
AnswerFields ServedConnection::ownFields() const {
    if (!m_request.keepAlive) return {"close"};
    return {m_request.minorVersion == 0 ? "keep-alive" : nullptr};
}

void ServedConnection::writeAnswer(std::string const& type, std::string const& body) {
    m_node.startResponse(200, "OK");
    ownFields().set(m_node);
    m_node.setField("Content-Type", type.c_str());
    m_node.write(body.data(), static_cast<int>(body.size()));
    m_node.finish();
}

void ServedConnection::writeEcho() {
    // An HTTP/1.0 client knows no chunks.
    int const chunkSize = m_request.minorVersion == 0 ? 0 : m_server.options().chunkSize;
    if (m_request.heads.front().multipart) {
        writeMultipartEcho(m_answer, chunkSize, m_request, ownFields());
    } else if (chunkSize == 0) {
        ::writeEcho(m_node, m_request, ownFields());
    } else {
        WholeOnePiece node(m_answer, chunkSize);
        ::writeEcho(node, m_request, ownFields());
    }
}

// Nothing that the client sends from here on is looked at.
void ServedConnection::refuse(Refusal const& refusal) {
    if (m_writtenBefore >= 0 && m_out.bytesWritten() > m_writtenBefore) return;  // half an answer
    m_deadline.startAnswer();
    ZULBufferedOutputStream out(m_out, kAnswerBuffer);  // the other may hold half an answer
    WholeOnePiece node(out, 0);
    node.startResponse(refusal.status, reasonOf(refusal.status));
    AnswerFields{"close"}.set(node);
    if (refusal.status == 405) node.setField("Allow", "POST");
    node.setField("Content-Type", "text/plain; charset=utf-8");
    std::string const text = refusal.text + "\n";
    node.write(text.data(), static_cast<int>(text.size()));
    node.finish();
    out.flush();
    discardInput();
}

void ServedConnection::discardInput() {
    ::shutdown(m_descriptor, SHUT_WR);
    m_deadline.start(kDiscardTime);
    char block[4096];
    for (int left = kDiscardedBytes, n; left > 0; left -= n) {
        n = m_in.read(block, std::min<int>(left, sizeof block));
        if (n <= 0) return;
    }
}
