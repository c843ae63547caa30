#include "tools/StandardStreams.h"

#include <fcntl.h>
#include <unistd.h>

void openStandardStreams() {
    int descriptor = 0;
    do descriptor = ::open("/dev/null", O_RDWR);
    while (descriptor != -1 && descriptor <= STDERR_FILENO);
    if (descriptor != -1) ::close(descriptor);
}
