#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "foundation/Export.h"

namespace postwire {

// The text of Content-Type, Content-Disposition or another header of that form: a value, and
// parameters behind it, RFC 2045 section 5.1. HTTPHeader reads the same, but cuts quoted values.
//
// Ownership: owns its texts; views of them are good as long as it is.
// Rule: any text is read. Of parameters of one name the first counts. Values that are given in
//   pieces are joined, RFC 2231, and those in UTF-8, US-ASCII or ISO 8859-1 become UTF-8, RFC 8187;
//   the bytes of other character sets stay. Where a name is there with "*" and without, the one
//   with it counts. Backslashes before other characters than '"' and '\' stay: such a text is the
//   path that a browser of old has sent.
class POSTWIRE_EXPORT MediaType {
public:
    struct Parameter {
        std::string name;  // in lower case, without "*"
        std::string value;
    };

    explicit MediaType(std::string_view text = {});

    // As it came, without white space around it.
    [[nodiscard]] std::string_view value() const { return m_value; }

    // Whether that is the value, in any letter case.
    [[nodiscard]] bool is(std::string_view value) const;

    // Before the slash: is("multipart/...").
    [[nodiscard]] bool isMultipart() const;

    // By its name in any letter case.
    [[nodiscard]] std::optional<std::string_view> parameter(std::string_view name) const;

    // In the order of their names' first occurrence.
    [[nodiscard]] std::vector<Parameter> const& parameters() const { return m_parameters; }

    // Appends "; name=value", between quotes where the value is no token, as RFC 8187 has it where
    // it is not printable ASCII.
    static void append(std::string& to, std::string_view name, std::string_view value);

private:
    std::string m_value;
    std::vector<Parameter> m_parameters;
};

}  // namespace postwire
