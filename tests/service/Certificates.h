#pragma once

#include <filesystem>
#include <string>

#include "service/TlsContext.h"

// Made once for all tests of this run, and left for no one: see support/certificates.sh.
class Certificates {
public:
    Certificates();
    ~Certificates() { std::filesystem::remove_all(m_folder); }
    [[nodiscard]] std::string path(std::string const& file) const { return m_folder + "/" + file; }
    [[nodiscard]] postwire::TlsContext::Server server(std::string const& name) const {
        return {path(name + ".pem"), path(name + ".key"), {}};
    }
    [[nodiscard]] postwire::TlsContext trusting() const {
        return postwire::TlsContext::client({path("ca.pem"), {}, {}, true});
    }

private:
    std::string m_folder;
};

inline Certificates const& certificates() {
    static Certificates const kCertificates;
    return kCertificates;
}
