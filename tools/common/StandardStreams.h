#pragma once

// Opens what the program was started without of standard input, output and error. To be called
// first: a file or connection that got one of their numbers would be sent what is printed.
void openStandardStreams();

// Raises std::system_error when not all that was printed to standard output could be written.
void finishOutput();
