#include "service/Response.h"

#include "service/Exchange.h"

namespace postwire {

void Response::setHeader(std::string_view name, std::string_view text) {
    m_exchange.answer.setHeader(name, text);
}

void Response::send(int status, std::string_view type, std::string_view body) {
    m_exchange.answer.send(status, type, body);
}

void Response::send(int status, OutgoingMessage const& message) {
    m_exchange.answer.send(status, message);
}

OnePieceHttpMsg& Response::onePiece(int status, std::string_view type, int chunkSize) {
    return m_exchange.answer.onePiece(status, type, chunkSize);
}

MultipartHttpMsg& Response::multipart(int status, int chunkSize) {
    return m_exchange.answer.multipart(status, chunkSize);
}

ZULOutputStream& Response::stream(int status, std::string_view type, std::uint64_t length,
                                  int chunkSize) {
    return m_exchange.answer.stream(status, type, length, chunkSize);
}

void Response::addPart(std::string_view type, std::string_view id, std::string_view bytes) {
    m_exchange.answer.addPart(type, id, bytes);
}

}  // namespace postwire
