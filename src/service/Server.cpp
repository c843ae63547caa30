#include "service/Server.h"

#include <utility>

#include "service/ServerCore.h"

namespace postwire {

namespace {

ServerOptions onPort(int port) {
    ServerOptions options;
    options.port = port;
    return options;
}

}  // namespace

Server::Server(int port) : Server(onPort(port)) {}
Server::Server(ServerOptions const& options) : m_core(std::make_unique<ServerCore>(options)) {}
Server::~Server() = default;

int Server::port() const { return m_core->address().port(); }

std::string Server::address() const { return m_core->address().host(); }
ServerLoad Server::load() const noexcept { return m_core->load(); }
void Server::run(Handler handler) { m_core->run(std::move(handler)); }
void Server::stop() noexcept { m_core->stop(); }

}  // namespace postwire
