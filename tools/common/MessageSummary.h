#pragma once

#include <string>
#include <vector>

class HTTPMessage;

// What a message or a part is, without its bytes.
struct MessageSummary {
    std::string type;       // Content-Type with its attributes; empty when there is none
    std::string contentId;  // as in the header, angle brackets included; empty when there is none
    std::string location;   // Content-Location
    int size = 0;           // of the body; 0 where there are parts
    std::string sha256;     // of the body; empty where there are parts
    std::vector<MessageSummary> parts;
};

MessageSummary summarise(HTTPMessage& message);

// The text form of a header of the message, without line ends; empty when there is none.
std::string headerText(HTTPMessage& message, char const* name);

// Appends an element <part>, or <message> for the outermost, with an attribute for each fact.
void appendXml(std::string& to, MessageSummary const& summary, int depth = 0);

// Appends an object {"type": ..., "size": ..., "sha256": ..., "parts": [...]}.
void appendJson(std::string& to, MessageSummary const& summary);

// Appends one line for the message and one for each part, indented by depth.
void appendTree(std::string& to, MessageSummary const& summary, int depth = 0);
