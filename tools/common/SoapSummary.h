#pragma once

#include <string>

#include "service/Attachments.h"

// What a message in SOAP carries, as its reader thinks of it.

// Appends an element <soap> with version, action and the root's Content-ID, and in it one
// <attachment> for each, with its decoded size; nothing where the message is none in SOAP.
void appendSoapXml(std::string& to, postwire::Attachments const& came);

// Appends the same as lines.
void appendSoapLines(std::string& to, postwire::Attachments const& came);
