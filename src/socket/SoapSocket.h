#pragma once

#include <cstddef>
#include <cstdio>
#include <string>

#include <sys/socket.h>

#include "foundation/Export.h"
#include "foundation/QORByteBuffer.h"
#include "foundation/ZULInputStream.h"
#include "foundation/ZULOutputStream.h"

class SoapSocket;

// What a failed call of the system raises in the classes below. It has nothing in common with the
// throwables of the core library: a handler for those does not catch it.
//
// Ownership: copies both texts into itself and takes no memory, so that running out of descriptors
//   or memory can be reported; thrown by value, caught by reference.
class POSTWIRE_EXPORT SoapSocketException {
public:
    enum ErrorId : int {
        SOAP_ERR_HOST_NAME = 1000,  // this machine's name can't be read
        SOAP_ERR_OPEN,              // a connection or a listening socket can't be set up
        SOAP_ERR_READ,              // a receive, or the wait before it, failed
        SOAP_ERR_END_OF_STREAM,     // SoapExEndofStream
        SOAP_ERR_WRITE,             // a send failed
        SOAP_ERR_ACCEPT,            // an accept, or the wait before it, failed
        SOAP_ERR_TIMEOUT,           // no connection arrived within the limit of an accept
    };

    // A null file name is kept as "null", null details as an empty text; details are cut at 128
    // characters.
    SoapSocketException(char const* fileName, int line, int id, char const* details);
    SoapSocketException(char const* fileName, int line, int id, char const* details,
                        int systemError);
    SoapSocketException(SoapSocketException const&);
    SoapSocketException& operator=(SoapSocketException const&);
    virtual ~SoapSocketException();

    virtual char const* getExceptionName();

    int getSourceLine() { return m_line; }

    // Without folder and extension, as "SoapSocket".
    char const* getSourceFileName() { return m_fileName; }

    // The system's text for the failure, unless the operation says otherwise.
    char const* getDetails() { return m_details; }
    int id() { return m_id; }

    // The failing call's errno, which also stands in errno at the catch; 0: none.
    int systemError() { return m_systemError; }

protected:
    int m_id;
    int m_line;
    char m_fileName[4096];
    char m_details[129];
    int m_systemError;
};

// For callers that want the end of a stream as an exception. The library never raises it: there,
// the end is a read of -1.
class POSTWIRE_EXPORT SoapExEndofStream : public SoapSocketException {
public:
    SoapExEndofStream(char const* fileName, int line);
    SoapExEndofStream(SoapExEndofStream const&);
    SoapExEndofStream& operator=(SoapExEndofStream const&);
    ~SoapExEndofStream() override;

    char const* getExceptionName() override;
};

// Brackets the use of sockets, for systems where they have to be started; here it does nothing.
class POSTWIRE_EXPORT SoapSocketInit {
public:
    SoapSocketInit();
    SoapSocketInit(SoapSocketInit const&) = delete;
    SoapSocketInit& operator=(SoapSocketInit const&) = delete;
    ~SoapSocketInit();
};

// Reads from a socket: each read is one receive, through the socket's ReadBuffer.
//
// Ownership: the socket is borrowed and must outlive the last read; close() leaves it open.
// Raises: SoapSocketException; what the socket's time-limit callback raises; without a socket
//   QORAssertError "QOR_ASSERT(mp_soap_socket);".
// Rule: a receive of 0 bytes is the end and reads as -1, and so does a read of 0 bytes, which waits
//   like any other.
class POSTWIRE_EXPORT SoapSocketInputStream : public ZULInputStream {
public:
    SoapSocketInputStream();
    SoapSocketInputStream(SoapSocketInputStream const&) = delete;
    ~SoapSocketInputStream() override;

    void setSoapSocket(SoapSocket* socket);

    // Receives straight into the buffer's storage.
    int read(QORByteBuffer& buf, int n) override;
    int read(char* bytes, int n) override;
    int read() override;

protected:
    SoapSocket* mp_soap_socket;
};

// Writes to a socket: each write returns when all its bytes were sent.
//
// Ownership: the socket is borrowed and must outlive the last write; close() leaves it open.
// Raises: SoapSocketException; without a socket QORAssertError "QOR_ASSERT(mp_soap_socket);".
class POSTWIRE_EXPORT SoapSocketOutputStream : public ZULOutputStream {
public:
    SoapSocketOutputStream();
    ~SoapSocketOutputStream() override;

    void setSoapSocket(SoapSocket* socket);

    void write(char const* data, int length) override;

protected:
    SoapSocket* mp_soap_socket;
};

// A TCP connection over blocking calls. Give it a host with SetServerHostInfo and Open a port, or
// an address and Open it, or wrap a connected descriptor; then read and write, here or through the
// two streams, and Close.
//
// Ownership: owns its descriptors, streams and trace file.
// Units: sizes and counts are bytes, intervals milliseconds; ports are in host byte order, but in
//   network byte order within an address. Of a port 16 bits count: 65616 is port 80.
// Raises: SoapSocketException with the system's text when a call of the system fails;
//   QORIllegalStateError when a host has no address; QORAssertError for null pointers and negative
//   sizes; std::bad_alloc where a host is set or opened. A call that a signal interrupted is
//   repeated, and never raised.
// Rule: one thread at a time. Names are turned into addresses by the address module alone. Sends
//   do not suppress SIGPIPE: a program that embeds the library ignores that signal. TCP_NODELAY is
//   set on connections that Open made, since a message leaves in several sends, which must not wait
//   for each other's acknowledgement; a descriptor that was given stays as it is.
class POSTWIRE_EXPORT SoapSocket {
public:
    // Family 0xFFFF: no address; as an argument, this machine's own.
    static sockaddr_storage const MaxIPAddress;

    // Family 0xFFFE: the address of a socket that was given none.
    static sockaddr_storage const s_localIPAddress;

    SoapSocket();

    // Wraps a connected descriptor, which from now on is the socket's to close.
    explicit SoapSocket(int fd);

    // For Open(): MaxIPAddress stands for this machine's address.
    SoapSocket(int port, sockaddr_storage address);
    SoapSocket(SoapSocket const&) = delete;
    SoapSocket& operator=(SoapSocket const&) = delete;

    // Closes the trace file, then the connection.
    virtual ~SoapSocket();

    // Shuts down and closes; never raises, and does nothing the second time.
    virtual void Close();

    // While a read waits, `callback` is run with `argument` each time `interval` has passed without
    // a byte; it ends the wait by raising, and the socket stays usable. Below 0 it never runs, and
    // a read without a descriptor raises SOAP_ERR_READ, since nothing could end it; at 0 it runs
    // again and again without waiting. Null turns it off. Writes have no limit.
    virtual void setTimeLimitCallback(void (*callback)(void*), void* argument, int interval);

    // Keeps the system's text for errno as the details of the next exception.
    virtual void saveSysError();

    // One receive of at most `size` bytes; their number in *pBytesRead, 0 at the end of the
    // stream, -1 after a failed receive. A size of 0 waits like any other, and gives 0.
    virtual void ReadBuffer(unsigned char* pInputBuff, int size, int* pBytesRead);

    // Sends all `size` bytes. *pBytesWritten is then `size`; after a failure it is 0, even if part
    // of the bytes went out. A size of 0 makes no call of the system.
    virtual void WriteBuffer(unsigned char const* pOutputBuff, int size, int* pBytesWritten);

    // The host for Open(int), copied; null: this machine's name.
    void SetServerHostInfo(char* host);
    void SetServerHostInfo(char const* host);
    void SetServerHostInfo(std::nullptr_t);

    // Each Open does nothing on an open socket. One that fails leaves the socket not open; its
    // descriptor is closed by the next Open, by Close or by the destructor.

    // Connects to the first address of the host.
    void Open(int port);

    // Connects to an IPv4 address, with the port put into it. Never ends on descriptor 0.
    void Open(int port, sockaddr_storage address);

    // Connects to the port and address given to the constructor or to prepare.
    void Open();

    // Closes the socket and sets port and address as the constructor does.
    void prepare(int port, sockaddr_storage address);

    // From now on every receive and every send leaves a header line and its bytes in this file,
    // which is emptied first; null or an empty path ends it. A file that can't be opened means no
    // trace. The trace holds every secret that goes over the connection; it is closed on exec.
    void echo(char const* path);

    // A read or send that would have to wait then raises, unless a time-limit callback lets the
    // read wait. Gives what ioctl gave: 0, or -1.
    int SwitchToNonBlocking();

    // The descriptor that reads and writes use, of a server the listening one; -1: none. It stays
    // the socket's.
    int getDescriptor() { return m_ioSocket != -1 ? m_ioSocket : m_socket; }

    // The socket's own, good as long as it is.
    SoapSocketInputStream* getInputStream() { return &m_inputStream; }
    SoapSocketOutputStream* getOutputStream() { return &m_outputStream; }

    // The first address of a host, port 0: all zero without the address module, MaxIPAddress where
    // there is none.
    static sockaddr_storage GetIPAddress(char* host);

    // This machine's address, or MaxIPAddress.
    static sockaddr_storage getMyIPAddress();

    // This machine's name, zero-terminated, into `name`; null: does nothing. A length too small
    // raises, with errno's number instead of a text.
    static void GetInternetMachineName(char* name, unsigned int length);

protected:
    QORByteBuffer m_lastError;
    int m_socket;    // what Open made, or the listening descriptor; -1: none
    int m_ioSocket;  // what reads, writes and waits use; -1: none
    std::string m_host;
    void (*m_timeLimitCallback)(void*);
    void* m_timeLimitArg;
    int m_timeLimitInterval;
    SoapSocketInputStream m_inputStream;
    SoapSocketOutputStream m_outputStream;
    int m_port;
    sockaddr_storage m_address;
    int m_open;
    FILE* m_echoFile;

    // The one place that raises, so that the 4 KiB of the exception stand in no other frame.
    [[noreturn]] static void raise(int line, int id, char const* details, int systemError);

    // The same with the system's text for errno.
    [[noreturn]] void raiseSysError(int line, int id);

    // A receive ("read") or a send ("write") as the trace shows it; nothing without one. For
    // sockets whose reads and writes do not go through those of this class, as of TLS: each calls
    // it once for what it has given or taken.
    void trace(char const* direction, unsigned char const* bytes, int n);

private:
    void connectTo(sockaddr_storage const& address, bool keepOffZero);
    void waitForInput();
};

// A listening TCP socket on all IPv4 interfaces. Connections are handed out as descriptors, for
// SoapSocket(int) to wrap.
//
// Ownership: owns the listening descriptor; accepted ones are the caller's, and closing this socket
//   does not close them.
// Units: time limits are milliseconds, 0: none.
// Rule: one thread at a time waits. Accepted descriptors are closed on exec, have TCP_NODELAY set,
//   and are never 0, which says that there was none.
class POSTWIRE_EXPORT SoapServerSocket : public SoapSocket {
public:
    SoapServerSocket();
    ~SoapServerSocket() override;

    // Listens on the port, 0: one that the system chooses; m_boundPort is then that one, else the
    // number that was asked for. Opened again,
    // it listens on a second descriptor and forgets the first, which is not closed. After a failure
    // the descriptor made stays until Close.
    void Open(int port);

    // Waits for a connection.
    int AwaitCommunicationAttempt();

    // The same, but raises SOAP_ERR_TIMEOUT, "SOCKET_TIMEOUT", when the limit has passed. A signal
    // starts the wait anew with the full limit.
    int AwaitCommunicationAttempt(int limit);

    // The same, but gives 0 when the limit has passed.
    int acceptConnection(int limit);

    sockaddr_storage m_peerAddress;  // of the last connection accepted
    int m_boundPort;
};
