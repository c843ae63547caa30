#pragma once

#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

#include "service/ExchangeReport.h"

// A line for each exchange, in Combined Log Format with the microseconds behind it that head, body,
// handler and answer took, or as a JSON object. Written by a thread of its own: a full disk or a
// pipe that nobody reads holds up no answer. What does not fit into a few megabytes then is
// dropped, and told of once until lines are written again.
//
// Raises: std::system_error for a file that can't be opened.
class AccessLog {
public:
    enum class Format { combined, json };

    // "-" is standard output.
    AccessLog(std::string const& path, Format format);
    AccessLog(AccessLog const&) = delete;
    AccessLog& operator=(AccessLog const&) = delete;

    // Writes what is held; gives up where nothing of it is taken for a second.
    ~AccessLog();

    // From any thread.
    void add(postwire::ExchangeReport const& report);

    // Opens the file anew, as after it was renamed; lines go to the old one until then.
    void reopen();

private:
    void run();
    int open() const;
    bool writeOut(std::string const& lines);
    bool waitForRoom();
    void tell(std::string const& trouble);

    std::string const m_path;
    Format const m_format;
    int m_file;
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::string m_lines;  // under the mutex, as are those that follow
    long long m_dropped = 0;
    bool m_reopens = false;
    bool m_ends = false;
    bool m_isInTrouble = false;  // and that was told
    std::thread m_thread;
};

// The formats, each a line with its end.
std::string combinedLine(postwire::ExchangeReport const& report);
std::string jsonLine(postwire::ExchangeReport const& report);
