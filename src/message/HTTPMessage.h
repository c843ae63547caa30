#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "foundation/Export.h"
#include "foundation/QORByteBuffer.h"

#include "message/HeaderLines.h"

// The value of one header field: a main value, attributes ("; name=value") and whether it is
// written between double quotes. The field's name is the key in HTTPHeaders.
//
// Ownership: owns its texts; a pointer to one is good until the header next changes. Arguments are
//   copied, and may be texts of this header.
// Raises: QORAssertError for a null text, and then changes nothing; std::bad_alloc. A parse that
//   runs out of memory leaves a valid header, possibly with some of the attributes stored.
// Rule: attributes are RFC 9110 section 5.6.6 parameters but for two points: names compare with
//   their case, and a ";" between quotes separates, too.
class POSTWIRE_EXPORT HTTPHeader {
public:
    HTTPHeader();

    // The text as it is: neither trimmed nor taken apart, and written without added quotes.
    HTTPHeader(char const* value);
    HTTPHeader(HTTPHeader const&);

    // All or nothing: when it raises, the header is as it was. Of itself it does nothing.
    HTTPHeader& operator=(HTTPHeader const&);
    virtual ~HTTPHeader();

    // Replaces the main value by the text as it is; attributes stay.
    void setValue(char const* value);
    char const* getValue();

    // Stores an attribute, in place of one of exactly that name.
    void setAttribute(char const* field, char const* value);

    // Null when there is none of exactly that name.
    char const* getAttribute(char const* field);

    // Takes header text apart: the main value before the first ";", then the attributes, each
    // trimmed as HTTPMessage::trim does; what stands between semicolons without "=" is dropped.
    // Attributes already there stay unless the text sets them. The value is quoted when the very
    // first character of the text is a quote.
    void parse(char const* pvalue);

    // Appends the text form: value and attributes, these sorted by name and without quotes of
    // their own; the quotes of a quoted value stand around all of it.
    void dump(QORByteBuffer& buf);

    // As after default construction, but the memory of the value is kept: for a header that is
    // parsed into again and again.
    void reset();

    // The number of bytes that dump appends.
    std::size_t dumpSize();

    // As parse of the line's text into a new header. For HTTPHeaders, which keeps lines.
    explicit HTTPHeader(postwire::internal::HeaderLine const& line);

private:
    friend class HTTPHeaders;
    friend class HTTPParser;
    friend struct postwire::internal::LineAsItCame;
    friend struct postwire::internal::ConstTree;

    // As reset and parse of the line's text, which is taken apart when the header is first asked
    // or changed: most headers of a message never are. Line and bytes must live until then.
    void borrow(postwire::internal::HeaderLine const& line) {
        if (!m_value.empty() || !m_attributes.empty()) reset();
        m_quoted = 0;
        m_borrowed = &line;
    }

    void parseBorrowed();
    void moveFrom(HTTPHeader& other);
    void parseText(std::string_view text);
    void parseAttributes(std::string_view text);
    void storeAttribute(std::string_view name, std::string_view value);
    bool holds(char const* text) const;

    std::string m_value;
    std::map<std::string, std::string, std::less<>> m_attributes;
    int m_quoted;
    // The line whose text is not taken apart yet; null for a header that has its value itself.
    postwire::internal::HeaderLine const* m_borrowed;
};

// Orders field names as strcasecmp does in the POSIX locale: letters without their case, bytes
// unsigned, a name ends at its first zero byte. Compares plain texts, so that a look-up builds no
// string.
struct httphdr_CaseInsensitiveStringComparePredicate {
    using is_transparent = void;

    bool operator()(char const* a, char const* b) const;
    bool operator()(std::string const& a, std::string const& b) const {
        return (*this)(a.c_str(), b.c_str());
    }
    bool operator()(std::string const& a, char const* b) const { return (*this)(a.c_str(), b); }
    bool operator()(char const* a, std::string const& b) const { return (*this)(a, b.c_str()); }
};

// The header fields of one message, sorted by name without regard to case.
//
// Ownership: copies names and values. A pointer to a stored value is good until that entry is
//   removed; what is changed through it is changed here, and a later value of its name shows in it.
// Raises: QORAssertError for a null argument; std::bad_alloc, from a look-up, too, that is the
//   first to ask for a text. The collection is then as it was.
// Rule: one entry a name, but for "set-cookie", which can't be joined into one line (RFC 9110
//   section 5.3) and is added each time. An entry keeps the letter case in which it was first
//   named. Names and values go out as given: whoever takes them from outside keeps CR and LF away.
class POSTWIRE_EXPORT HTTPHeaders {
public:
    HTTPHeaders();
    HTTPHeaders(HTTPHeaders const&) = delete;
    HTTPHeaders& operator=(HTTPHeaders const&) = delete;
    ~HTTPHeaders();

    // The first entry of that name, or null.
    HTTPHeader* getHeader(char const* field);

    // Stores a copy of the header; the stored one. Given that one, it does nothing, unless the name
    // is "set-cookie".
    HTTPHeader* setHeader(char const* name, HTTPHeader* phdr);

    // All entries of that name.
    void removeHeader(char const* name);

    // Appends one line an entry: name, ": ", value, CRLF.
    void dump(QORByteBuffer& buf);
    void reset();

    // As setHeader, but moves what the header holds instead of copying it, and leaves it empty,
    // unless it is the stored one.
    HTTPHeader* moveHeader(char const* name, HTTPHeader& header);

    // The number of bytes that dump appends.
    std::size_t dumpSize();

private:
    using Entries =
        std::multimap<std::string, HTTPHeader, httphdr_CaseInsensitiveStringComparePredicate>;

    // Both store lines of which most are never asked for.
    friend class HTTPMOMMsgHandler;
    friend class HttpMsgNode;
    friend struct postwire::internal::ConstTree;

    // As setHeader of what the parser reports, or of a header parsed from the text. Where there is
    // no entry of that name, the line is only copied.
    void addLine(char const* name, HTTPHeader* phdr);
    void addLine(char const* name, char const* pvalue);

    void addOtherLine(char const* name, HTTPHeader* phdr);
    Entries::iterator findEntry(char const* name);
    Entries::iterator entryToSet(char const* name);
    bool hasEntry(char const* name) const;
    void storeLines();
    void storeManyLines();
    bool dumpLines(QORByteBuffer& buf);

    Entries m_headers;
    // Of names that have no entry, so that one can be pointed to; set-cookie lines, which are added
    // behind their entries, of any.
    postwire::internal::HeaderLines m_lines;
};

class HTTPMessage;

// The parts of a message, in order.
//
// Ownership: owns the messages whose pointers it holds.
class POSTWIRE_EXPORT VecpHTTPMessages : public std::vector<HTTPMessage*> {
public:
    VecpHTTPMessages();
    VecpHTTPMessages(VecpHTTPMessages const&) = delete;
    VecpHTTPMessages& operator=(VecpHTTPMessages const&) = delete;
    virtual ~VecpHTTPMessages();

    // Deletes the parts and empties the list.
    void reset();
};

// One HTTP message, or one part of a multipart message: header fields, body bytes, and the parts,
// each of them a message again. Start lines are not part of it.
//
// Ownership: owns its body and its parts, and so the whole tree below. Texts are good until they
//   next change.
// Units: sizes are bytes.
// Raises: QORAssertError for a null text or part, and then changes nothing; QOROutOfMemoryError
//   for a body, a part list and the buffer that dump writes to; std::bad_alloc for header fields
//   and texts.
class POSTWIRE_EXPORT HTTPMessage {
public:
    // The number of a status line: any int, not only those that have a text here.
    enum StatusCode : int {};

    HTTPMessage();
    HTTPMessage(HTTPMessage const&) = delete;
    HTTPMessage& operator=(HTTPMessage const&) = delete;
    virtual ~HTTPMessage();

    // The main value of Content-Type and its charset attribute, or what setContentType gave; empty
    // when not known. The first answer that is not empty is kept until reset.
    char const* getContentType();
    char const* getCharset();

    // Sets what the two operations above give. The header fields, and with them dump, stay.
    void setContentType(char const* content_type, char const* charset);

    // The first header field of that name, in any letter case, or null.
    HTTPHeader* getHeader(char const* field);

    // Takes the text apart and stores it as HTTPHeaders::setHeader does; the stored header.
    HTTPHeader* setHeader(char const* field, char const* pvalue);

    // Drops header fields, body and parts; the boundary stays.
    void reset();

    // Appends the message, from its header lines on. Its framing fields are changed first, and stay
    // so: with parts neither Content-Length nor Transfer-Encoding; else Content-Length where
    // chunksize is 0, or "Transfer-Encoding: chunked", in chunks of at most chunksize bytes (RFC
    // 9112 section 7.1), where it is positive. Parts stand between lines of this message's
    // boundary, RFC 2046 section 5.1.1, each with a Content-Length or parts of its own; a body
    // beside parts is not written. A chunked dump leaves `buf` in hexadecimal mode. A chunksize
    // below 0 fails an assertion, but for a message with parts, which ignores it.
    void dump(QORByteBuffer& buf, int chunksize);

    // Removes white space (blank, \t, \n, \v, \f, \r) at both ends, then one pair of double quotes
    // around what is left, then white space inside these.
    static void trim(std::string& s);

    int contentSize();

    // Null before there is a body, be it an empty one. Zero bytes may be among the bytes.
    char const* contentBytes();

    // Part i, from 0 on; null outside 0 to num_parts() - 1.
    HTTPMessage* getPart(int i);
    int num_parts();

    // Appends a part, which becomes this message's own unless the call raises.
    void addChild(HTTPMessage* pChild);

    // "OK" for 200, "Internal Server Error" for 500, else an empty text.
    static char const* getStatusText(StatusCode code);

    // Replaces the body by a copy of these bytes, which may be bytes of the old one. Fails an
    // assertion for a null pointer or a negative length.
    void setContent(char const* bytes, int length);

    // The line between parts, without the leading "--". Content-Type names it, too, but is the
    // caller's to set.
    void setBoundary(char const* boundary);
    char const* getBoundary();

private:
    // Reads header fields and body bytes straight into their places.
    friend class HTTPMOMMsgHandler;
    friend struct postwire::internal::ConstTree;

    void setFraming(int chunksize);
    std::uint64_t dumpSize(int chunksize);
    void dumpFramed(QORByteBuffer& buf, int chunksize);
    void dumpParts(QORByteBuffer& buf);
    void dumpChunks(QORByteBuffer& buf, int chunksize);

    HTTPHeaders m_headers;
    std::string m_contentType;  // what getContentType gives, once known
    std::string m_charset;
    QORByteBuffer* m_pContent;   // null: no body
    VecpHTTPMessages* m_pParts;  // null: no parts; never empty
    std::string m_boundary;
};
