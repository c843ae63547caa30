#include "tools/common/HeaderFields.h"

#include <algorithm>
#include <stdexcept>

#include "foundation/AsciiText.h"
#include "tools/common/TextEscapes.h"

bool isFieldValue(std::string_view text) {
    return std::none_of(text.begin(), text.end(), isControlCharacter);
}

HeaderField parseHeaderField(std::string const& text) {
    std::size_t const colon = text.find(':');
    if (colon == std::string::npos)
        throw std::invalid_argument("a header field is 'Name: value': " + printable(text));
    HeaderField field{text.substr(0, colon),
                      std::string(withoutBlanks(std::string_view(text).substr(colon + 1)))};
    if (!isToken(field.name))
        throw std::invalid_argument("no header field name: '" + printable(field.name) + "'");
    if (!isFieldValue(text.substr(colon + 1)))
        throw std::invalid_argument("the value of " + field.name +
                                    " holds a line end or another control character");
    return field;
}
