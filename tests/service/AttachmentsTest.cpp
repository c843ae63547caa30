#include <map>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "foundation/ZULBufferedInputStream.h"
#include "foundation/ZULMemoryInputStream.h"
#include "foundation/ZULMemoryOutputStream.h"

#include "foundation/HTTPException.h"
#include "parser/HTTPMessageReader.h"
#include "parser/HTTPReadPolicy.h"
#include "service/Attachments.h"
#include "service/LibraryError.h"
#include "service/ServiceError.h"
#include "service/SoapFault.h"
#include "support/CaseFile.h"

namespace {

using postwire::Attachments;
using postwire::MediaType;
using postwire::ServiceError;
using postwire::SoapFaultCode;
using postwire::SoapVersion;
using postwire::Strictness;

class Bytewise : public ZULFilterInputStream {
public:
    using ZULFilterInputStream::read;
    using ZULFilterInputStream::ZULFilterInputStream;
    int read(char* bytes, int n) override { return ZULFilterInputStream::read(bytes, n > 0); }
};

std::string decodedBytewise(std::string_view wire, postwire::TransferCoding coding,
                            Strictness strictness) {
    ZULMemoryInputStream memory(wire.data(), static_cast<int>(wire.size()));
    Bytewise bytes(memory);
    postwire::DecodingInputStream decoder(bytes, coding, strictness);
    std::string text;
    for (char c[2]; int const n = std::max(decoder.read(c, 2), 0);)
        text.append(c, static_cast<std::size_t>(n));
    return text;
}

TEST(TransferCoding, BodiesAreDecodedOrRefusedWhereverTheyAreCut) {
    int rows = 0;
    for (TestCase const& c : loadCases("transfer_codings.txt")) {
        SCOPED_TRACE(c.where());
        auto const coding = postwire::transferCodingOf(c["coding"]).value();
        for (auto* const decode : {&postwire::decoded, &decodedBytewise}) {
            EXPECT_EQ(c["lenient"], decode(c["wire"], coding, Strictness::lenient));
            if (c["strict"] == "!")
                EXPECT_THROW(decode(c["wire"], coding, Strictness::strict), ServiceError);
            else
                EXPECT_EQ(c["lenient"], decode(c["wire"], coding, Strictness::strict));
        }
        ++rows;
    }
    EXPECT_LT(20, rows);
}

TEST(MediaType, ValueAndParametersAreTakenApart) {
    int rows = 0;
    for (TestCase const& c : loadCases("media_types.txt")) {
        SCOPED_TRACE(c.where());
        MediaType const type(c["text"]);
        EXPECT_EQ(c["value"], type.value());
        std::string parameters;
        for (MediaType::Parameter const& p : type.parameters())
            parameters += "[" + p.name + "=" + p.value + "]";
        EXPECT_EQ(c["parameters"], parameters);
        ++rows;
    }
    EXPECT_LT(15, rows);
}

std::string listed(postwire::FoundAttachment const& found) {
    return found ? std::to_string(found.count) + " " + found->decoded() : "0";
}

TEST(Attachments, PartsAreFoundAsTheyAreReferredTo) {
    int lookups = 0;
    for (TestCase const& c : loadCases("attachment_lookups.txt")) {
        SCOPED_TRACE(c.where());
        std::string const bytes = "HTTP/1.1 200 OK\r\n" + c["message"];
        ZULMemoryInputStream memory(bytes.data(), static_cast<int>(bytes.size()));
        ZULBufferedInputStream in(memory, 4096);
        HTTPMessageReader reader(in);
        reader.setReadPolicy(HTTPReadPolicy::hardened());
        HTTPMessage message;
        HTTPMessage::StatusCode status{};
        std::string reason;
        reader.getResponse(&message, &status, &reason);
        Attachments const nested(message);
        Attachments const flat(message, Attachments::Depth::topLevel);
        std::map<std::string, std::string> const gave = {
            {"root", nested.root().decoded()},
            {"soap", nested.soapVersion() == SoapVersion::soap11   ? "1.1"
                     : nested.soapVersion() == SoapVersion::soap12 ? "1.2"
                                                                   : "none"},
            {"mtom", nested.isMtom() ? "yes" : "no"},
            {"action", nested.action()},
            {"all", std::to_string(nested.all().size())},
            {"flat", std::to_string(flat.all().size())},
            {"id", listed(nested.byContentId(c["find-id"]))},
            {"flat-id", listed(flat.byContentId(c["find-id"]))},
            {"href", listed(nested.byHref(c["find-href"]))},
            {"location", listed(nested.byLocation(c["find-location"]))},
            {"file", listed(nested.byFileName(c["find-file"]))},
        };
        for (auto const& [what, value] : gave) {
            if (!c.has(what)) continue;
            EXPECT_EQ(c[what], value) << what;
            ++lookups;
        }
    }
    EXPECT_LT(30, lookups);
}

TEST(MessageView, TreeBuiltByHandIsSeenBySeveralThreadsAsItIs) {
    HTTPMessage message;
    message.setHeader("X-Quoted", "\"a\"");
    message.setHeader("Content-Type", "multipart/related; start=\"<b>\"")->setAttribute("x", "a;b");
    for (char const* const body : {"1", "2"}) {
        auto part = std::make_unique<HTTPMessage>();
        part->setContent(body, 1);
        part->setHeader("Content-ID", *body == '2' ? "<b>" : "<a>");
        message.addChild(part.release());
    }
    auto const look = [&message] {
        postwire::MessageView const view(message);
        EXPECT_EQ("a;b", view.type().parameter("x"));
        EXPECT_EQ("\"a\"", view.find("x-quoted"));
        EXPECT_EQ(2U, view.fields().size());
        EXPECT_EQ(2U, view.parts().size());
        EXPECT_EQ("2", Attachments(view).root().body());
        EXPECT_EQ("1", Attachments(view).byContentId("cid:a")->body());
    };
    std::thread other(look);
    look();
    other.join();
}

TEST(SoapFault, FaultsAreMadeAndKnownByTheFirstElementOfTheirBody) {
    for (SoapVersion const version : {SoapVersion::soap11, SoapVersion::soap12}) {
        std::string const fault =
            postwire::soapFault(version, SoapFaultCode::sender, "a<b&\x01]]>");
        EXPECT_TRUE(postwire::isSoapFault(fault));
        EXPECT_NE(std::string::npos, fault.find(">a&lt;b&amp;?]]&gt;<"));
    }
    std::pair<char const*, bool> const cases[] = {
        {"<?xml?><!-- <Fault> --><e:Envelope a='>'><Header><Fault/></Header><e:Body><e:Fault>",
         true},
        {"<Fault x='1'/>", true},
        {"<Envelope><Body><a><Fault/></a></Body></Envelope>", false},
        {"<Envelope><Body/><Fault/></Envelope>", false},
        {"<Envelope><Body><![CDATA[<Fault/>]]></Body></Envelope>", false},
        {"<!DOCTYPE x><Fault/>", false},
        {"<Faults/>", false},
        {"<Envelope><Body", false},
        {"", false},
    };
    for (auto const& [text, isFault] : cases)
        EXPECT_EQ(isFault, postwire::isSoapFault(text)) << text;
}

TEST(LibraryError, WhateverTheLibraryRaisesIsOneOfTheStandardLibrarys) {
    auto const told = [](auto const& f) {
        try {
            postwire::raisingStdExceptions(f);
        } catch (postwire::LibraryError const& e) {
            return std::to_string(e.code()) + " " + e.what() + " " +
                   e.trace().substr(0, e.trace().find(':') + 1);
        }
        return std::string();
    };
    EXPECT_EQ("0 QOR_ASSERT(field); HTTPMessage:",
              told([] { HTTPHeader().getAttribute(nullptr); }));
    EXPECT_EQ("0 not implemented ", told([] { ZULMemoryInputStream("", 0).unread("", 0); }));
    EXPECT_EQ(3, postwire::raisingStdExceptions([] { return 3; }));
}

}  // namespace
