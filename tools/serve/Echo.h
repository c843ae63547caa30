#pragma once

#include "tools/common/WholeMessage.h"
#include "tools/serve/AnswerFields.h"

struct Request;

// Write a response that is the request's message again: its header fields and body, or each of its
// parts with its own. Fields that belong to the connection or to the request alone are left out;
// quotes around values and white space in them were lost in reading, and control characters become
// blanks. The request's heads are of no use afterwards.

// A message with one body.
void writeEcho(WholeOnePiece& node, Request& request, AnswerFields const& own);

// A message with parts, which have a length each. The boundary is the request's, unless it needs
// quotes or occurs in a part.
void writeMultipartEcho(ZULOutputStream& out, int chunkSize, Request& request,
                        AnswerFields const& own);
