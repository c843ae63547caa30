#include "service/Certificates.h"

#include <cstdlib>

Certificates::Certificates() : m_folder("/tmp/postwire-tls-XXXXXX") {
    if (!::mkdtemp(m_folder.data())) std::abort();
    std::string const command =
        "sh " POSTWIRE_TEST_DATA "/../support/certificates.sh " + m_folder + " 2>/dev/null";
    if (std::system(command.c_str()) != 0) std::abort();
}
