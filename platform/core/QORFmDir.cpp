#include "foundation/QORFmDir.h"

#include <cstdlib>
#include <string_view>
#include <utility>

#include <dlfcn.h>
#include <unistd.h>

namespace {

// The folder of the library, or of the program, that holds this code; empty where the loader
// knows its name alone.
std::string_view ownFolder() {
    Dl_info info;
    if (!dladdr(reinterpret_cast<void*>(&QORFmDir::resolveEffectivePath), &info)) return {};
    std::string_view const file(info.dli_fname ? info.dli_fname : "");
    std::size_t const slash = file.rfind('/');
    return slash == std::string_view::npos ? std::string_view() : file.substr(0, slash);
}

std::string pathIn(std::string_view folder, std::string const& fileName) {
    return std::string(folder).append("/").append(fileName);
}

}  // namespace

bool QORFmDir::resolveEffectivePath(std::string& fileName) {
    // The named folder alone is looked in: who names one does not want another module instead.
    // A process that runs with more rights than its user must not load that user's code.
    char const* const named = secure_getenv("QOR_MODULE_PATH");
    if (named && *named) {
        fileName = pathIn(named, fileName);
        return true;
    }
    std::string_view const folder = ownFolder();
    if (folder.empty()) return false;
    std::string path = pathIn(folder, fileName);
    // Elsewhere the loader's own search may still find it.
    if (access(path.c_str(), F_OK) != 0) return false;
    fileName = std::move(path);
    return true;
}
