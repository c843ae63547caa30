// Reads an MTOM request from a file, and tells what each xop:Include of its envelope stands for.
#include <fstream>
#include <iostream>
#include <sstream>

#include <pugixml.hpp>

#include "foundation/ZULBufferedInputStream.h"
#include "foundation/ZULMemoryInputStream.h"

#include "parser/HTTPMessageReader.h"
#include "parser/HTTPReadPolicy.h"
#include "service/Attachments.h"
#include "service/LibraryError.h"

namespace {

// All elements of that name, whatever their prefix.
constexpr char kIncludes[] = "//*[local-name()='Include']";

int tell(std::string const& bytes) {
    ZULMemoryInputStream memory(bytes.data(), static_cast<int>(bytes.size()));
    ZULBufferedInputStream in(memory, 4096);
    HTTPMessageReader reader(in);
    reader.setReadPolicy(HTTPReadPolicy::hardened());
    HTTPMessage message;
    std::string uri;
    reader.getRequest(&message, &uri);

    postwire::Attachments const came(message);
    std::string const envelope = came.root().decoded();
    pugi::xml_document document;
    if (!document.load_buffer(envelope.data(), envelope.size())) return 1;
    for (pugi::xpath_node const& found : document.select_nodes(kIncludes)) {
        std::string const href = found.node().attribute("href").value();
        postwire::FoundAttachment const part = came.byHref(href);
        std::cout << found.node().parent().name() << ": ";
        if (part)
            std::cout << part->decoded().size() << " bytes of " << part->type().value() << '\n';
        else
            std::cout << "no part is " << href << '\n';
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) try {
    std::ifstream file(argc > 1 ? argv[1] : "", std::ios::binary);
    std::ostringstream bytes;
    bytes << file.rdbuf();
    return postwire::raisingStdExceptions([&] { return tell(bytes.str()); });
} catch (std::exception const& e) {
    std::cerr << e.what() << '\n';
    return 1;
}
