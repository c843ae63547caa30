#include "support/SocketScript.h"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <sstream>
#include <vector>

#include <arpa/inet.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include "foundation/QORThrowable.h"

#include "socket/QORSocketAddress.h"
#include "socket/SoapSocket.h"
#include "support/CaseFile.h"
#include "support/SystemCallFaults.h"

namespace {

using Arg = std::string const&;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

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

// The members of any socket.
struct Members : SoapSocket {
    static int made(SoapSocket const& s) { return s.*&Members::m_socket; }
    static int io(SoapSocket const& s) { return s.*&Members::m_ioSocket; }
};

char const* held(SoapSocket const& s) {
    if (Members::made(s) == -1) return Members::io(s) == -1 ? "none" : "io";
    return Members::made(s) == Members::io(s) ? "both" : "socket";
}

long descriptors() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

std::string options(int fd) {
    int noDelay = 0;
    socklen_t length = sizeof noDelay;
    ::getsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &noDelay, &length);
    return std::string(::fcntl(fd, F_GETFD) & FD_CLOEXEC ? "close-on-exec" : "inherited") +
           (noDelay ? ", no delay" : ", delay");
}

sockaddr_storage address(Arg kind) {
    if (kind == "none") return SoapSocket::MaxIPAddress;
    sockaddr_in in{};
    in.sin_family = kind == "ipv6" ? AF_INET6 : AF_INET;
    in.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    sockaddr_storage whole{};
    std::memcpy(&whole, &in, sizeof in);
    return whole;
}

std::string asText(sockaddr_storage const& address) {
    static sockaddr_storage const zero{};
    if (std::memcmp(&address, &zero, sizeof zero) == 0) return "zero";
    if (address.ss_family == 0xFFFF) return "none";
    sockaddr_in in;
    std::memcpy(&in, &address, sizeof in);
    return inet_ntoa(in.sin_addr) + (":" + std::to_string(ntohs(in.sin_port)));
}

// A server that listens, a socket "near", and what they need; "far" is the connection accepted
// last.
class World {
public:
    World() {
        std::signal(SIGPIPE, SIG_IGN);
        server.Open(0);
        buffer << "0123456789";
        before = descriptors();
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
    // The verb is the longest one that the statement begins with.
    std::string perform(std::string const& statement) try {
        for (std::size_t end = statement.size();; end = statement.rfind(' ', end - 1)) {
            if (end == std::string::npos) return "unknown: " + statement;
            if (auto const verb = verbs.find(statement.substr(0, end)); verb != verbs.end())
                return verb->second.run(statement.substr(std::min(end + 1, statement.size())));
        }
    } catch (SoapSocketException& e) {
        EXPECT_STREQ("SoapSocket", e.getSourceFileName());
        return std::to_string(e.id()) + " " + e.getDetails();
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
    SoapSocketInputStream& in() { return *near->getInputStream(); }
    SoapSocketOutputStream& out() { return *near->getOutputStream(); }
    unsigned char* memory() { return reinterpret_cast<unsigned char*>(bytes); }
    std::string taken(int n) const {
        return n < 0 ? "-1" : "'" + std::string(bytes, bytes + n) + "'";
    }
    std::string read(int size) {
        count = 7;
        near->ReadBuffer(memory(), size, &count);
        return taken(count);
    }
    void write(Arg a) {
        count = 7;
        std::copy(a.begin(), a.end(), bytes);
        near->WriteBuffer(memory(), static_cast<int>(a.size()), &count);
    }
    [[noreturn]] void writeForEver() {
        for (;;) out().write(bytes, sizeof bytes);
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
    std::string traced() const {
        std::ostringstream all;
        all << std::ifstream(trace, std::ios::binary).rdbuf();
        return all.str();
    }
    // Opened again, a server forgets its descriptor and does not close it.
    SoapServerSocket& serverAgain() {
        owned.push_back(Members::made(server));
        return server;
    }
    static void waited(void* self) {
        auto& w = *static_cast<World*>(self);
        if (++w.rounds == w.endAt) throw Ended();
        if (w.rounds == w.sendAt) w.run("far sends late");
    }
    void limit(std::istringstream values) {
        int interval = rounds = 0;
        values >> interval >> endAt >> sendAt;
        near->setTimeLimitCallback(&waited, this, interval);
    }
    std::string resolved(std::istringstream values) {
        std::string host;
        unsigned short port = 0;
        int flags = 0;
        unsigned long status = 7;
        values >> flags >> port >> host;
        int const result = module->TOV_ResolveAddress(host.data(), port, flags, &status);
        return std::to_string(result) + "/" + std::to_string(status);
    }
    std::string resolvedURI(std::string uri) {
        unsigned long status = 7;
        int const result = module->TOV_ResolveAddressFromURI(uri.data(), 2, &status);
        return std::to_string(result) + "/" + std::to_string(status);
    }
    std::string calls() {
        std::string const log = SystemCallFaults::log();
        faults.reset();
        return "[" + log + "]";
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
    void freeInput() {
        input = ::fcntl(0, F_DUPFD, 100);
        ::close(0);
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
    long before = 0;
    Clock::time_point begin = Clock::now();

    std::map<std::string, Verb> const verbs{
        {"id", [&](Arg a) { return run(a).substr(0, 4); }},
        // The socket.
        {"made of descriptor", [&](Arg) { renew(::socket(AF_INET, SOCK_STREAM, 0)); }},
        {"made at", [&](Arg a) { renew(port(), address(a)); }},
        {"host", [&](Arg a) { near->SetServerHostInfo(std::string(a).data()); }},
        {"host name", [&](Arg) { near->SetServerHostInfo(nullptr); }},
        {"open host", [&](Arg) { near->Open(port()); }},
        {"open at", [&](Arg a) { near->Open(port(), address(a)); }},
        {"open", [&](Arg) { near->Open(); }},
        {"connect", [&](Arg) { return run("open at ipv4; accept"); }},
        {"prepare at", [&](Arg a) { near->prepare(port(), address(a)); }},
        {"close", [&](Arg) { near->Close(); }},
        {"held", [&](Arg) { return held(*near); }},
        {"options", [&](Arg) { return options(Members::io(*near)); }},
        {"non-blocking", [&](Arg) { return near->SwitchToNonBlocking(); }},
        {"limit", [&](Arg a) { limit(std::istringstream(a)); }},
        {"no limit", [&](Arg) { near->setTimeLimitCallback(nullptr, nullptr, 0); }},
        {"rounds", [&](Arg) { return rounds; }},
        {"lasted", [&](Arg a) { return Clock::now() - begin >= milliseconds(std::stoi(a)); }},
        {"trace", [&](Arg) { near->echo(trace.c_str()); }},
        {"trace to", [&](Arg a) { near->echo(a.c_str()); }},
        {"trace to null", [&](Arg) { near->echo(nullptr); }},
        {"traced", [&](Arg) { return traced(); }},
        {"name",
         [&](Arg a) {
             SoapSocket::GetInternetMachineName(bytes, static_cast<unsigned>(std::stoi(a)));
         }},
        {"name nowhere", [&](Arg) { SoapSocket::GetInternetMachineName(nullptr, 1); }},
        {"own address", [&](Arg) { return asText(SoapSocket::getMyIPAddress()); }},
        {"address of",
         [&](Arg a) { return asText(SoapSocket::GetIPAddress(std::string(a).data())); }},
        // Reading and writing.
        {"read", [&](Arg a) { return read(std::stoi(a)); }},
        {"read nowhere", [&](Arg) { near->ReadBuffer(nullptr, -1, nullptr); }},
        {"read uncounted", [&](Arg) { near->ReadBuffer(memory(), -1, nullptr); }},
        {"write", [&](Arg a) { write(a); }},
        {"write uncounted", [&](Arg) { near->WriteBuffer(nullptr, -1, nullptr); }},
        {"write nothing", [&](Arg) { near->WriteBuffer(nullptr, -1, &count); }},
        {"write less", [&](Arg) { near->WriteBuffer(memory(), -1, &count); }},
        {"write for ever", [&](Arg) { writeForEver(); }},
        {"count", [&](Arg) { return count; }},
        {"in", [&](Arg a) { return taken(in().read(bytes, std::stoi(a))); }},
        {"in fully", [&](Arg a) { return taken(in().readFully(bytes, std::stoi(a))); }},
        {"in buffer", [&](Arg a) { return in().read(buffer, std::stoi(a)); }},
        {"in byte", [&](Arg) { return in().read(); }},
        {"in unread", [&](Arg) { in().unread("x", 1); }},
        {"in close", [&](Arg) { in().close(); }},
        {"in can unread", [&](Arg) { return in().canUnread(); }},
        {"out", [&](Arg a) { out().write("hello", std::stoi(a)); }},
        {"in unbind", [&](Arg) { in().setSoapSocket(nullptr); }},
        {"out unbind", [&](Arg) { out().setSoapSocket(nullptr); }},
        {"buffer", [&](Arg) { return "'" + std::string(buffer.str(), buffer.pcount()) + "'"; }},
        {"far sends", [&](Arg a) { ::send(far(), a.data(), a.size(), 0); }},
        {"far ends", [&](Arg) { ::shutdown(far(), SHUT_WR); }},
        {"far gets",
         [&](Arg) { return taken(static_cast<int>(::recv(far(), bytes, sizeof bytes, 0))); }},
        {"far resets", [&](Arg) { resetFar(); }},
        {"options of far", [&](Arg) { return options(far()); }},
        // The server.
        {"client", [&](Arg) { clients.emplace_back(port(), address("ipv4")).Open(); }},
        {"accept", [&](Arg) { return accepted(server.AwaitCommunicationAttempt()); }},
        {"accept in", [&](Arg a) { return accepted(server.acceptConnection(std::stoi(a))); }},
        {"await in",
         [&](Arg a) { return accepted(server.AwaitCommunicationAttempt(std::stoi(a))); }},
        {"server again", [&](Arg) { serverAgain().Open(0); }},
        {"server on its port", [&](Arg) { serverAgain().Open(port()); }},
        {"server close", [&](Arg) { server.Close(); }},
        {"server held", [&](Arg) { return held(server); }},
        {"options of server", [&](Arg) { return options(Members::made(server)); }},
        {"peer", [&](Arg) { return asText(server.m_peerAddress).substr(0, 9); }},
        // The address module.
        {"modules", [&](Arg a) { useModules(a); }},
        {"load", [&](Arg) { return load(); }},
        {"unload", [&](Arg) { module->close(); }},
        {"drop", [&](Arg) { module.reset(); }},
        {"resolve", [&](Arg a) { return resolved(std::istringstream(a)); }},
        {"uri", [&](Arg a) { return resolvedURI(a); }},
        {"get", [&](Arg a) { return got(std::stoul(a)); }},
        {"format", [&](Arg a) { return formatted(std::stol(a)); }},
        {"recorded", [&](Arg) { return recorded(); }},
        // What the system does.
        {"faults", [&](Arg a) { faults = std::make_unique<SystemCallFaults>(a); }},
        {"calls", [&](Arg) { return calls(); }},
        {"new", [&](Arg) { return descriptors() - before; }},
        {"no input", [&](Arg) { freeInput(); }},
        {"input", [&](Arg) { return standardInput(); }},
    };
};

std::string replaced(std::string text, std::string const& what, std::string const& by) {
    for (std::size_t at; (at = text.find(what)) != std::string::npos;)
        text.replace(at, what.size(), by);
    return text;
}

void check(TestCase const& row, std::string const& error) {
    std::string const script = replaced(row["script"], "$E", error);
    std::string gives = replaced(row["gives"], "$E", error);
    for (int e = 1; e < 134; ++e) {
        std::string const name = strerrorname_np(e) ? strerrorname_np(e) : "none";
        gives = replaced(gives, "<" + name + ">", std::strerror(e));
        gives = replaced(gives, "<#" + name + ">", std::to_string(e));
    }
    long const before = descriptors();
    EXPECT_EQ(gives, World().run(script)) << row.where() << ": " << script;
    EXPECT_EQ(before, descriptors()) << row.where() << ": " << script;
}

}  // namespace

void checkSocketScripts(char const* fileName) {
    for (TestCase const& row : loadCases(fileName)) {
        if (row["script"].find("$E") == std::string::npos) {
            check(row, "");
            continue;
        }
        for (char const* error :
             {"EAGAIN", "ECONNRESET", "EPIPE", "EMFILE", "ENFILE", "ECONNREFUSED"})
            check(row, error);
    }
}
