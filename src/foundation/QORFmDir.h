#pragma once

#include <string>

#include "foundation/Export.h"

// Where the product keeps its loadable modules.
class POSTWIRE_EXPORT QORFmDir {
public:
    // Rewrites a library's file name in place into the path to give to the dynamic loader: in the
    // folder that the environment variable QOR_MODULE_PATH names, where it is set and the process
    // did not gain privileges by its start; else in the core library's own folder where the file
    // stands there; else the bare name, for the loader to search. True when a folder was put before
    // the name.
    static bool resolveEffectivePath(std::string& fileName);
};
