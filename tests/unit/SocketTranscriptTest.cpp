#include <chrono>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <list>
#include <sstream>

#include <arpa/inet.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/tcp.h>
#include <unistd.h>

#include "socket/QORSocketAddress.h"
#include "socket/SoapSocket.h"
#include "support/RowTest.h"
#include "support/SystemCallFaults.h"

namespace {

using Clock = std::chrono::steady_clock;

struct Ended {};  // what the time-limit callback raises

struct Members : SoapSocket {
    static int made(SoapSocket const& s) { return s.*&Members::m_socket; }
    static char const* held(SoapSocket const& s) {
        int const io = s.*&Members::m_ioSocket;
        if (made(s) == -1) return io == -1 ? "none" : "io";
        return made(s) == io ? "both" : "socket";
    }
};

// Those that are open, or those that programs which are started inherit.
long descriptors(bool inherited = false) {
    long n = 0;
    for (auto const& entry : std::filesystem::directory_iterator("/proc/self/fd"))
        n += !inherited || ::fcntl(std::stoi(entry.path().filename()), F_GETFD) == 0;
    return n;
}

sockaddr_storage address(std::string const& kind) {
    sockaddr_storage made = SoapSocket::MaxIPAddress;
    sockaddr_in in{};
    in.sin_family = kind == "ipv6" ? AF_INET6 : AF_INET;
    in.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (kind != "none") std::memcpy(&made, &in, sizeof in);
    return made;
}

std::string asText(sockaddr_storage const& address) {
    if (address.ss_family == 0xFFFF) return "none";
    static sockaddr_storage const zero{};
    if (std::memcmp(&address, &zero, sizeof zero) == 0) return "zero";
    sockaddr_in in;
    std::memcpy(&in, &address, sizeof in);
    return inet_ntoa(in.sin_addr) + (":" + std::to_string(ntohs(in.sin_port)));
}

std::string replaced(std::string text, std::string const& what, std::string const& by) {
    for (std::size_t at; (at = text.find(what)) != std::string::npos;)
        text.replace(at, what.size(), by);
    return text;
}

// Makes the calls of the tables: on a server that listens, on a socket `near`, and on the
// connection accepted last, far().
struct Sockets {
    Sockets() {
        std::signal(SIGPIPE, SIG_IGN);
        server.Open(0);
        buffer << "0123456789";
    }
    ~Sockets() {
        for (int fd : owned) ::close(fd);
        std::remove(trace.c_str());
        ::unsetenv("QOR_MODULE_PATH");
    }

    void make(Call const& call) try {
        onSocket(call, call.text, call.number());
        onStreams(call, call.text, call.number());
        onServer(call, call.number());
        onModule(call, call.number());
        onSystem(call);
        call.mustBeKnown();
    } catch (SoapSocketException& e) {
        tell(e, e.systemError());
    } catch (char const* const& text) {
        give(text);
    } catch (Ended const&) {
        give("ended");
    }
    template <class Answer>
    void give(Answer const& answer) {
        gave.push_back((std::ostringstream() << answer).str());
    }
    // The id and the details, with the name of the error, which stands in errno too, for its text
    // or number.
    void tell(SoapSocketException& e, int error) {
        EXPECT_TRUE(error == 0 || error == errno) << std::strerror(errno);
        EXPECT_STREQ("SoapSocket", e.getSourceFileName());
        std::string text = std::to_string(e.id()) + ' ' + e.getDetails();
        std::string const shown[] = {std::strerror(error), "code " + std::to_string(error)};
        for (std::string const& one : shown)
            if (error != 0) text = replaced(text, one, strerrorname_np(error));
        give(brief ? text.substr(0, 4) : text);
    }

    int port() const { return server.m_boundPort; }
    int far() const { return owned.back(); }
    SoapSocket& named(std::string const& name) { return name == "server" ? server : *near; }
    void taken(long n) { give(n < 0 ? "-1" : std::string(bytes, bytes + n)); }
    void accepted(int fd) {
        if (fd > 0) owned.push_back(fd);
        give(fd > 0 ? "accepted" : fd == 0 ? "no one" : "a negative one");
    }
    void openNear() { near->Open(port(), address("ipv4")); }
    void onSocket(Call const& call, std::string const& a, int n) {
        if (call.is("wrap")) near = std::make_unique<SoapSocket>(::socket(AF_INET, SOCK_STREAM, 0));
        if (call.is("made")) near = std::make_unique<SoapSocket>(port(), address(a));
        if (call.is("host"))
            call.all() ? near->SetServerHostInfo(std::string(a).c_str())
                       : near->SetServerHostInfo(nullptr);
        if (call.is("openHost")) near->Open(port());
        if (call.is("openAt")) near->Open(port(), address(a));
        if (call.is("open")) near->Open();
        if (call.is("connect")) {
            openNear();
            accepted(server.AwaitCommunicationAttempt());
        }
        if (call.is("prepare")) near->prepare(port(), address(a));
        if (call.is("close")) named(a).Close();
        if (call.is("held")) give(Members::held(named(a)));
        if (call.is("options")) options(a == "far" ? far() : named(a).getDescriptor());
        if (call.is("nonBlocking")) give(near->SwitchToNonBlocking());
        if (call.is("limit")) limit(n, std::istringstream(call.rest()));
        if (call.is("noLimit")) near->setTimeLimitCallback(nullptr, nullptr, 0);
        if (call.is("rounds")) give(rounds);
        if (call.is("lasted")) give(Clock::now() - begin >= n * std::chrono::milliseconds(1));
        if (call.is("trace")) near->echo(a == "here" ? trace.c_str() : call.all());
        if (call.is("traced")) give(std::ifstream(trace, std::ios::binary).rdbuf());
        if (call.is("name")) SoapSocket::GetInternetMachineName(n ? bytes : nullptr, unsigned(n));
        if (call.is("ownAddress")) give(asText(SoapSocket::getMyIPAddress()));
        if (call.is("address")) give(asText(SoapSocket::GetIPAddress(std::string(a).data())));
    }
    void options(int fd) {
        int noDelay = 0, inExec = ::fcntl(fd, F_GETFD);
        socklen_t length = sizeof noDelay;
        ::getsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &noDelay, &length);
        std::string const text = inExec & FD_CLOEXEC ? "close-on-exec" : "inherited";
        give(fd == -1 ? "none" : text + (noDelay ? ", no delay" : ", delay"));
    }
    static void waited(void* self) {
        auto& s = *static_cast<Sockets*>(self);
        if (++s.rounds == s.endAt) throw Ended();
        if (s.rounds == s.sendAt) ::send(s.far(), "late", 4, 0);
    }
    void limit(int interval, std::istringstream values) {
        values >> endAt >> sendAt;
        rounds = 0;
        near->setTimeLimitCallback(&waited, this, interval);
    }

    void onStreams(Call const& call, std::string const& a, int n) {
        SoapSocketInputStream& in = *near->getInputStream();
        SoapSocketOutputStream& out = *near->getOutputStream();
        bool const nowhere = a.find("nowhere") != a.npos, uncounted = a.find("uncounted") != a.npos;
        auto* const memory = nowhere ? nullptr : reinterpret_cast<unsigned char*>(bytes);
        int* const counter = uncounted ? nullptr : &count;
        if (call.is("read") || call.is("write") || call.is("send")) count = 7;
        if (call.is("read")) {
            near->ReadBuffer(memory, n, counter);
            taken(count);
        }
        if (call.is("send")) near->WriteBuffer(memory, n, counter);
        if (call.is("write"))
            near->WriteBuffer(reinterpret_cast<unsigned char const*>(a.data()),
                              static_cast<int>(a.size()), &count);
        while (call.is("flood")) out.write(bytes, sizeof bytes);
        if (call.is("count")) give(count);
        if (call.is("in")) taken(in.read(bytes, n));
        if (call.is("fully")) taken(in.readFully(bytes, n));
        if (call.is("append")) give(in.read(buffer, n));
        if (call.is("byte")) give(in.read());
        if (call.is("unread")) in.unread("x", 1);
        if (call.is("closeStream")) in.close();
        if (call.is("canUnread")) give(in.canUnread());
        if (call.is("out")) out.write("hello", n);
        if (call.is("unbind")) {
            in.setSoapSocket(nullptr);
            out.setSoapSocket(nullptr);
        }
        if (call.is("buffer")) give(std::string(buffer.str(), buffer.pcount()));
    }

    void onServer(Call const& call, int n) {
        linger const atOnce{1, 0};
        if (call.is("client")) clients.emplace_back(port(), address("ipv4")).Open();
        if (call.is("accept")) accepted(server.AwaitCommunicationAttempt());
        if (call.is("acceptIn")) accepted(server.acceptConnection(n));
        if (call.is("awaitIn")) accepted(server.AwaitCommunicationAttempt(n));
        // Opened again, a server forgets its descriptor and does not close it.
        if (call.is("listen")) {
            owned.push_back(Members::made(server));
            server.Open(n ? port() : 0);
        }
        if (call.is("peer")) give(asText(server.m_peerAddress).substr(0, 9));
        if (call.is("farSends")) ::send(far(), call.all(), call.text.size(), 0);
        if (call.is("farEnds")) ::shutdown(far(), SHUT_WR);
        if (call.is("farGets")) taken(::recv(far(), bytes, sizeof bytes, 0));
        if (call.is("farResets"))
            ::setsockopt(far(), SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
        if (call.is("farCloses") || call.is("farResets")) {
            ::close(far());
            owned.pop_back();
        }
    }

    void onModule(Call const& call, int n) {
        unsigned long status = 7;
        std::string host = call.rest();
        if (call.is("modules"))
            ::setenv("QOR_MODULE_PATH", (POSTWIRE_TEST_MODULES "/" + call.text).c_str(), 1);
        if (call.is("modules") && call.text == "recording") recorded();
        if (call.is("load")) module = std::make_unique<QORSocketAddress>("TOV_Crypto_Interface");
        if (call.is("load")) give(module->isOpen());
        if (call.is("unload")) module->close();
        if (call.is("drop")) module.reset();
        if (call.is("flags")) flags = n;
        if (call.is("resolve"))
            give(module->TOV_ResolveAddress(host.data(), static_cast<unsigned short>(n), flags,
                                            &status));
        host = call.text;
        if (call.is("uri")) give(module->TOV_ResolveAddressFromURI(host.data(), flags, &status));
        if (call.is("uri") || call.is("resolve")) give(status);
        if (call.is("get")) std::memset(&found, 0x55, sizeof found);
        if (call.is("get")) give(module->TOV_GetAddress(static_cast<unsigned long>(n), &found));
        if (call.is("get")) give(asText(found));
        char text[32] = "unchanged";
        if (call.is("format")) {
            give(module->TOV_GetAddressAsText(&found, text, n));
            give(text);
        }
        if (call.is("recorded")) give(recorded());
    }
    static char const* recorded() {
        void* const recording =
            dlopen(POSTWIRE_TEST_MODULES "/recording/libTOV_Crypto_Interface.so", RTLD_LAZY);
        return reinterpret_cast<char const* (*)()>(dlsym(recording, "recordedCalls"))();
    }

    void onSystem(Call const& call) {
        if (call.is("brief")) brief = true;
        if (call.is("faults")) faults = std::make_unique<SystemCallFaults>(call.text);
        if (call.is("calls")) {
            give(SystemCallFaults::log());
            faults.reset();
        }
        if (call.is("new")) give(descriptors() - before);
        if (call.is("inherited")) give(descriptors(true) - inherited);
        if (call.is("freeInput")) {
            input = ::fcntl(0, F_DUPFD, 100);
            ::close(0);
        }
        if (call.is("input")) give(::fcntl(0, F_GETFD) == -1 ? "0 is free" : "0 is taken");
        if (call.is("input")) {
            ::dup2(input, 0);
            ::close(input);
        }
    }

    std::vector<std::string> gave;
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
    bool brief = false;
    int count = 7, input = -1, rounds = 0, endAt = 0, sendAt = 0, flags = 0;
    long before = descriptors() + 1, inherited = descriptors(true);  // and the server's
    Clock::time_point begin = Clock::now();
};

}  // namespace

TEST_ROWS(Sockets, GiveOrRaiseAndKeepTheirDescriptors, "socket_transcripts.txt",
          "fault_transcripts.txt") {
    for (char const* error :
         {"EAGAIN", "ECONNRESET", "EPIPE", "EMFILE", "ENFILE", "ECONNREFUSED"}) {
        std::string const transcript = replaced(c["calls"], "$E", error);
        long const before = descriptors();
        {
            Sockets sockets;
            expectAnswers(transcript, sockets.gave, [&](Call const& call) { sockets.make(call); });
        }
        EXPECT_EQ(before, descriptors());
        if (transcript == c["calls"]) break;
    }
}
