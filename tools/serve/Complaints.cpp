#include "tools/serve/Complaints.h"

#include "tools/common/CommandLineParser.h"

void complain(std::string_view text) { complain("postwire-serve", ExitCode::Otherwise, text); }
