#include "tools/send/SoapRequest.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <fstream>
#include <numeric>
#include <set>
#include <stdexcept>
#include <system_error>

#include "foundation/AsciiText.h"
#include "tools/common/BlockReader.h"
#include "tools/common/Boundary.h"
#include "tools/common/PartFiles.h"
#include "tools/common/Sha256.h"
#include "tools/common/WholeMessage.h"

namespace {

// The fields asked for come last, so that they replace those made here.
template <class Node>
void start(WholeMessage<Node>& message, SoapRequest const& request, std::string const& type) {
    message.startRequest(request.url.target.c_str(), 0);
    message.setField("Host", hostField(request.url).c_str());
    message.setField("Connection", "close");
    message.setField("User-Agent", "postwire-send/" POSTWIRE_VERSION);
    message.setField("SOAPAction", "\"\"");
    message.setField("Content-Type", type.c_str());
    for (HeaderField const& field : request.fields)
        message.setField(field.name.c_str(), field.value.c_str());
}

std::ifstream open(std::string const& path) {
    std::ifstream stream(path, std::ios::binary);
    if (!stream) throw std::system_error(errno, std::generic_category(), path);
    return stream;
}

// The file's bytes, block by block, as the body of a node.
void writeBody(OnePieceHttpMsg& node, SentFile& file) {
    std::ifstream stream = open(file.path);
    Sha256 digest;
    long long sent = 0;
    for (BlockReader block(stream); block.next();) {
        sent += static_cast<long long>(block.size());
        // The size may be on the wire already: what goes beyond it would be read as what follows.
        if (sent > file.size) break;
        digest.add(block.bytes(), block.size());
        node.write(block.bytes(), static_cast<int>(block.size()));
    }
    if (stream.bad() || sent != file.size)
        throw std::runtime_error(file.path + ": can't be read, or its size has changed");
    file.sha256 = digest.hex();
}

// An empty part must not be direct: it would leave no head behind.
void writePart(MultipartHttpMsg& parent, SentFile& file, bool direct) {
    bool const inChunks = direct && file.size > 0;
    OnePieceHttpMsg* const part = parent.addOnePiece(inChunks ? -1 : 0);
    part->reset();  // no Host in a part
    part->setHeader("Content-Type", file.type.c_str());
    part->setHeader("Content-ID", ("<" + file.contentId + ">").c_str());
    part->setHeader("Content-Transfer-Encoding", "binary");
    // For readers that do not look for delimiters in bodies.
    if (inChunks) part->setHeader("Content-Length", std::to_string(file.size).c_str());
    writeBody(*part, file);
    parent.endPart(part);
}

void writeAttachments(SoapRequest& request, MultipartHttpMsg& parent) {
    for (SentFile& file : request.attachments) writePart(parent, file, request.direct);
}

// Of the parts around the attachments, where they are nested. The boundary around must not be how
// this one begins: a reader may take such a line for a delimiter.
std::string innerBoundary(SoapRequest const& request) { return "in-" + request.boundary; }

void writeNestedAttachments(SoapRequest& request, MultipartHttpMsg& parent) {
    std::string const boundary = innerBoundary(request);
    MultipartHttpMsg* const part = parent.addMultiPart(0, boundary.c_str());
    part->reset();
    part->setHeader("Content-Type", ("multipart/mixed; boundary=" + boundary).c_str());
    writeAttachments(request, *part);
    parent.endPart(part);
}

// RFC 2387: the parameter type is that of the root part, which start names.
std::string relatedType(SoapRequest const& request) {
    std::string const& type = request.envelope.type;
    return "multipart/related; boundary=\"" + request.boundary + "\"; type=\"" +
           type.substr(0, type.find_first_of("; ")) + "\"; start=\"<" + request.envelope.contentId +
           ">\"";
}

void writeMultipart(SoapRequest& request, ZULOutputStream& out) {
    WholeMultipart message(out, request.chunkSize, request.boundary.c_str());
    start(message, request, relatedType(request));
    writePart(message, request.envelope, false);
    if (request.nested) {
        writeNestedAttachments(request, message);
    } else {
        writeAttachments(request, message);
    }
    message.finish();
}

void writeOnePiece(SoapRequest& request, ZULOutputStream& out) {
    WholeOnePiece message(out, request.chunkSize);
    start(message, request, request.envelope.type);
    writeBody(message, request.envelope);
    message.finish();
}

// Fields whose value follows from how the message is sent.
void refuseOwnFields(SoapRequest const& request) {
    for (HeaderField const& field : request.fields) {
        bool const type = equalsInAnyCase(field.name, "Content-Type");
        if (equalsInAnyCase(field.name, "Content-Length") ||
            equalsInAnyCase(field.name, "Transfer-Encoding") ||
            equalsInAnyCase(field.name, "Connection") || (type && !request.attachments.empty()))
            throw std::invalid_argument(field.name + " follows from how the message is sent");
    }
}

// The most that stands in memory at a time.
long long heldAtOnce(SoapRequest const& request) {
    if (request.chunkSize == 0 || request.nested) return request.bodySize();
    if (request.attachments.empty()) return 0;
    long long held = request.envelope.size;
    for (SentFile const& file : request.attachments)
        if (!request.direct) held = std::max(held, file.size);
    return held;
}

void refuseTooLarge(SoapRequest const& request) {
    constexpr int kAroundBodies = 1 << 20;
    if (heldAtOnce(request) > INT_MAX - kAroundBodies)
        throw std::invalid_argument(request.attachments.empty()
                                        ? "the body is too large to be sent without --chunked"
                                        : "the files are too large to be sent without --direct");
}

void makeContentIds(SoapRequest& request) {
    std::set<std::string> taken{request.envelope.contentId};
    for (SentFile& file : request.attachments)
        if (!file.contentId.empty() && !taken.insert(file.contentId).second)
            throw std::invalid_argument("two parts have the Content-ID " + file.contentId);
    for (SentFile& file : request.attachments) {
        std::string const name = safeFileName(file.path, "attachment");
        for (int number = 1; file.contentId.empty(); ++number) {
            std::string id = number == 1 ? name : name + "-" + std::to_string(number);
            if (taken.insert(id += "@postwire").second) file.contentId = id;
        }
    }
}

bool occursInFile(std::string const& boundary, SentFile const& file) {
    std::ifstream stream = open(file.path);
    return boundaryOccurs(boundary, stream);
}

void checkBoundary(SoapRequest const& request) {
    if (!isPlainBoundary(innerBoundary(request)))
        throw std::invalid_argument("a boundary is made of at most 67 letters, digits and '+_.-");
    auto const refuseIn = [&](SentFile const& file) {
        if (occursInFile(request.boundary, file) || occursInFile(innerBoundary(request), file))
            throw std::invalid_argument("the boundary " + request.boundary + " occurs in " +
                                        file.path + "; without --boundary one is made");
    };
    refuseIn(request.envelope);
    std::for_each(request.attachments.begin(), request.attachments.end(), refuseIn);
}

}  // namespace

long long SoapRequest::bodySize() const {
    return std::accumulate(attachments.begin(), attachments.end(), envelope.size,
                           [](long long sum, SentFile const& file) { return sum + file.size; });
}

void prepare(SoapRequest& request) {
    refuseOwnFields(request);
    refuseTooLarge(request);
    makeContentIds(request);
    if (request.boundary.empty()) {
        request.boundary = makeBoundary();
    } else {
        checkBoundary(request);
    }
}

void write(SoapRequest& request, ZULOutputStream& out) {
    if (request.attachments.empty()) {
        writeOnePiece(request, out);
    } else {
        writeMultipart(request, out);
    }
}
