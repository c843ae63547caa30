#pragma once

#include <string>
#include <vector>

#include "tools/common/HeaderFields.h"
#include "tools/common/SentFile.h"
#include "tools/send/HttpUrl.h"

class ZULOutputStream;

// A SOAP message to be posted: an envelope, and files that travel with it.
struct SoapRequest {
    HttpUrl url;
    SentFile envelope;
    std::vector<SentFile> attachments;
    std::vector<HeaderField> fields;
    std::string boundary;  // empty: one is made
    int chunkSize = 0;     // 0: with a length, for which all of it is held in memory
    bool direct = false;   // chunked, and each block of an attachment a chunk: no file is held
    bool nested = false;   // the attachments form a multipart part of their own

    long long bodySize() const;
};

// Settles what can be settled before there is a connection: boundary and Content-IDs. Raises
// std::invalid_argument with a text for a person when the boundary asked for is none or occurs in a
// file, when two files have one Content-ID, when a header field was given that the request makes
// itself, and when a file is too large to be held.
void prepare(SoapRequest& request);

// Writes the request and fills in the SHA-256 of each file. Raises std::runtime_error when a file
// can't be read or has another size than before, and what the stream raises.
void write(SoapRequest& request, ZULOutputStream& out);
