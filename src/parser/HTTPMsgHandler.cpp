#include "parser/HTTPMsgHandler.h"

HTTPMsgHandler::~HTTPMsgHandler() = default;

void HTTPMsgHandler::startMultiParts(char const*) {}

void HTTPMsgHandler::startPart() {}

void HTTPMsgHandler::endPart() {}

void HTTPMsgHandler::endMultiParts(char const*) {}
