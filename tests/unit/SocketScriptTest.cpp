// Runs the scripts of the socket tables: statements, each a verb and its words, and what they give.

#include <chrono>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <list>
#include <sstream>

#include <arpa/inet.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <unistd.h>

#include "foundation/QORThrowable.h"

#include "socket/QORSocketAddress.h"
#include "socket/SoapSocket.h"
#include "support/RowTest.h"
#include "support/SystemCallFaults.h"

namespace {

using Arg = std::string const&;
using Clock = std::chrono::steady_clock;

struct Ended {};  // what the time-limit callback raises

// What a statement does with the words behind its verb; a call without a result gives nothing.
struct Verb {
    template <class Call>
    Verb(Call const& call)
        : run([call](Arg a) {
              if constexpr (std::is_void_v<std::invoke_result_t<Call, Arg>>)
                  return call(a), std::string();
              else
                  return (std::ostringstream() << call(a)).str();
          }) {}
    std::function<std::string(Arg)> run;
};

struct Members : SoapSocket {
    static int made(SoapSocket const& s) { return s.*&Members::m_socket; }
    static char const* held(SoapSocket const& s) {
        int const io = s.*&Members::m_ioSocket;
        if (made(s) == -1) return io == -1 ? "none" : "io";
        return made(s) == io ? "both" : "socket";
    }
};

long descriptors(int flags = -1) {
    long n = 0;
    for (auto const& entry : std::filesystem::directory_iterator("/proc/self/fd"))
        n += flags == -1 || ::fcntl(std::stoi(entry.path().filename()), F_GETFD) == flags;
    return n;
}

sockaddr_storage address(Arg kind) {
    if (kind == "none") return SoapSocket::MaxIPAddress;
    union {
        sockaddr_storage whole{};
        sockaddr_in in;
    } made;
    made.in.sin_family = kind == "ipv6" ? AF_INET6 : AF_INET;
    made.in.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return made.whole;
}

std::string asText(sockaddr_storage const& address) {
    static sockaddr_storage const zero{};
    if (std::memcmp(&address, &zero, sizeof zero) == 0) return "zero";
    if (address.ss_family == 0xFFFF) return "none";
    sockaddr_in in;
    std::memcpy(&in, &address, sizeof in);
    return inet_ntoa(in.sin_addr) + (":" + std::to_string(ntohs(in.sin_port)));
}

std::string replaced(std::string text, std::string const& what, std::string const& by) {
    for (std::size_t at; (at = text.find(what)) != std::string::npos;)
        text.replace(at, what.size(), by);
    return text;
}

// The id and the details, with the name of the error, which stands in errno too, for its text or
// number.
std::string told(SoapSocketException& e) {
    int const error = e.systemError();
    EXPECT_TRUE(error == 0 || error == errno) << std::strerror(errno);
    EXPECT_STREQ("SoapSocket", e.getSourceFileName());
    std::string const details = e.getDetails(), name = error ? strerrorname_np(error) : "";
    std::string const text = error ? replaced(details, std::strerror(error), name) : details;
    return std::to_string(e.id()) + ' ' + replaced(text, "code " + std::to_string(error), name);
}

// A server that listens, a socket `near`, and what they need; far() is the connection accepted
// last.
class World {
public:
    World() {
        std::signal(SIGPIPE, SIG_IGN);
        server.Open(0);
        buffer << "0123456789";
    }
    ~World() {
        for (int fd : owned) ::close(fd);
        std::remove(trace.c_str());
        ::unsetenv("QOR_MODULE_PATH");
    }

    std::string run(std::string const& script) {
        std::string gives;
        for (std::size_t at = 0, end; at < script.size(); at = end + 2) {
            end = std::min(script.find("; ", at), script.size());
            std::string const one = perform(script.substr(at, end - at));
            gives += (gives.empty() || one.empty() ? "" : "; ") + one;
        }
        return gives;
    }

private:
    std::string perform(std::string const& statement) try {
        std::size_t const blank = std::min(statement.find(' '), statement.size());
        std::string const words = statement.substr(blank);
        return verbs.at(statement.substr(0, blank)).run(words.substr(words.size() > 0));
    } catch (SoapSocketException& e) {
        return told(e);
    } catch (QORThrowable const& t) {
        return t.getMessage();
    } catch (char const* const& thrown) {
        return thrown;
    } catch (Ended const&) {
        return "ended";
    }

    template <class... Given>
    void renew(Given... given) {
        near = std::make_unique<SoapSocket>(given...);
    }
    int port() const { return server.m_boundPort; }
    int far() const { return owned.back(); }
    SoapSocket& named(Arg name) { return name == "server" ? server : *near; }
    SoapSocketInputStream& in() { return *near->getInputStream(); }
    SoapSocketOutputStream& out() { return *near->getOutputStream(); }
    unsigned char* memory(Arg a) {
        return a.find("nowhere") == a.npos ? reinterpret_cast<unsigned char*>(bytes) : nullptr;
    }
    int* counter(Arg a) {
        count = 7;
        return a.find("uncounted") == a.npos ? &count : nullptr;
    }
    std::string taken(long n) const {
        return n < 0 ? "-1" : "'" + std::string(bytes, bytes + n) + "'";
    }
    void write(Arg a) {
        std::copy(a.begin(), a.end(), bytes);
        near->WriteBuffer(memory(""), static_cast<int>(a.size()), counter(""));
    }
    std::string options(Arg name) {
        int const fd = name == "far" ? far() : named(name).getDescriptor(),
                  flags = ::fcntl(fd, F_GETFD);
        int noDelay = 0;
        socklen_t length = sizeof noDelay;
        ::getsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &noDelay, &length);
        if (fd == -1) return "none";
        return std::string(flags & FD_CLOEXEC ? "close-on-exec" : "inherited") +
               (noDelay ? ", no delay" : ", delay");
    }
    void resetFar() {
        linger const atOnce{1, 0};
        ::setsockopt(far(), SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
        ::close(far());
        owned.pop_back();
    }
    char const* accepted(int fd) {
        if (fd > 0) owned.push_back(fd);
        return fd > 0 ? "accepted" : fd == 0 ? "no one" : "a negative one";
    }
    // Opened again, a server forgets its descriptor and does not close it.
    void listen(int on) {
        owned.push_back(Members::made(server));
        server.Open(on);
    }
    static void waited(void* self) {
        auto& w = *static_cast<World*>(self);
        if (++w.rounds == w.endAt) throw Ended();
        if (w.rounds == w.sendAt) w.run("farSends late");
    }
    void limit(std::istringstream values) {
        int interval = rounds = 0;
        values >> interval >> endAt >> sendAt;
        near->setTimeLimitCallback(&waited, this, interval);
    }
    // Flags, port and host, or 2 and a URI.
    std::string resolved(std::istringstream values, bool uri) {
        std::string host;
        unsigned short port = 0;
        int flags = 2;
        unsigned long status = 7;
        uri ? values >> host : values >> flags >> port >> host;
        int const result = uri ? module->TOV_ResolveAddressFromURI(host.data(), flags, &status)
                               : module->TOV_ResolveAddress(host.data(), port, flags, &status);
        return std::to_string(result) + "/" + std::to_string(status);
    }
    void useModules(Arg variant) {
        ::setenv("QOR_MODULE_PATH", (POSTWIRE_TEST_MODULES "/" + variant).c_str(), 1);
        if (variant == "recording") recorded();
    }
    bool load() {
        module = std::make_unique<QORSocketAddress>("TOV_Crypto_Interface");
        return module->isOpen();
    }
    std::string got(unsigned long index) {
        std::memset(&found, 0x55, sizeof found);
        int const result = module->TOV_GetAddress(index, &found);
        return std::to_string(result) + "/" + asText(found);
    }
    std::string formatted(long size) {
        char text[32] = "unchanged";
        int const result = module->TOV_GetAddressAsText(&found, text, size);
        return std::to_string(result) + "/" + text;
    }
    static char const* recorded() {
        void* const recording =
            dlopen(POSTWIRE_TEST_MODULES "/recording/libTOV_Crypto_Interface.so", RTLD_LAZY);
        return reinterpret_cast<char const* (*)()>(dlsym(recording, "recordedCalls"))();
    }
    char const* standardInput() {
        bool const isFree = ::fcntl(0, F_GETFD) == -1;
        ::dup2(input, 0);
        ::close(input);
        return isFree ? "0 is free" : "0 is taken";
    }

    SoapServerSocket server;
    std::unique_ptr<SoapSocket> near = std::make_unique<SoapSocket>();
    std::list<SoapSocket> clients;
    std::unique_ptr<QORSocketAddress> module;
    std::unique_ptr<SystemCallFaults> faults;
    std::vector<int> owned;  // descriptors that no socket closes
    std::string trace = testing::TempDir() + "trace" + std::to_string(::getpid());
    QORByteBuffer buffer{16, 16};
    sockaddr_storage found{};
    char bytes[4096];
    int count = 7, input = -1, rounds = 0, endAt = 0, sendAt = 0;
    long before = descriptors() + 1, inherited = descriptors(0);  // and the server's
    Clock::time_point begin = Clock::now();

    std::map<std::string, Verb> const verbs{
        {"id", [&](Arg a) { return run(a).substr(0, 4); }},
        // The socket.
        {"wrap", [&](Arg) { renew(::socket(AF_INET, SOCK_STREAM, 0)); }},
        {"made", [&](Arg a) { renew(port(), address(a)); }},
        {"host",
         [&](Arg a) { near->SetServerHostInfo(a == "null" ? nullptr : std::string(a).data()); }},
        {"openHost", [&](Arg) { near->Open(port()); }},
        {"openAt", [&](Arg a) { near->Open(port(), address(a)); }},
        {"open", [&](Arg) { near->Open(); }},
        {"connect", [&](Arg) { return run("openAt ipv4; accept"); }},
        {"prepare", [&](Arg a) { near->prepare(port(), address(a)); }},
        {"close", [&](Arg a) { named(a).Close(); }},
        {"held", [&](Arg a) { return Members::held(named(a)); }},
        {"options", [&](Arg a) { return options(a); }},
        {"nonBlocking", [&](Arg) { return near->SwitchToNonBlocking(); }},
        {"limit", [&](Arg a) { limit(std::istringstream(a)); }},
        {"noLimit", [&](Arg) { near->setTimeLimitCallback(nullptr, nullptr, 0); }},
        {"rounds", [&](Arg) { return rounds; }},
        {"lasted",
         [&](Arg a) {
             return Clock::now() - begin >= std::stoi(a) * std::chrono::milliseconds(1);
         }},
        {"trace",
         [&](Arg a) {
             near->echo(a == "null" ? nullptr : a == "here" ? trace.c_str() : a.c_str());
         }},
        {"traced",
         [&](Arg) {
             return (std::ostringstream() << std::ifstream(trace, std::ios::binary).rdbuf()).str();
         }},
        {"name",
         [&](Arg a) {
             SoapSocket::GetInternetMachineName(a == "0" ? nullptr : bytes,
                                                static_cast<unsigned>(std::stoi(a)));
         }},
        {"ownAddress", [&](Arg) { return asText(SoapSocket::getMyIPAddress()); }},
        {"address", [&](Arg a) { return asText(SoapSocket::GetIPAddress(std::string(a).data())); }},
        // Reading and writing.
        {"read",
         [&](Arg a) {
             return near->ReadBuffer(memory(a), std::stoi(a), counter(a)), taken(count);
         }},
        {"send", [&](Arg a) { near->WriteBuffer(memory(a), std::stoi(a), counter(a)); }},
        {"write", [&](Arg a) { write(a); }},
        {"flood",
         [&](Arg) {
             for (;;) out().write(bytes, sizeof bytes);
         }},
        {"count", [&](Arg) { return count; }},
        {"in", [&](Arg a) { return taken(in().read(bytes, std::stoi(a))); }},
        {"fully", [&](Arg a) { return taken(in().readFully(bytes, std::stoi(a))); }},
        {"append", [&](Arg a) { return in().read(buffer, std::stoi(a)); }},
        {"byte", [&](Arg) { return in().read(); }},
        {"unread", [&](Arg) { in().unread("x", 1); }},
        {"closeStream", [&](Arg) { in().close(); }},
        {"canUnread", [&](Arg) { return in().canUnread(); }},
        {"out", [&](Arg a) { out().write("hello", std::stoi(a)); }},
        {"unbind", [&](Arg) { in().setSoapSocket(nullptr), out().setSoapSocket(nullptr); }},
        {"buffer", [&](Arg) { return "'" + std::string(buffer.str(), buffer.pcount()) + "'"; }},
        {"farSends", [&](Arg a) { ::send(far(), a.data(), a.size(), 0); }},
        {"farEnds", [&](Arg) { ::shutdown(far(), SHUT_WR); }},
        {"farGets", [&](Arg) { return taken(::recv(far(), bytes, sizeof bytes, 0)); }},
        {"farResets", [&](Arg) { resetFar(); }},
        // The server.
        {"client", [&](Arg) { clients.emplace_back(port(), address("ipv4")).Open(); }},
        {"accept", [&](Arg) { return accepted(server.AwaitCommunicationAttempt()); }},
        {"acceptIn", [&](Arg a) { return accepted(server.acceptConnection(std::stoi(a))); }},
        {"awaitIn",
         [&](Arg a) { return accepted(server.AwaitCommunicationAttempt(std::stoi(a))); }},
        {"listen", [&](Arg a) { listen(a == "again" ? port() : 0); }},
        {"peer", [&](Arg) { return asText(server.m_peerAddress).substr(0, 9); }},
        // The address module.
        {"modules", [&](Arg a) { useModules(a); }},
        {"load", [&](Arg) { return load(); }},
        {"unload", [&](Arg) { module->close(); }},
        {"drop", [&](Arg) { module.reset(); }},
        {"resolve", [&](Arg a) { return resolved(std::istringstream(a), false); }},
        {"uri", [&](Arg a) { return resolved(std::istringstream(a), true); }},
        {"get", [&](Arg a) { return got(std::stoul(a)); }},
        {"format", [&](Arg a) { return formatted(std::stol(a)); }},
        {"recorded", [&](Arg) { return recorded(); }},
        // What the system does.
        {"faults", [&](Arg a) { faults = std::make_unique<SystemCallFaults>(a); }},
        {"calls", [&](Arg) { return faults.reset(), "[" + SystemCallFaults::log() + "]"; }},
        {"new", [&](Arg) { return descriptors() - before; }},
        {"inherited", [&](Arg) { return descriptors(0) - inherited; }},
        {"freeInput", [&](Arg) { input = ::fcntl(0, F_DUPFD, 100), ::close(0); }},
        {"input", [&](Arg) { return standardInput(); }},
    };
};

}  // namespace

TEST_ROWS(Sockets, GiveOrRaiseAndKeepTheirDescriptors, "socket_calls.txt", "server_calls.txt",
          "socket_faults.txt", "address_module.txt") {
    for (char const* error :
         {"EAGAIN", "ECONNRESET", "EPIPE", "EMFILE", "ENFILE", "ECONNREFUSED"}) {
        long const before = descriptors();
        EXPECT_EQ(replaced(c["gives"], "$E", error),
                  World().run(replaced(c["script"], "$E", error)));
        EXPECT_EQ(before, descriptors());
        if (c["script"].find("$E") == std::string::npos) break;
    }
}
