#include "service/Response.h"

#include "service/Exchange.h"

namespace postwire {

void Response::setHeader(std::string_view name, std::string_view text) {
    m_exchange.answer.setHeader(name, text);
}

void Response::send(int status, std::string_view type, std::string_view body) {
    m_exchange.answer.send(status, type, body);
}

}  // namespace postwire
