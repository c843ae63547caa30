// Posts an envelope with files, and lists what comes back: URL ENVELOPE [FILE...]
#include <cstdio>

#include "service/Attachments.h"
#include "service/Client.h"

int main(int argc, char** argv) try {
    using postwire::ByteSource;
    if (argc < 3) return 2;
    postwire::OutgoingMessage message(postwire::SoapVersion::soap12, ByteSource::file(argv[2]));
    message.setAction("urn:store");
    for (char** file = argv + 3; *file; ++file)
        message.attach({ByteSource::file(*file), "text/plain", "", "", *file});

    postwire::Answer answer = postwire::Client().post(argv[1], message);
    postwire::Attachments const came(answer.message());
    std::printf("%d %s\n", answer.status(), came.root().decoded().c_str());
    for (postwire::Attachment const& part : came.all())
        std::printf("%s: %zu bytes\n", part.fileName().c_str(), part.decoded().size());
    return answer.isGood() ? 0 : 1;
} catch (std::exception const& e) {
    std::fprintf(stderr, "%s\n", e.what());
    return 1;
}
