#pragma once

#include <cstddef>
#include <string>

#include "foundation/Export.h"

// What a tokenizer throws when asked for a token that is not there; no throwable of the core
// library, and without a text.
struct POSTWIRE_EXPORT NoSuchElementExceptionST {
    int code = 0;
};

// Splits a text into the tokens between the characters of a delimiter set.
//
// Ownership: works on a copy of the text. Tokens point into it, each terminated in place, so that
//   taking one costs no memory; they are good until the tokenizer is destroyed.
// Raises: NoSuchElementExceptionST when no token is left; QOROutOfMemoryError when there is no
//   memory for the copy; QORAssertError for a null delimiter set and a text's negative length.
// Rule: with emptyTokens 0 delimiters that stand together count as one, and no token is empty.
//   Otherwise each delimiter ends one token, empty where nothing stands before it; a delimiter at
//   the very end is not followed by an empty token.
class POSTWIRE_EXPORT QORStringTokenizer {
public:
    // A null text has no tokens.
    QORStringTokenizer(char const* text, char const* delims, int emptyTokens);

    // At most `length` bytes of the text, up to its first zero byte.
    QORStringTokenizer(char const* text, int length, char const* delims, int emptyTokens);
    QORStringTokenizer(QORStringTokenizer const&) = delete;
    QORStringTokenizer& operator=(QORStringTokenizer const&) = delete;
    ~QORStringTokenizer();

    // Finds the bounds of the current token; for the operations below.
    void Advance();

    // 1 when another token can be taken, else 0.
    int hasMoreTokens();
    char* nextToken();

    // Takes the current token, whose end is already set, and uses the new set from the next one on.
    char* nextToken(char const* delims);

    // The text from the current token on with its delimiters as they stood. To be called last.
    char* theRest();

private:
    void start(char const* text, std::size_t length, char const* delims);

    char* m_pBuffer;
    char* m_pPos;       // the current token; null behind the last one
    char* m_pTokenEnd;  // where the current token was cut with a zero byte
    char m_savedChar;   // what stood there; zero at the end of the text
    int m_bEmptyTokens;
    std::string m_delims;
};
