#include "foundation/StringTokenizer.h"

#include <cstring>
#include <memory>
#include <utility>

#include "foundation/QORThrowable.h"

#include "foundation/GuardedAllocation.h"

static char const kSourceFile[] = "StringTokenizer";

QORStringTokenizer::QORStringTokenizer(char const* text, char const* delims, int emptyTokens)
    : m_pBuffer(nullptr),
      m_pPos(nullptr),
      m_pTokenEnd(nullptr),
      m_savedChar(0),
      m_bEmptyTokens(emptyTokens) {
    start(text, text ? std::strlen(text) : 0, delims);
}

QORStringTokenizer::QORStringTokenizer(char const* text, int length, char const* delims,
                                       int emptyTokens)
    : m_pBuffer(nullptr),
      m_pPos(nullptr),
      m_pTokenEnd(nullptr),
      m_savedChar(0),
      m_bEmptyTokens(emptyTokens) {
    if (text) QOR_ASSERT(length >= 0);
    start(text, static_cast<std::size_t>(length), delims);
}

QORStringTokenizer::~QORStringTokenizer() {
    std::unique_ptr<char[]>(std::exchange(m_pBuffer, nullptr)).reset();
}

// The elements of the new buffer are zero, so the copy is terminated wherever it stops.
void QORStringTokenizer::start(char const* text, std::size_t length, char const* delims) {
    QOR_ASSERT(delims);
    m_delims = delims;
    if (!text) return;
    QORFileLocation const here(kSourceFile, __LINE__);
    m_pBuffer = guardedNewArray<char>(here, length + 1).release();
    std::memcpy(m_pBuffer, text, strnlen(text, length));
    m_pPos = m_pBuffer;
    Advance();
}

void QORStringTokenizer::Advance() {
    if (!m_pPos) return;
    if (!m_bEmptyTokens) m_pPos += std::strspn(m_pPos, m_delims.c_str());
    m_savedChar = 0;
    if (*m_pPos == 0) return;
    m_pTokenEnd = m_pPos + std::strcspn(m_pPos, m_delims.c_str());
    m_savedChar = std::exchange(*m_pTokenEnd, '\0');
}

int QORStringTokenizer::hasMoreTokens() {
    bool const atToken = m_pPos && *m_pPos != 0;
    bool const atEmptyToken = m_bEmptyTokens && m_savedChar != 0;
    return atToken || atEmptyToken;
}

char* QORStringTokenizer::nextToken() {
    if (!hasMoreTokens()) throw NoSuchElementExceptionST();
    char* const token = m_pPos;
    if (m_savedChar != 0) {
        m_pPos = m_pTokenEnd + 1;
        Advance();
    } else {
        m_pPos = nullptr;
    }
    return token;
}

char* QORStringTokenizer::nextToken(char const* delims) {
    QOR_ASSERT(delims);
    m_delims = delims;
    return nextToken();
}

char* QORStringTokenizer::theRest() {
    if (!hasMoreTokens()) throw NoSuchElementExceptionST();
    *m_pTokenEnd = m_savedChar;
    return m_pPos;
}
