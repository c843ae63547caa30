#include "parser/HTTPReadPolicy.h"

HTTPReadPolicy HTTPReadPolicy::hardened() {
    HTTPReadPolicy policy;
    policy.boundMessage = policy.partsEndAtBoundary = policy.strictFraming = true;
    policy.maxLine = 16 << 10;
    policy.maxHead = 64 << 10;
    policy.maxHeaders = 100;
    policy.maxParts = 1000;
    policy.maxPartHead = 16 << 10;
    policy.maxBody = 64 << 20;
    policy.maxChunkFraming = 64 << 10;
    policy.maxChunkFramingRatio = 16;
    return policy;
}
