// Posts an envelope with files, and lists what comes back: URL ENVELOPE [FILE...]
#include <cstdio>

#include "service/Attachments.h"
#include "service/Client.h"

int main(int argc, char** argv) try {
    using namespace postwire;
    if (argc < 3) return 2;
    OutgoingMessage message(SoapVersion::soap12, ByteSource::file(argv[2]));
    for (char** file = argv + 3; *file; ++file)
        message.attach({ByteSource::file(*file), "text/plain", "", "", *file});
    Answer const answer = Client().post(argv[1], message);
    Attachments const came(answer);
    std::printf("%d %s\n", answer.status(), came.root().decoded().c_str());
    for (Attachment const& part : came.all())
        std::printf("%s: %zu bytes\n", part.fileName().c_str(), part.decoded().size());
} catch (std::exception const& e) {
    return std::fprintf(stderr, "%s\n", e.what()) > 0;
}
