#pragma once

#include "foundation/Export.h"

class QORByteBuffer;

// A source of bytes.
//
// Ownership: buffers and memory are the caller's, and are not kept beyond the call.
// Units: counts are bytes.
// Raises: ZULStreamException for a negative count, and then reads nothing; what the source itself
//   raises passes through.
// Rule: a read of more than 0 bytes never gives 0: it gives what is there, waits for the first
//   byte, or says -1 at the end. A read of 0 bytes gives 0 and asks nothing beneath. Neither holds
//   of a socket's stream, which takes a receive of 0 bytes for the end.
class POSTWIRE_EXPORT ZULInputStream {
public:
    ZULInputStream() = default;
    ZULInputStream(ZULInputStream const&) = default;
    ZULInputStream& operator=(ZULInputStream const&) = delete;
    virtual ~ZULInputStream();

    // Appends at most n bytes to buf, in one read; their number, or -1 at the end. Unless a stream
    // knows better, through read(char*, int), straight into the buffer's storage.
    virtual int read(QORByteBuffer& buf, int n);

    // Reads at most n bytes into memory, in one read; their number, or -1 at the end.
    virtual int read(char* bytes, int n) = 0;

    // Exactly n bytes, in as many reads as it takes; n. Raises ZULStreamException when the input
    // ends first; what was appended to buf by then stays. Asks in pieces, each at most the larger
    // of 64 KiB and what has already arrived, so that a length that was only declared costs no
    // memory.
    virtual int readFully(QORByteBuffer& buf, int n);
    virtual int readFully(char* bytes, int n);

    // One byte as 0 to 255, or -1 at the end.
    virtual int read();

    // Does nothing here.
    virtual void close();

    // Whether unread works; false here.
    virtual bool canUnread();

    // Puts bytes back in front of the next read. Here it throws the `char const*` "not
    // implemented".
    virtual void unread(char const* bytes, int n);

    // Time limits and cancelling, for sources that have them. Here the questions say false, the
    // setters do nothing and the getters give 0.
    virtual bool canTimeout() const;
    virtual void setTimeout(int milliseconds);
    virtual int getTimeout() const;
    virtual bool canCancel() const;
    virtual void setCancel(int cancel);
    virtual int getCancel() const;
    virtual void cancel();
};

// An input stream that reads from another one.
//
// Ownership: the other stream is borrowed and must outlive the last read, not the filter.
class POSTWIRE_EXPORT ZULFilterInputStream : public ZULInputStream {
public:
    explicit ZULFilterInputStream(ZULInputStream& in);
    ZULFilterInputStream(ZULFilterInputStream const&) = default;
    ~ZULFilterInputStream() override;

    using ZULInputStream::read;

    // Reads from the stream beneath.
    int read(char* bytes, int n) override;

    // The stream beneath, or null after detach().
    virtual ZULInputStream* getInputStream();

    // Lets go of the stream beneath; called just before a filter is deleted. What is read
    // afterwards, beyond bytes already held, fails an assertion.
    virtual void detach();

protected:
    // The stream beneath; fails "QOR_ASSERT(m_pIn);" after detach().
    ZULInputStream& beneath();

private:
    ZULInputStream* m_pIn;
};
