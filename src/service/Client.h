#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "foundation/Export.h"
#include "foundation/ZULOutputStream.h"

#include "service/Answer.h"
#include "service/ClientError.h"
#include "service/ClientOptions.h"
#include "service/OutgoingMessage.h"
#include "service/TlsContext.h"

namespace postwire {

// A body that is written when it is sent.
struct POSTWIRE_EXPORT OutgoingBody {
    std::string type;
    std::vector<std::pair<std::string, std::string>> fields;  // of the head, beside its type
    // Without a size, and above 2^31 - 1 bytes, it is sent in chunks.
    std::optional<std::uint64_t> size;
    // Writes all of it; what it raises ends the exchange and passes through.
    std::function<void(ZULOutputStream&)> write;
    // Most bytes of a chunk, up to 65536; above 0 it is sent in chunks although its size is known.
    std::size_t chunkSize = 0;
    // It can be written more than once.
    bool isRepeatable = false;
};

// An HTTP/1.1 client that posts messages, over connections that it keeps.
//
// One that was kept and turns out to be closed is replaced. A message is sent again only where not
// a byte of it can have reached the server, or where the caller has said that it may be repeated:
// a server may have acted on a POST that it did not answer, RFC 9110 section 9.2.2.
//
// Ownership: owns its connections.
// Raises: ClientError; std::system_error where an answer can't be saved; what the program's own
//   bodies and handlers raise.
// Rule: several threads may post at once, each over a connection of its own. No signal's
//   disposition is changed, and no write raises SIGPIPE. It follows no redirects, keeps no cookies
//   and no addresses of names.
class POSTWIRE_EXPORT Client {
public:
    Client();
    explicit Client(ClientOptions const& options);
    // With roots, or a certificate, of its own for https.
    Client(ClientOptions const& options, TlsContext tls);
    Client(Client const&) = delete;
    Client& operator=(Client const&) = delete;

    // No call may be under way.
    ~Client();

    // Posts a body and waits for the answer. The URL begins with http:// or https://.
    Answer post(std::string_view url, std::string_view type, std::string_view body,
                PostOptions const& options = {});
    Answer post(std::string_view url, OutgoingBody const& body, PostOptions const& options = {});

    // An envelope with its attachments.
    Answer post(std::string_view url, OutgoingMessage const& message,
                PostOptions const& options = {});

private:
    class Core;

    std::unique_ptr<Core> m_core;
};

}  // namespace postwire
