#pragma once

#include "foundation/ZULInputStream.h"

#include "parser/Budget.h"

namespace postwire::internal {

// The body of one level as a stream that ends where the body ends: here, where the stream beneath
// does. What breaks the framing raises HTTPPolicyException.
//
// Ownership: borrows the stream beneath and the budget.
// Rule: it takes no byte behind the body, and remembers its end.
class FramedStream : public ZULInputStream {
public:
    // `bytes`: what may be read of all bodies of the message.
    FramedStream(ZULInputStream& in, Budget& bytes);

    using ZULInputStream::read;
    int read(QORByteBuffer& buf, int n) override;
    int read(char* bytes, int n) override;

protected:
    // The caller wants n bytes: how many of these to ask the stream beneath for, or -1 where the
    // body has ended.
    virtual int bytesToAsk(int n);

    // The stream beneath gave n bytes, or has ended where n is 0 or less.
    virtual void noteArrival(int n);

    // Whether n bytes are within the budget, so that no byte behind them need be looked at.
    bool isWithin(int n) const { return !m_ended && n <= m_bytes.left(); }

    // Counts the n bytes that came, and remembers an end; what read returns for them.
    int countRead(int n);

private:
    template <class Read>
    int readBy(Read const& readBeneath, int n);

    ZULInputStream& m_in;
    Budget& m_bytes;
    bool m_ended;
};

// A body of a declared length.
class LengthStream : public FramedStream {
public:
    // `cut` is raised where the stream beneath ends first.
    LengthStream(ZULInputStream& in, int length, Budget::Code cut, Budget& bytes);

private:
    int bytesToAsk(int n) override;
    void noteArrival(int n) override;

    int m_left;
    Budget::Code m_cut;
};

// Reads up to the end and drops the bytes.
void drain(ZULInputStream& in, Budget& unread, Budget& bytes);

}  // namespace postwire::internal
