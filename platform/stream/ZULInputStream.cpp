#include "foundation/ZULInputStream.h"

#include <algorithm>

#include "foundation/QORByteBuffer.h"
#include "foundation/QORThrowable.h"
#include "foundation/ZULStreamException.h"

static char const kSourceFile[] = "ZULInputStream";

namespace {

// What one read may ask for before anything has arrived, and the room below which growing is better
// than a short read.
constexpr int kFirstPiece = 64 * 1024;
constexpr int kWorthReading = 4 * 1024;

void requireCount(int n, int line) {
    if (n < 0)
        ZULStreamException::raise(ZULStreamException::ZUL_ERR_NEGATIVE_COUNT,
                                  QORFileLocation(kSourceFile, line));
}

[[noreturn]] void raiseEndOfInput(int line) {
    ZULStreamException::raise(ZULStreamException::ZUL_ERR_END_OF_INPUT,
                              QORFileLocation(kSourceFile, line));
}

// Bytes written behind the content of a buffer become content when this ends, and the terminating
// zero stands again, also where the read raised after it had written.
class Arrival {
public:
    Arrival(QORByteBuffer& buf, int room) : m_buf(buf) {
        buf.reserve(buf.pcount() + static_cast<unsigned int>(room));
    }
    ~Arrival() { m_buf.setLength(m_buf.pcount() + static_cast<unsigned int>(std::max(count, 0))); }
    Arrival(Arrival const&) = delete;
    Arrival& operator=(Arrival const&) = delete;

    char* begin() const { return m_buf.str() + m_buf.pcount(); }
    int count = 0;

private:
    QORByteBuffer& m_buf;
};

}  // namespace

ZULInputStream::~ZULInputStream() = default;

int ZULInputStream::read(QORByteBuffer& buf, int n) {
    requireCount(n, __LINE__);
    if (n == 0) return 0;
    // A count is a wish, not a promise: free room is used up first, and then no more is taken at
    // once than is there already.
    int const room = static_cast<int>(buf.capacity() - buf.pcount());
    int const most = std::max(kFirstPiece, static_cast<int>(buf.pcount()));
    int const piece = std::min(n, room >= kWorthReading ? room : most);
    Arrival arrival(buf, piece);
    int const got = read(arrival.begin(), piece);
    QOR_ASSERT(got <= piece);
    return arrival.count = got;
}

int ZULInputStream::readFully(QORByteBuffer& buf, int n) {
    requireCount(n, __LINE__);
    // A stream that gives 0 against its contract would keep us here for ever: that is an end too.
    for (int done = 0; done < n;) {
        int const got = read(buf, std::min(n - done, std::max(kFirstPiece, done)));
        if (got <= 0) raiseEndOfInput(__LINE__);
        done += got;
    }
    return n;
}

int ZULInputStream::readFully(char* bytes, int n) {
    requireCount(n, __LINE__);
    for (int done = 0; done < n;) {
        int const got = read(bytes + done, n - done);
        if (got <= 0) raiseEndOfInput(__LINE__);
        done += got;
    }
    return n;
}

int ZULInputStream::read() {
    char byte;
    return read(&byte, 1) == 1 ? static_cast<unsigned char>(byte) : -1;
}

void ZULInputStream::close() {}
bool ZULInputStream::canUnread() { return false; }
// Not a QORThrowable: who calls it without asking canUnread has a mistake to mend, not a failure to
// handle.
void ZULInputStream::unread(char const*, int) {
    static char const kText[] = "not implemented";
    throw static_cast<char const*>(kText);
}
bool ZULInputStream::canTimeout() const { return false; }
void ZULInputStream::setTimeout(int) {}
int ZULInputStream::getTimeout() const { return 0; }
bool ZULInputStream::canCancel() const { return false; }
void ZULInputStream::setCancel(int) {}
int ZULInputStream::getCancel() const { return 0; }
void ZULInputStream::cancel() {}

ZULFilterInputStream::ZULFilterInputStream(ZULInputStream& in) : m_pIn(&in) {}
ZULFilterInputStream::~ZULFilterInputStream() = default;

int ZULFilterInputStream::read(char* bytes, int n) {
    requireCount(n, __LINE__);
    return n == 0 ? 0 : beneath().read(bytes, n);
}

ZULInputStream* ZULFilterInputStream::getInputStream() { return m_pIn; }
void ZULFilterInputStream::detach() { m_pIn = nullptr; }

// Every way to the stream beneath leads through here: detached, it may be gone.
ZULInputStream& ZULFilterInputStream::beneath() {
    QOR_ASSERT(m_pIn);
    return *m_pIn;
}
