#include "tools/send/SoapRequest.h"

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <memory>
#include <numeric>
#include <set>
#include <stdexcept>
#include <system_error>

#include "foundation/ZULChunkedOutputStream.h"

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

// The file's bytes, whose digest is known once they have gone.
ByteSource sourceOf(SentFile& file) {
    if (file.bytes) {
        file.sha256 = sha256(file.bytes->data(), file.bytes->size());
        return ByteSource::borrowed(*file.bytes);
    }
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

// Fields whose value follows from how the message is sent.
void refuseOwnFields(SoapRequest const& request) {
    for (HeaderField const& field : request.fields) {
        bool const type = equalsInAnyCase(field.name, "Content-Type");
        if (equalsInAnyCase(field.name, "Content-Length") ||
            equalsInAnyCase(field.name, "Transfer-Encoding") ||
            equalsInAnyCase(field.name, "Connection") || (type && isMultipart(request)))
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
    ByteSource envelope = sourceOf(request.envelope);
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
        message.attach({sourceOf(file), file.type, file.contentId, "",
                        file.path.substr(file.path.rfind('/') + 1), request.coding});
    return message;
}

// The fields asked for come in the place of those made here.
std::string headOf(SoapRequest const& request) {
    OutgoingMessage const& message = *request.message;
    std::vector<HeaderField> fields = {{"Host", hostField(request.url)},
                                       {"Connection", "close"},
                                       {"User-Agent", "postwire-send/" POSTWIRE_VERSION},
                                       {"Content-Type", message.contentType()}};
    for (auto const& [name, text] : message.requestFields()) fields.push_back({name, text});
    bool const isSoap12 = beginsInAnyCase(request.envelope.type, "application/soap+xml");
    if (request.soap.empty() && request.action.empty() && !isSoap12)
        fields.push_back({"SOAPAction", "\"\""});
    if (request.chunkSize > 0)
        fields.push_back({"Transfer-Encoding", "chunked"});
    else
        fields.push_back({"Content-Length", std::to_string(*message.size())});
    for (HeaderField const& asked : request.fields) {
        auto const has = std::find_if(fields.begin(), fields.end(), [&](HeaderField const& field) {
            return equalsInAnyCase(field.name, asked.name);
        });
        if (has == fields.end())
            fields.push_back(asked);
        else
            has->value = asked.value;
    }
    std::string head = "POST " + request.url.target + " HTTP/1.1\r\n";
    for (HeaderField const& field : fields) head += field.name + ": " + field.value + "\r\n";
    return head + "\r\n";
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

void write(SoapRequest& request, ZULOutputStream& out) {
    std::string const head = headOf(request);
    out.write(head.data(), static_cast<int>(head.size()));
    if (request.chunkSize == 0) return request.message->write(out);
    ZULChunkedOutputStream chunks(out, request.chunkSize);
    request.message->write(chunks);
    chunks.close();
}
