#pragma once

#include "foundation/QORThrowable.h"

#include "foundation/HTTPException.h"
#include "parser/HTTPPolicyException.h"

// How the parser raises what it finds wrong with its input: with the code's text as the one
// message.

namespace postwire::internal {

// The operations of the parser, as its errors name them.
inline constexpr char kParseRequest[] =
    "void HTTPParser::parseRequest( ZULBufferedInputStream *is )";
inline constexpr char kParseResponse[] =
    "void HTTPParser::parseResponse( ZULBufferedInputStream *is )";
inline constexpr char kValidateRequestLine[] =
    "void HTTPParser::validateRequestLine( QORByteBuffer &line )";
inline constexpr char kValidateResponseLine[] =
    "void HTTPParser::validateResponseLine( QORByteBuffer &line )";
inline constexpr char kProcessHeaders[] =
    "void HTTPParser::processHeaders( ZULBufferedInputStream *is )";
inline constexpr char kProcessHeader[] = "void HTTPParser::processHeader( QORByteBuffer &osline )";
inline constexpr char kProcessEntities[] =
    "void HTTPParser::processEntities( ZULBufferedInputStream *is )";

// A code of any reading, from 1000 to 1010: they are HTTPParser's, whichever file finds the fault.
[[noreturn]] void raise(HTTPException::plexaErrorCode code, char const* method, int line);

// A code that a policy adds, where the default reads on, fails an assertion or leaves the error to
// a stream.
[[noreturn]] void refuse(HTTPPolicyException::PolicyErrorCode code, QORFileLocation const& where);

}  // namespace postwire::internal
