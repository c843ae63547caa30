#pragma once

#include <string>

// Opens a file to be written from its beginning that its owner alone may read: a new one, or one
// that is there, which is emptied. What is no regular file is taken as it is. The descriptor is the
// caller's, and closed on exec.
//
// Raises: std::system_error with the path, for a file that others may read as well: they might have
//   it open.
int openPrivately(std::string const& path);
