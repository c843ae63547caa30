// A server for attachments of any size: each request's body goes to a file of its own while it
// comes, in constant memory.
//
// usage: serve_uploads PORT FOLDER
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <string>

#include "foundation/ZULInputStream.h"

#include "parser/HTTPMsgHandler.h"
#include "service/Server.h"

namespace {

// Writes bodies behind each other into one file; a handler with parts would open one for each.
class Upload : public HTTPMsgHandler {
public:
    explicit Upload(std::string const& path) : m_file(path, std::ios::binary) {}

    long long size() const { return m_size; }

    void reset() override {}
    void setURI(char const*) override {}
    void setStatusCode(HTTPMessage::StatusCode) override {}
    void setStatusMessage(char const*) override {}
    void header(char const*, HTTPHeader*) override {}
    void content(ZULInputStream& is, int) override { content(is); }
    void content(ZULInputStream& is) override {
        char block[65536];
        for (int n; (n = is.read(block, sizeof block)) > 0; m_size += n) m_file.write(block, n);
    }
    void endMessage() override { m_file.close(); }

private:
    std::ofstream m_file;
    long long m_size = 0;
};

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) return 2;
    std::string const folder = argv[2];
    std::atomic<int> uploads{0};

    postwire::ServerOptions options;
    options.port = std::atoi(argv[1]);
    options.chooseBody = [&](postwire::Request&) {
        postwire::BodyChoice choice;
        choice.handler = std::make_shared<Upload>(folder + "/" + std::to_string(++uploads));
        choice.maxBody = 1LL << 40;
        choice.limit = std::chrono::hours(1);
        return choice;
    };

    postwire::Server server(options);
    std::fprintf(stderr, "listening on http://127.0.0.1:%d/\n", server.port());
    server.run([](postwire::Request& request, postwire::Response& response) {
        auto const& upload = dynamic_cast<Upload&>(*request.bodyHandler());
        response.send(200, "text/plain", std::to_string(upload.size()) + "\n");
    });
}
