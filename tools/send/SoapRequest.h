#pragma once

#include <optional>
#include <string>
#include <vector>

#include "service/Client.h"
#include "service/OutgoingMessage.h"
#include "tools/common/HeaderFields.h"
#include "tools/common/SentFile.h"

// A SOAP message to be posted: an envelope, and files that travel with it.
struct SoapRequest {
    SentFile envelope;
    std::vector<SentFile> attachments;
    std::vector<HeaderField> fields;
    std::string boundary;  // empty: one is made
    int chunkSize = 0;     // 0: with a length
    bool nested = false;   // the attachments form a multipart part of their own
    std::string soap;      // "1.1" or "1.2"; empty: the envelope's type is what counts
    std::string action;
    std::string start;  // Content-ID of the envelope; empty: one is given
    bool mtom = false;
    bool isDigested = false;  // the SHA-256 of each file is wanted
    postwire::TransferCoding coding = postwire::TransferCoding::binary;  // of the attachments
    std::optional<postwire::OutgoingMessage> message;                    // once it is prepared

    long long bodySize() const;
};

// Settles what can be settled before there is a connection: boundary, Content-IDs, and the message.
// The request must stay where it is. Raises std::invalid_argument with a text for a person when the
// boundary asked for is none or occurs in a file, when two files have one Content-ID, and when a
// header field was given that the request makes itself.
void prepare(SoapRequest& request);

// The request's body as a client sends it. Writing it fills in the SHA-256 of each file where that
// is wanted, and raises postwire::ServiceError where a file can't be read or has another size than
// before.
postwire::OutgoingBody bodyOf(SoapRequest& request);
