#pragma once

#include <string_view>

// Tells the operator what no client is told: a line on standard error.
void complain(std::string_view text);
