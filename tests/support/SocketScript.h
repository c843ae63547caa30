#pragma once

#include <string>

// Runs the rows of a file below tests/data, "columns: script | gives" among others, and compares
// what their statements give; no descriptor may be left behind. A script is a list of statements
// with "; " between them, explained in SocketScript.cpp; what they give is joined in the same way.
//
// A row with $E stands for one row for each of EAGAIN, ECONNRESET, EPIPE, EMFILE, ENFILE and
// ECONNREFUSED. In what a row gives, <EPIPE> is the system's text for an error, <#EPIPE> its
// number.
void checkSocketScripts(char const* fileName);
