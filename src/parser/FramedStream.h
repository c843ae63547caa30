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
    // How many bytes of n the framing lets be asked for beneath; -1 at the end of the body.
    virtual int bytesToAsk(int n);

    // So many came; 0 or less: the stream beneath has ended.
    virtual void noteArrival(int n);

    // Whether so many may be given without a look at what is behind them.
    bool isWithin(int n) const { return !m_ended && n <= m_bytes.left(); }

    // Counts what came; what the caller of read gets.
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
