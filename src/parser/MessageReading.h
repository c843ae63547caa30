#pragma once

#include <optional>

#include "parser/BoundaryStream.h"
#include "parser/Budget.h"
#include "parser/HTTPReadPolicy.h"
#include "parser/HeadRules.h"
#include "parser/LineSource.h"

namespace postwire::internal {

// How one message is read, or one step of a parse that is called on its own: by the policy that was
// set when that began, within what is left of its limits.
struct MessageReading {
    using Code = HTTPPolicyException::PolicyErrorCode;

    explicit MessageReading(HTTPReadPolicy const& p)
        : policy(p),
          byDefault(!(p.boundMessage || p.partsEndAtBoundary || p.strictFraming ||
                      (p.maxLine | p.maxHead | p.maxHeaders | p.maxParts | p.maxPartHead |
                       p.maxBody | p.maxChunkFraming | p.maxChunkFramingRatio) != 0)),
          head(p.maxHead, Code::HTTP_ERR_HEAD_TOO_LARGE),
          partHead(p.maxPartHead, Code::HTTP_ERR_PART_HEAD_TOO_LARGE),
          parts(p.maxParts, Code::HTTP_ERR_TOO_MANY_PARTS),
          body(p.maxBody, Code::HTTP_ERR_BODY_TOO_LARGE),
          uncounted(0, Code::HTTP_ERR_BODY_TOO_LARGE) {}

    LineSource::Rules lineRules(bool isPart) const {
        using Rules = LineSource::Rules;
        if (policy.strictFraming) return isPart ? Rules::Mime : Rules::Http;
        return byDefault ? Rules::Default : Rules::Limits;
    }

    HTTPReadPolicy const policy;
    bool const byDefault;             // the policy changes nothing
    bool isRequest = false;           // its start line was read
    int status = 0;                   // of a response, read to the letter
    bool isBounded = false;           // the stream that is read ends with the body of a level
    Delimiter* delimiter = nullptr;   // that parts of the level being read end before
    std::optional<Delimiter> around;  // of a part that is read on its own
    HeadRules rules;                  // of the head being read
    Budget head;
    Budget partHead;
    Budget parts;
    Budget body;
    Budget uncounted;  // for what is counted elsewhere
};

}  // namespace postwire::internal
