#include <cstdio>
#include <memory>
#include <string>

#include "foundation/QORByteBuffer.h"

#include "message/HTTPMessage.h"

// A SOAP envelope with an attachment, built as a tree, shown as a tree and as it goes on the wire.

static std::unique_ptr<HTTPMessage> makePart(char const* type, char const* id,
                                             std::string const& body) {
    auto part = std::make_unique<HTTPMessage>();
    part->setHeader("Content-Type", type);
    part->setHeader("Content-ID", id);
    part->setContent(body.data(), static_cast<int>(body.size()));
    return part;
}

static void addPart(HTTPMessage& message, std::unique_ptr<HTTPMessage> part) {
    message.addChild(part.get());
    part.release();  // only now: the part is ours if addChild raises
}

static void print(HTTPMessage& message, int depth) {
    char const* const charset = message.getCharset();
    std::printf("%*s%s%s%s, ", 2 * depth, "", message.getContentType(), *charset ? " in " : "",
                charset);
    if (message.num_parts() == 0) {
        std::printf("%d bytes: %.20s\n", message.contentSize(), message.contentBytes());
        return;
    }
    std::printf("%d parts\n", message.num_parts());
    for (int i = 0; i < message.num_parts(); ++i) print(*message.getPart(i), depth + 1);
}

int main() {
    HTTPMessage message;
    message.setHeader("Content-Type", "multipart/related; boundary=part-line; type=text/xml");
    message.setHeader("SOAPAction", "\"urn:store\"");
    message.setBoundary("part-line");
    addPart(message, makePart("text/xml; charset=utf-8", "<envelope>",
                              "<Envelope><Body><store/></Body></Envelope>"));
    addPart(message, makePart("text/plain; charset=us-ascii", "<note>", "A note to keep."));

    std::puts("The tree:");
    print(message, 1);

    QORByteBuffer wire(1024, 1024);
    message.dump(wire, 0);
    std::printf("\nOn the wire, %u bytes:\n%s", wire.pcount(), wire.str());
}
