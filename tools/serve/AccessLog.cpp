#include "tools/serve/AccessLog.h"

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <iomanip>
#include <iterator>
#include <sstream>
#include <system_error>
#include <utility>

#include <fcntl.h>
#include <nlohmann/json.hpp>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include "foundation/AsciiText.h"
#include "tools/serve/Complaints.h"

namespace {

// That wait for the writer.
constexpr std::size_t kMostHeld = 4 << 20;
// What a pipe takes without a wait once it is said to be writable.
constexpr std::size_t kPipePiece = 4096;
constexpr int kTick = 100;      // milliseconds
constexpr int kLastTicks = 10;  // without progress, when the program ends

std::string now(char const* format) {
    std::time_t const time = std::time(nullptr);
    std::tm utc{};
    ::gmtime_r(&time, &utc);
    std::ostringstream text;
    text << std::put_time(&utc, format);
    return text.str();
}

// As other servers do: quotes, backslashes and what is no printable ASCII as \xHH.
std::string quoted(std::string const& text) {
    std::string result = "\"";
    for (char const c : text.empty() ? "-" : text) {
        bool const isPlain = c >= ' ' && c < '\x7F' && c != '"' && c != '\\';
        auto const byte = static_cast<unsigned char>(c);
        if (isPlain)
            result += c;
        else
            result += {'\\', 'x', upperHexDigit(byte >> 4U), upperHexDigit(byte)};
    }
    return result + "\"";
}

}  // namespace

std::string combinedLine(postwire::ExchangeReport const& report) {
    std::string line = report.peer.empty() ? "-" : report.peer;
    std::string const request = report.uri.empty() ? ""
                                                   : "POST " + report.uri + " HTTP/1." +
                                                         std::to_string(report.minorVersion);
    line += now(" - - [%d/%b/%Y:%H:%M:%S +0000] ") + quoted(request) + " " +
            std::to_string(report.status) + " " + std::to_string(report.bytesOut) + " " +
            quoted(report.referer) + " " + quoted(report.userAgent);
    for (auto const& time : {report.head, report.body, report.handler, report.answer})
        line += " " + std::to_string(time.count());
    return line + "\n";
}

std::string jsonLine(postwire::ExchangeReport const& report) {
    nlohmann::ordered_json object = {{"time", now("%Y-%m-%dT%H:%M:%SZ")},
                                     {"peer", report.peer},
                                     {"port", report.peerPort},
                                     {"uri", report.uri},
                                     {"version", "1." + std::to_string(report.minorVersion)},
                                     {"status", report.status},
                                     {"bytesIn", report.bytesIn},
                                     {"bytesOut", report.bytesOut},
                                     {"head", report.head.count()},
                                     {"body", report.body.count()},
                                     {"handler", report.handler.count()},
                                     {"answer", report.answer.count()}};
    if (!report.referer.empty()) object["referer"] = report.referer;
    if (!report.userAgent.empty()) object["userAgent"] = report.userAgent;
    if (report.code != 0) object["code"] = report.code;
    if (!report.text.empty()) object["error"] = report.text;
    using Json = nlohmann::ordered_json;
    return object.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n";
}

AccessLog::AccessLog(std::string const& path, Format format)
    : m_path(path), m_format(format), m_file(open()) {
    if (m_file == -1) throw std::system_error(errno, std::generic_category(), path);
    m_thread = std::thread(&AccessLog::run, this);
}

AccessLog::~AccessLog() {
    {
        std::lock_guard<std::mutex> const lock(m_mutex);
        m_ends = true;
    }
    m_changed.notify_one();
    m_thread.join();
    ::close(m_file);
}

int AccessLog::open() const {
    if (m_path == "-") return ::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3);
    return ::open(m_path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0640);
}

void AccessLog::add(postwire::ExchangeReport const& report) {
    std::string const line = m_format == Format::json ? jsonLine(report) : combinedLine(report);
    bool wakes = false;
    {
        std::lock_guard<std::mutex> const lock(m_mutex);
        wakes = m_lines.empty();
        if (m_lines.size() + line.size() > kMostHeld)
            ++m_dropped;
        else
            m_lines += line;
    }
    if (wakes) m_changed.notify_one();
}

void AccessLog::reopen() {
    {
        std::lock_guard<std::mutex> const lock(m_mutex);
        m_reopens = true;
    }
    m_changed.notify_one();
}

// What came before a reopening goes to the old file.
void AccessLog::run() {
    std::unique_lock<std::mutex> lock(m_mutex);
    for (;;) {
        m_changed.wait(lock, [this] { return m_ends || m_reopens || !m_lines.empty(); });
        std::string lines;
        lines.swap(m_lines);
        bool const reopens = std::exchange(m_reopens, false);
        bool const ends = m_ends;
        lock.unlock();
        bool const written = writeOut(lines);
        if (reopens) {
            int const file = open();
            if (file == -1) tell(std::generic_category().message(errno));
            if (file != -1) ::close(std::exchange(m_file, file));
        }
        lock.lock();
        if (written && m_dropped > 0) {
            complain(m_path + ": " + std::to_string(m_dropped) + " lines were dropped");
            m_dropped = 0;
        }
        if (written && !lines.empty()) m_isInTrouble = false;
        if (ends && m_lines.empty()) return;
    }
}

// False where some of it could not be written: those lines are counted as dropped.
bool AccessLog::writeOut(std::string const& lines) {
    struct stat facts {};
    bool const isFile = ::fstat(m_file, &facts) == 0 && S_ISREG(facts.st_mode);
    for (std::size_t at = 0; at < lines.size();) {
        bool const hasRoom = isFile || waitForRoom();
        std::size_t const size =
            isFile ? lines.size() - at : std::min(kPipePiece, lines.size() - at);
        ssize_t const n = hasRoom ? ::write(m_file, lines.data() + at, size) : -1;
        if (n > 0) at += static_cast<std::size_t>(n);
        if (n >= 0 || (hasRoom && errno == EINTR)) continue;
        tell(hasRoom ? std::generic_category().message(errno) : "nobody reads it");
        std::lock_guard<std::mutex> const lock(m_mutex);
        m_dropped += std::count(std::next(lines.begin(), static_cast<long>(at)), lines.end(), '\n');
        return false;
    }
    return true;
}

// For a pipe; false where the program ends and nothing was taken for a while.
bool AccessLog::waitForRoom() {
    for (int ticks = 0;; ++ticks) {
        pollfd wanted{m_file, POLLOUT, 0};
        if (::poll(&wanted, 1, kTick) > 0) return true;
        std::unique_lock<std::mutex> lock(m_mutex);
        if (m_ends && ticks >= kLastTicks) return false;
        bool const isFull = m_dropped > 0;
        lock.unlock();
        if (isFull) tell("it is read too slowly, lines are dropped");
    }
}

void AccessLog::tell(std::string const& trouble) {
    {
        std::lock_guard<std::mutex> const lock(m_mutex);
        if (std::exchange(m_isInTrouble, true)) return;
    }
    complain("can't write the access log " + m_path + ": " + trouble);
}
