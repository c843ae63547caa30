#include <cerrno>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/CaseFile.h"
#include "support/LoopbackPair.h"
#include "support/SystemCallFaults.h"

namespace {

int descriptors() {
    return static_cast<int>(
        std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}));
}

// What the operations of socket_faults.txt work on.
class Rig {
public:
    Rig() {
        m_pair.sendFromFar("hello");
        for (SoapSocket& w : m_waiting) w.Open(m_pair.server.m_boundPort, loopback());
        m_client.SetServerHostInfo(m_localhost);
        m_before = descriptors();
    }
    ~Rig() {
        for (int fd : m_owned) ::close(fd);
    }

    std::string run(std::string const& operation) {
        bool const transfer = operation.find("read") == 0 || operation.find("write") == 0;
        bool const server = operation.find("accept") == 0 || operation.find("await") == 0;
        SoapSocket& subject = transfer                ? m_pair.near
                              : server                ? m_pair.server
                              : operation == "listen" ? m_listener
                                                      : m_client;
        m_count = 7;
        std::string gives;
        std::string const failure = socketFailure([&] { gives = perform(operation); });
        if (!failure.empty()) gives = failure;
        if (transfer) gives += ", " + std::to_string(m_count) + " bytes";
        return gives + ", " + heldBy(subject) + ", +" + std::to_string(descriptors() - m_before);
    }

private:
    std::string perform(std::string const& operation) {
        int const port = m_pair.server.m_boundPort;
        if (operation == "open host") m_client.Open(port);
        if (operation == "open address") m_client.Open(port, loopback());
        if (operation == "read in time")
            m_pair.near.setTimeLimitCallback([](void*) {}, nullptr, 1000);
        if (operation.find("read") == 0) m_pair.near.ReadBuffer(m_bytes, 5, &m_count);
        if (operation == "write") m_pair.near.WriteBuffer(m_bytes, 5, &m_count);
        if (operation == "accept") return accepted(m_pair.server.AwaitCommunicationAttempt());
        if (operation == "accept in time") return accepted(m_pair.server.acceptConnection(1000));
        if (operation == "await in time")
            return accepted(m_pair.server.AwaitCommunicationAttempt(1000));
        if (operation == "host name") m_client.SetServerHostInfo(nullptr);
        if (operation == "machine name") SoapSocket::GetInternetMachineName(m_name, sizeof m_name);
        if (operation == "machine address" && SoapSocket::getMyIPAddress().ss_family == 0xFFFF)
            return "none";
        if (operation == "listen") {
            // Opened twice, a server forgets the first descriptor and does not close it.
            m_owned.push_back(SocketDescriptors::made(m_listener));
            m_listener.Open(0);
        }
        return "ok";
    }
    std::string accepted(int fd) {
        if (fd > 0) m_owned.push_back(fd);
        return fd > 0 ? "ok" : "nothing";
    }

    LoopbackPair m_pair;
    SoapSocket m_client, m_waiting[2];
    SoapServerSocket m_listener;
    unsigned char m_bytes[5] = {'w', 'o', 'r', 'l', 'd'};
    char m_localhost[10] = "127.0.0.1";
    char m_name[256];
    int m_before = 0, m_count = 0;
    std::vector<int> m_owned;  // descriptors that no socket closes
};

std::string replaced(std::string text, std::string const& what, std::string const& by) {
    for (std::size_t at; (at = text.find(what)) != std::string::npos;)
        text.replace(at, what.size(), by);
    return text;
}

void check(TestCase const& row, int error) {
    auto const text = [&](char const* column) {
        std::string const named = replaced(row[column], "$E", strerrorname_np(error));
        return replaced(replaced(named, "$T", std::strerror(error)), "$N", std::to_string(error));
    };
    SCOPED_TRACE(row.where() + ": " + row["operation"] + ", " + text("faults"));
    int const before = descriptors();
    {
        Rig rig;
        {
            SystemCallFaults const faults(text("faults"));
            EXPECT_EQ(text("gives"), rig.run(row["operation"]));
            EXPECT_EQ(row["calls"], SystemCallFaults::log());
        }
        std::string const again = row["again"].empty() ? "" : rig.run(row["operation"]);
        EXPECT_EQ(row["again"], again);
    }
    EXPECT_EQ(before, descriptors());
}

}  // namespace

TEST(SoapSocketFault, LeavesIdTextCountsAndDescriptorsAsTheTableSays) {
    for (TestCase const& row : loadCases("socket_faults.txt"))
        if (row["faults"].find("$E") == std::string::npos)
            check(row, 0);
        else
            for (int error : {EAGAIN, ECONNRESET, EPIPE, EMFILE, ENFILE, ECONNREFUSED})
                check(row, error);
}
