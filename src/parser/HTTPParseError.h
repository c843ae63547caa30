#pragma once

#include "foundation/HTTPException.h"
#include "parser/HTTPReadPolicy.h"

// How the parser raises what it finds wrong with its input: the code's text as the one message, and
// the method text in the back-trace.

namespace parseError {

inline constexpr char kParseRequest[] =
    "void HTTPParser::parseRequest( ZULBufferedInputStream *is )";
inline constexpr char kParseResponse[] =
    "void HTTPParser::parseResponse( ZULBufferedInputStream *is )";
inline constexpr char kValidateResponseLine[] =
    "void HTTPParser::validateResponseLine( QORByteBuffer &line )";
inline constexpr char kProcessHeaders[] =
    "void HTTPParser::processHeaders( ZULBufferedInputStream *is )";
inline constexpr char kProcessEntities[] =
    "void HTTPParser::processEntities( ZULBufferedInputStream *is )";

[[noreturn]] void raise(HTTPException::plexaErrorCode code, char const* method, int line);
[[noreturn]] void raise(HTTPPolicyException::PolicyErrorCode code, QORFileLocation const& where);

}  // namespace parseError
