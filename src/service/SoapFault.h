#pragma once

#include <string>
#include <string_view>

#include "foundation/Export.h"

#include "service/SoapVersion.h"

namespace postwire {

// Whose fault it is, in the words of SOAP 1.2; 1.1 calls the first two Client and Server.
enum class SoapFaultCode { sender, receiver, versionMismatch, mustUnderstand };

// An envelope that tells of a fault; the text is escaped, bytes that XML can't hold become "?".
POSTWIRE_EXPORT std::string soapFault(SoapVersion version, SoapFaultCode code,
                                      std::string_view text);

// Whether an envelope tells of a fault: by the name of the element that its Body begins with, or of
// its own root, whatever their namespaces. Reads no further; what is no XML is none. For UTF-8 and
// other encodings that hold ASCII as it is.
POSTWIRE_EXPORT bool isSoapFault(std::string_view envelope);

}  // namespace postwire
