#include "tools/send/SoapRequest.h"

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <initializer_list>
#include <memory>
#include <numeric>
#include <set>
#include <stdexcept>
#include <string_view>
#include <system_error>

#include "foundation/AsciiText.h"
#include "service/ServiceError.h"
#include "tools/common/Boundary.h"
#include "tools/common/PartFiles.h"
#include "tools/common/Sha256.h"

namespace {

using postwire::ByteSource;
using postwire::OutgoingMessage;
using postwire::ServiceError;
using postwire::SoapVersion;

bool isMultipart(SoapRequest const& request) {
    return request.mtom || !request.attachments.empty();
}

std::ifstream openFile(std::string const& path) {
    std::ifstream stream(path, std::ios::binary);
    if (!stream) throw std::system_error(errno, std::generic_category(), path);
    return stream;
}

// The file's bytes, whose digest, if it is asked for, is known once they have gone.
ByteSource sourceOf(SentFile& file, bool isDigested) {
    if (file.bytes) {
        file.sha256 = sha256(file.bytes->data(), file.bytes->size());
        return ByteSource::borrowed(*file.bytes);
    }
    if (!isDigested) return ByteSource::file(file.path);
    auto const open = [&file]() -> ByteSource::Reader {
        auto const stream = std::make_shared<std::ifstream>(openFile(file.path));
        auto const digest = std::make_shared<Sha256>();
        return [&file, stream, digest](char* bytes, std::size_t n) {
            stream->read(bytes, static_cast<std::streamsize>(n));
            if (stream->bad()) throw std::runtime_error(file.path + " can't be read");
            auto const got = static_cast<std::size_t>(stream->gcount());
            digest->add(bytes, got);
            if (got == 0) file.sha256 = digest->hex();
            return got;
        };
    };
    return ByteSource::reader(open, static_cast<std::uint64_t>(file.size));
}

bool isAny(std::string_view name, std::initializer_list<char const*> names) {
    return std::any_of(names.begin(), names.end(),
                       [name](char const* other) { return equalsInAnyCase(name, other); });
}

// Fields whose value follows from how the message is sent.
void refuseOwnFields(SoapRequest const& request) {
    for (HeaderField const& field : request.fields) {
        bool const type = equalsInAnyCase(field.name, "Content-Type");
        if (isAny(field.name,
                  {"Content-Length", "Transfer-Encoding", "Connection", "Expect", "Trailer"}) ||
            (type && isMultipart(request)))
            throw std::invalid_argument(field.name + " follows from how the message is sent");
    }
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
    std::ifstream stream = openFile(file.path);
    return boundaryOccurs(boundary, stream);
}

void checkBoundary(SoapRequest const& request) {
    auto const refuseIn = [&](SentFile const& file) {
        if (!file.bytes &&
            (occursInFile(request.boundary, file) || occursInFile("in-" + request.boundary, file)))
            throw std::invalid_argument("the boundary " + request.boundary + " occurs in " +
                                        file.path + "; without --boundary one is made");
    };
    refuseIn(request.envelope);
    std::for_each(request.attachments.begin(), request.attachments.end(), refuseIn);
}

OutgoingMessage makeMessage(SoapRequest& request) {
    ByteSource envelope = sourceOf(request.envelope, request.isDigested);
    OutgoingMessage message =
        request.soap.empty()
            ? OutgoingMessage(request.envelope.type, envelope)
            : OutgoingMessage(request.soap == "1.2" ? SoapVersion::soap12 : SoapVersion::soap11,
                              envelope);
    message.setAction(request.action);
    message.setMtom(request.mtom);
    message.setNested(request.nested);
    message.setStart(request.envelope.contentId);
    if (!request.boundary.empty()) message.setBoundary(request.boundary);
    for (SentFile& file : request.attachments)
        message.attach({sourceOf(file, request.isDigested), file.type, file.contentId, "",
                        file.path.substr(file.path.rfind('/') + 1), request.coding});
    return message;
}

}  // namespace

long long SoapRequest::bodySize() const {
    return std::accumulate(attachments.begin(), attachments.end(), envelope.size,
                           [](long long sum, SentFile const& file) { return sum + file.size; });
}

void prepare(SoapRequest& request) try {
    refuseOwnFields(request);
    if (!request.start.empty()) request.envelope.contentId = request.start;
    makeContentIds(request);
    request.message = makeMessage(request);
    if (!request.boundary.empty()) checkBoundary(request);
} catch (ServiceError const& e) {
    if (e.code() != ServiceError::Code::usage) throw;
    throw std::invalid_argument(e.what());
}

postwire::OutgoingBody bodyOf(SoapRequest& request) {
    OutgoingMessage const& message = *request.message;
    postwire::OutgoingBody body;
    body.type = message.contentType();
    body.fields = message.requestFields();
    body.fields.emplace_back("User-Agent", "postwire-send/" POSTWIRE_VERSION);
    bool const isSoap12 = beginsInAnyCase(request.envelope.type, "application/soap+xml");
    if (request.soap.empty() && request.action.empty() && !isSoap12)
        body.fields.emplace_back("SOAPAction", "\"\"");
    body.size = message.size();
    body.chunkSize = static_cast<std::size_t>(request.chunkSize);
    body.isRepeatable = message.isRepeatable();
    body.write = [&message](ZULOutputStream& out) { message.write(out); };
    return body;
}
