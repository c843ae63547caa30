#pragma once

// Marks what a shared library shows to its users; everything else is built with hidden
// visibility. libpostwire.so narrows the result once more with a linker version script.
#define POSTWIRE_EXPORT __attribute__((visibility("default")))
