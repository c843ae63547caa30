#include "parser/ParseError.h"

namespace postwire::internal {

void raise(HTTPException::plexaErrorCode code, char const* method, int line) {
    HTTPException error(code);
    error << QORMessage(
        I18NString(HTTPException::getMessageString(code), nullptr, -1, nullptr, nullptr));
    error.hurl(QORFileLocation("HTTPParser", line), method, "QOR_THROW");
}

void refuse(HTTPPolicyException::PolicyErrorCode code, QORFileLocation const& where) {
    HTTPPolicyException(code).hurl(where, nullptr, "QOR_THROW");
}

}  // namespace postwire::internal
