#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <fstream>
#include <functional>
#include <numeric>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>

#include "foundation/QORThrowable.h"

#include "socket/SoapSocket.h"
#include "support/AllocationFaults.h"
#include "support/LoopbackPair.h"
#include "support/Raised.h"
#include "support/SystemCallFaults.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using Clock = std::chrono::steady_clock;

std::string systemText(int id, int error) {
    return std::to_string(id) + " " + std::strerror(error);
}

// The bytes one ReadBuffer gives.
std::string received(SoapSocket& from, int size = 4096) {
    std::vector<unsigned char> bytes(static_cast<std::size_t>(size) + 1);
    int count = 0;
    from.ReadBuffer(bytes.data(), size, &count);
    return std::string(bytes.begin(), bytes.begin() + count);
}
void write(SoapSocket& to, std::string const& bytes) {
    to.getOutputStream()->write(bytes.data(), static_cast<int>(bytes.size()));
}

// Runs the body without descriptor 0.
template <class Body>
void withoutStandardInput(Body const& body) {
    int const kept = ::fcntl(0, F_DUPFD_CLOEXEC, 100);
    ::close(0);
    body();
    EXPECT_EQ(-1, ::fcntl(0, F_GETFD));
    ::dup2(kept, 0);
    ::close(kept);
}

// "close-on-exec, no delay"
std::string setUp(int fd) {
    int noDelay = 0;
    socklen_t length = sizeof noDelay;
    ::getsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &noDelay, &length);
    std::string const exec = ::fcntl(fd, F_GETFD) & FD_CLOEXEC ? "close-on-exec, " : "";
    return exec + (noDelay ? "no delay" : "delay");
}

// Counts how often a read has waited, and ends the wait, or has the peer send, in a given round.
struct Waiting {
    LoopbackPair const* pair;
    int raiseAt, sendAt;
    int rounds = 0;

    static void round(void* self) {
        auto& w = *static_cast<Waiting*>(self);
        if (++w.rounds == w.raiseAt) throw milliseconds(w.rounds);
        if (w.rounds == w.sendAt) w.pair->sendFromFar("late");
    }
};

}  // namespace

TEST(SoapSocketError, KeepsItsTextsWithinTheirRoom) {
    std::string const text(200, 'd');
    SoapSocketException longOne(nullptr, 3, 1002, text.c_str());
    EXPECT_EQ(text.substr(0, 128), longOne.getDetails());
    EXPECT_STREQ("null", longOne.getSourceFileName());
    EXPECT_STREQ("SoapSocketException", longOne.getExceptionName());
    EXPECT_STREQ("", SoapSocketException("f", 1, 1000, nullptr).getDetails());
    EXPECT_EQ(
        4095u,
        std::strlen(
            SoapSocketException(std::string(5000, 'f').c_str(), 1, 1000, "").getSourceFileName()));
    try {
        throw SoapExEndofStream("Reader", 7);
    } catch (SoapSocketException& e) {
        SoapSocketException const copy(e);
        EXPECT_EQ(1003, SoapSocketException(copy).id());
        EXPECT_EQ(7, SoapSocketException(copy).getSourceLine());
        EXPECT_STREQ("Reader", SoapSocketException(copy).getSourceFileName());
        EXPECT_STREQ("SoapExEndofStream", SoapSocketException(copy).getDetails());
        EXPECT_STREQ("SoapExEndofStream", e.getExceptionName());
    }
    try {
        SoapSocket().Open(80, loopback());
        ADD_FAILURE() << "nothing was raised";
    } catch (SoapSocketException& e) {
        EXPECT_STREQ("SoapSocket", e.getSourceFileName());
        EXPECT_LT(0, e.getSourceLine());
    }
}

TEST(SoapSocketOpen, ConnectsOnceUntilClosed) {
    SoapServerSocket server;
    server.Open(0);
    SoapSocket socket(server.m_boundPort, loopback());
    EXPECT_EQ("none", heldBy(socket));
    socket.Open();
    int const fd = SocketDescriptors::io(socket);
    socket.Open(1);
    socket.Open(1, SoapSocket::MaxIPAddress);
    socket.Open();
    EXPECT_EQ("both", heldBy(socket));
    EXPECT_EQ(fd, SocketDescriptors::io(socket));
    for (int i = 0; i < 2; ++i) {
        SystemCallFaults const script("");
        socket.Close();
        EXPECT_EQ(i == 0 ? "shutdown close" : "", script.log());
        EXPECT_EQ("none", heldBy(socket));
    }
    socket.Open();
    EXPECT_EQ("both", heldBy(socket));
    socket.prepare(server.m_boundPort, SoapSocket::MaxIPAddress);
    EXPECT_EQ("none", heldBy(socket));
    socket.Open();  // this machine's name has an address of its own
    EXPECT_EQ("both", heldBy(socket));
    SoapSocket(server.m_boundPort, SoapSocket::MaxIPAddress).Open();
}

TEST(SoapSocketOpen, MarksDescriptorsAndSendsWithoutDelay) {
    LoopbackPair const pair;
    EXPECT_EQ("close-on-exec, no delay", setUp(SocketDescriptors::io(pair.near)));
    EXPECT_EQ("close-on-exec, no delay", setUp(pair.far));
    EXPECT_EQ("close-on-exec, delay", setUp(SocketDescriptors::made(pair.server)));
    SoapSocket byHost;
    byHost.SetServerHostInfo(std::string("localhost").data());
    byHost.Open(pair.server.m_boundPort);
    EXPECT_EQ("close-on-exec, no delay", setUp(SocketDescriptors::io(byHost)));
    int const fd = ::socket(AF_INET, SOCK_STREAM, 0);
    SoapSocket const given(fd);
    EXPECT_EQ("io", heldBy(given));
    EXPECT_EQ("delay", setUp(fd));
}

TEST(SoapSocketOpen, RefusesWhatIsNoIPv4Address) {
    SoapSocket socket;
    sockaddr_storage other{};
    other.ss_family = AF_INET6;
    std::string const refused = "SoapSocket::Open(1)";
    EXPECT_EQ(refused, raisedText([&] { socket.Open(80, SoapSocket::MaxIPAddress); }));
    EXPECT_EQ(refused, raisedText([&] { socket.Open(80); })) << "an empty host";
    EXPECT_EQ("QOR_THROW SoapSocket\n", raisedBackTrace([&] { socket.Open(80); }));
    EXPECT_EQ("1001 ", socketFailure([&] { socket.Open(80, other); }).substr(0, 5));
    EXPECT_EQ(systemText(1001, EAFNOSUPPORT), socketFailure([&] { socket.Open(); }));
    EXPECT_EQ(0xFFFE, SoapSocket::s_localIPAddress.ss_family);
}

TEST(SoapSocketOpen, KeepsConnectionsOffDescriptorZero) {
    SoapServerSocket server;
    server.Open(0);
    SoapSocket first, second;
    withoutStandardInput([&] {
        SystemCallFaults const script("");
        first.Open(server.m_boundPort, loopback());
        EXPECT_EQ("socket*2 shutdown close fcntl connect setsockopt", script.log());
    });
    withoutStandardInput([&] {
        SystemCallFaults const script("socket@2=EMFILE");
        EXPECT_EQ(systemText(1001, EMFILE),
                  socketFailure([&] { second.Open(server.m_boundPort, loopback()); }));
        EXPECT_EQ("socket*2 shutdown close", script.log());
        EXPECT_EQ("none", heldBy(second));
    });
    withoutStandardInput([&] {
        SystemCallFaults const script("");
        int const accepted = server.acceptConnection(1000);
        EXPECT_EQ("poll accept fcntl close setsockopt", script.log());
        EXPECT_LT(0, accepted);
        EXPECT_EQ("close-on-exec, no delay", setUp(accepted));
        SoapSocket peer(accepted);
        write(peer, "hello");
        EXPECT_EQ("hello", received(first));
    });
    second.Open(server.m_boundPort, loopback());
    withoutStandardInput([&] {
        SystemCallFaults const script("fcntl=EMFILE");
        EXPECT_EQ(systemText(1001, EMFILE), socketFailure([&] { server.acceptConnection(1000); }));
        EXPECT_EQ("poll accept fcntl close", script.log());
    });
}

TEST(SoapSocketName, IsThatOfTheMachine) {
    char name[256] = "", expected[256];
    ::gethostname(expected, sizeof expected);
    SoapSocket::GetInternetMachineName(nullptr, 255);
    SoapSocket::GetInternetMachineName(name, 255);
    EXPECT_STREQ(expected, name);
    EXPECT_EQ("1000 SoapSocket::GetInternetMachineName: gethostname failed, code " +
                  std::to_string(ENAMETOOLONG),
              socketFailure([&] { SoapSocket::GetInternetMachineName(name, 1); }));
}

TEST(SoapSocketStream, GivesOneReceiveAtATimeAndMinusOneAtTheEnd) {
    LoopbackPair pair;
    SoapSocketInputStream& in = *pair.near.getInputStream();
    QORByteBuffer buf(16, 16);
    char bytes[8];
    buf << "0123456789";
    pair.sendFromFar(std::string("a\0cde\xFFghi", 9));
    EXPECT_EQ(5, in.read(buf, 5));
    EXPECT_EQ(std::string("0123456789a\0cde", 15), std::string(buf.str(), buf.pcount()));
    EXPECT_EQ(-1, in.read(buf, 0));
    EXPECT_EQ(-1, in.read(bytes, 0));
    EXPECT_EQ(255, in.read());
    EXPECT_EQ(3, in.read(bytes, 8));
    pair.sendFromFar("jkl");
    pair.closeFar();
    EXPECT_EQ(2, in.readFully(bytes, 2));
    EXPECT_EQ(1, in.read(buf, 1000));
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(-1, in.read(buf, 5));
        EXPECT_EQ(-1, in.read(bytes, 5));
        EXPECT_EQ(-1, in.read());
        in.close();
    }
    EXPECT_EQ(std::string("0123456789a\0cdel", 16), std::string(buf.str(), buf.pcount()));
    EXPECT_EQ("both", heldBy(pair.near));
    EXPECT_FALSE(in.canUnread());
    EXPECT_THROW(in.unread("x", 1), char const*);
}

TEST(SoapSocketStream, RefusesNullPointersAndNegativeSizes) {
    LoopbackPair pair;
    SoapSocket& socket = pair.near;
    SoapSocketInputStream in;
    SoapSocketOutputStream out;
    QORByteBuffer buf(16, 16);
    unsigned char byte = 0;
    char text[1];
    int count = 0;
    SystemCallFaults const script("");
    struct {
        char const* expected;
        std::function<void()> call;
    } const rows[] = {
        {"mp_soap_socket", [&] { in.read(buf, 1); }},
        {"mp_soap_socket", [&] { in.read(text, 1); }},
        {"mp_soap_socket", [&] { in.read(); }},
        {"mp_soap_socket", [&] { out.write("x", 1); }},
        {"pInputBuff", [&] { socket.ReadBuffer(nullptr, -1, nullptr); }},
        {"pBytesRead", [&] { socket.ReadBuffer(&byte, -1, nullptr); }},
        {"size >= 0", [&] { socket.ReadBuffer(&byte, -1, &count); }},
        {"pBytesWritten", [&] { socket.WriteBuffer(nullptr, -1, nullptr); }},
        {"pOutputBuff", [&] { socket.WriteBuffer(nullptr, -1, &count); }},
        {"size >= 0", [&] { socket.WriteBuffer(&byte, -1, &count); }},
        {"size >= 0", [&] { socket.getInputStream()->read(buf, -1); }},
        {"size >= 0", [&] { socket.getInputStream()->read(text, -1); }},
        {"size >= 0", [&] { socket.getOutputStream()->write("x", -1); }},
    };
    for (auto const& row : rows)
        EXPECT_EQ("QOR_ASSERT(" + std::string(row.expected) + ");", failedAssertion(row.call));
    socket.WriteBuffer(&byte, 0, &count);
    EXPECT_EQ("", script.log());
}

TEST(SoapSocketTimeLimit, RunsTheCallbackEachIntervalUntilBytesArriveOrItRaises) {
    LoopbackPair pair;
    struct {
        int interval, raiseAt, sendAt, rounds;
    } const rows[] = {
        {30, 0, 3, 3}, {30, 3, 0, 3}, {0, 0, 500, 500}, {0, 500, 0, 500}, {-1, 1, 0, 0}};
    for (auto const& row : rows) {
        Waiting waiting{&pair, row.raiseAt, row.sendAt};
        pair.near.setTimeLimitCallback(&Waiting::round, &waiting, row.interval);
        if (row.interval < 0) pair.sendFromFar("late");
        auto const begin = Clock::now();
        if (row.raiseAt && row.rounds)
            EXPECT_THROW(received(pair.near), milliseconds);
        else
            EXPECT_EQ("late", received(pair.near));
        EXPECT_EQ(row.rounds, waiting.rounds);
        EXPECT_LE(milliseconds(row.interval * row.rounds), Clock::now() - begin);
        EXPECT_GT(seconds(30), Clock::now() - begin);
    }
    pair.near.setTimeLimitCallback(nullptr, nullptr, 0);
    pair.sendFromFar("more");
    EXPECT_EQ("more", received(pair.near)) << "usable after a wait that was ended";
}

TEST(SoapSocketTimeLimit, IsWhatLetsANonBlockingReadWait) {
    LoopbackPair pair;
    std::string const big(1 << 20, 'x');
    ASSERT_EQ(0, pair.near.SwitchToNonBlocking());
    EXPECT_EQ(systemText(1002, EAGAIN), socketFailure([&] { received(pair.near); }));
    Waiting waiting{&pair, 0, 2};
    pair.near.setTimeLimitCallback(&Waiting::round, &waiting, 1);
    EXPECT_EQ("late", received(pair.near));
    EXPECT_EQ(systemText(1004, EAGAIN), socketFailure([&] {
                  for (;;) write(pair.near, big);
              }));
    EXPECT_EQ(-1, SoapSocket().SwitchToNonBlocking());
}

TEST(SoapSocketPeer, ThatResetsEndsAReadAndAWrite) {
    LoopbackPair reading, writing;
    char bytes[10];
    reading.sendFromFar("abc");
    reading.resetFar();
    EXPECT_EQ(systemText(1002, ECONNRESET),
              socketFailure([&] { reading.near.getInputStream()->readFully(bytes, 10); }));

    std::vector<unsigned char> const body(8 << 20);
    int written = 7;
    std::thread peer([&] {
        char piece[4096];
        ::recv(writing.far, piece, sizeof piece, MSG_WAITALL);
        writing.resetFar();
    });
    std::string const failure = socketFailure(
        [&] { writing.near.WriteBuffer(body.data(), static_cast<int>(body.size()), &written); });
    peer.join();
    EXPECT_TRUE(failure == systemText(1004, ECONNRESET) || failure == systemText(1004, EPIPE))
        << failure;
    EXPECT_EQ(0, written);
    EXPECT_EQ("both", heldBy(writing.near));
}

TEST(SoapSocketPeer, ThatReadsByteByByteGetsAllThatIsWritten) {
    LoopbackPair pair;
    std::vector<unsigned char> body(8 << 20);
    std::iota(body.begin(), body.end(), static_cast<unsigned char>(0));
    std::string arrived;
    std::thread peer([&] {
        // Long enough that the writer waits for it, but not for all of them.
        char byte;
        while (arrived.size() < 500000 && ::recv(pair.far, &byte, 1, 0) == 1) arrived += byte;
        arrived += pair.receivedByFar();
    });
    int written = 0;
    pair.near.WriteBuffer(body.data(), static_cast<int>(body.size()), &written);
    pair.near.Close();
    peer.join();
    EXPECT_EQ(8 << 20, written);
    EXPECT_TRUE(std::equal(body.begin(), body.end(), arrived.begin(), arrived.end(),
                           [](unsigned char a, char b) { return static_cast<char>(a) == b; }));
}

TEST(SoapSocketTrace, HoldsEveryReceiveAndSendAsItWas) {
    LoopbackPair pair;
    std::string const path = testing::TempDir() + "trace" + std::to_string(::getpid());
    auto const trace = [&] {
        std::ostringstream all;
        all << std::ifstream(path, std::ios::binary).rdbuf();
        return all.str();
    };
    std::string const binary("\0\xFF\n<read[1]>\r\n\x80", 15);
    pair.near.echo(path.c_str());
    EXPECT_EQ("", trace());
    {
        SystemCallFaults const shortSends("send=2 send@2=EINTR send@3=1 recv=1");
        write(pair.near, "hello");
        EXPECT_EQ("\n<write[2]>\nhe\n<write[1]>\nl\n<write[2]>\nlo", trace());
        pair.near.echo(path.c_str());
        EXPECT_EQ("", trace());
        write(pair.near, binary);
        pair.sendFromFar(binary);
        received(pair.near);
        EXPECT_EQ("\n<write[15]>\n" + binary + "\n<read[1]>\n" + binary.substr(0, 1), trace());
        EXPECT_EQ(binary.substr(1), received(pair.near));
    }
    ::shutdown(pair.far, SHUT_WR);
    EXPECT_EQ("", received(pair.near));
    std::string const all = "\n<write[15]>\n" + binary + "\n<read[1]>\n" + binary.substr(0, 1) +
                            "\n<read[14]>\n" + binary.substr(1) + "\n<read[0]>\n";
    EXPECT_EQ(all, trace());
    for (char const* none : {"", static_cast<char const*>(nullptr), "/no folder/trace"}) {
        pair.near.echo(none);
        EXPECT_EQ("", received(pair.near));
    }
    EXPECT_EQ(all, trace());
    std::remove(path.c_str());
}

TEST(SoapSocketMemory, IsReleasedWhenAllocationsFail) {
    EXPECT_LT(5, forEachFailingAllocation([] {
                  SoapServerSocket server;
                  server.Open(0);
                  SoapSocket socket(server.m_boundPort, loopback());
                  socket.Open();
                  QORByteBuffer buf(16, 16);
                  SoapSocket peer(server.AwaitCommunicationAttempt());
                  write(peer, "hello");
                  socket.getInputStream()->read(buf, 100);
              }));
}
