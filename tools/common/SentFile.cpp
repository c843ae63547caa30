#include "tools/common/SentFile.h"

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <iostream>
#include <sstream>
#include <stdexcept>
#include <string_view>
#include <system_error>

#include "foundation/AsciiText.h"
#include "tools/common/HeaderFields.h"
#include "tools/common/TextEscapes.h"

namespace {

bool isType(std::string_view type) {
    std::string_view const value = type.substr(0, type.find_first_of("; "));
    std::size_t const slash = value.find('/');
    return slash != std::string_view::npos && isToken(value.substr(0, slash)) &&
           isToken(value.substr(slash + 1)) && isFieldValue(type);
}

bool isContentId(std::string_view id) {
    return std::all_of(id.begin(), id.end(), [](char c) {
        return c > ' ' && c < 0x7f && std::string_view("<>;\"\\").find(c) == std::string_view::npos;
    });
}

// The text up to the next ';', which is taken away with it.
std::string takeSegment(std::string_view& text) {
    std::size_t const end = std::min(text.find(';'), text.size());
    std::string segment(text.substr(0, end));
    text.remove_prefix(std::min(end + 1, text.size()));
    return segment;
}

std::string takePath(std::string_view& text) {
    for (std::size_t end = text.size(); end != std::string_view::npos && end > 0;
         end = text.rfind(';', end - 1)) {
        std::string path(text.substr(0, end));
        std::error_code ignored;
        if (!std::filesystem::is_regular_file(path, ignored)) continue;
        text.remove_prefix(std::min(end + 1, text.size()));
        return path;
    }
    return takeSegment(text);
}

void requireFields(std::string const& type, std::string const& contentId) {
    if (!isType(type)) throw std::invalid_argument("no content type: '" + printable(type) + "'");
    if (!isContentId(contentId))
        throw std::invalid_argument("no Content-ID: '" + printable(contentId) + "'");
}

}  // namespace

SentFile readStandardInput(std::string const& type, std::string const& contentId) {
    requireFields(type, contentId);
    SentFile file;
    file.path = "-";
    file.type = type;
    file.contentId = contentId;
    std::ostringstream all;
    all << std::cin.rdbuf();
    file.bytes = all.str();
    file.size = static_cast<long long>(file.bytes->size());
    return file;
}

SentFile describeFile(std::string const& path, std::string const& type,
                      std::string const& contentId) {
    requireFields(type, contentId);
    if (!std::filesystem::exists(path))
        throw std::system_error(ENOENT, std::generic_category(), path);
    if (!std::filesystem::is_regular_file(path))
        throw std::system_error(EINVAL, std::generic_category(), path + " is no regular file");
    SentFile file;
    file.path = path;
    file.type = type;
    file.contentId = contentId;
    file.size = static_cast<long long>(std::filesystem::file_size(path));
    return file;
}

SentFile parseAttachment(std::string const& text) {
    std::string_view rest(text);
    std::string const path = takePath(rest);
    std::string type = takeSegment(rest);
    // A parameter of the type has a '=', a Content-ID behind it begins anew.
    while (rest.substr(0, rest.find(';')).find('=') != std::string_view::npos)
        type += ";" + takeSegment(rest);
    std::string const contentId = takeSegment(rest);
    if (!rest.empty())
        throw std::invalid_argument("an attachment is FILE[;type[;cid]]: " + printable(text));
    return describeFile(path, type.empty() ? "application/octet-stream" : type, contentId);
}
