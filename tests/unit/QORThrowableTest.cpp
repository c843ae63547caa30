#include <cstdlib>
#include <stdexcept>
#include <typeinfo>

#include <gtest/gtest.h>

#include "foundation/QORFmDir.h"
#include "foundation/QORThrowable.h"
#include "foundation/ZULStreamException.h"

#include "foundation/HTTPException.h"
#include "support/AllocationFaults.h"
#include "support/Raised.h"

static char const kSourceFile[] = "QORThrowableTest";

namespace {

QORFileLocation const kHere("File", 7);
QORMessage const kMessage(I18NString("a message", nullptr, -1, nullptr, nullptr));

// A throwable with what its toString gives.
template <class T, class... Args>
std::pair<std::string, std::shared_ptr<QORThrowable>> made(char const* text, Args... args) {
    return {text, std::make_shared<T>(args...)};
}

}  // namespace

TEST(QORThrowable, IsThrownAndClonedByItsDynamicType) {
    for (auto const& [text, built] :
         {made<QORThrowable>("QORThrowable"), made<QORException>("QORException 5", 5L),
          made<QORException>("QORException -5", QORSeverity::Fatal, -5L),
          made<QORException>("QORException: why", "why"),
          made<QORException>("QORException: why", QORSeverity::Warning, "why"),
          made<QORAssertError>("QORAssertError: text", 0, "text"),
          made<QOROutOfMemoryError>("QOROutOfMemoryError", 0, nullptr),
          made<QORIllegalStateError>("QORIllegalStateError 3: state", 3, "state"),
          made<QORStdExceptionError>("QORStdExceptionError: long", std::length_error("long")),
          made<ZULStreamException>("ZULStreamException 2007: line above the limit",
                                   ZULStreamException::ZUL_ERR_LINE_TOO_LONG),
          made<HTTPException>("HTTPException 1001", HTTPException::HTTP_ERR_VERSION)}) {
        EXPECT_EQ(text, built->toString());
        std::unique_ptr<QORThrowable> original(built->clone());
        auto const thrown = raised([&] { original->hurl(kHere, "method", "QOR_THROW"); });
        original.reset();
        QORThrowable const &expected = *built, &found = *thrown;
        EXPECT_EQ(typeid(expected), typeid(found));
        EXPECT_EQ(text.substr(0, text.find_first_of(" :")), found.getThrowableName());
        EXPECT_STREQ(expected.getMessage(), found.getMessage());
        EXPECT_EQ(text + "\nQOR_THROW at File:7 in method", thrown->toString());
    }
}

TEST(QORThrowable, KeepsTheOldest32StationsInOrder) {
    QORThrowable t;
    for (int i = 0; i < 40; ++i) t.addBackTrace(QORFileLocation("File", i), nullptr, "QOR_RETHROW");
    ASSERT_EQ(32U, t.getBackTrace().size());
    int line = 0;
    for (QORBackTraceEntry const& e : t.getBackTrace()) EXPECT_EQ(line++, e.location.getLine());
    I18NString text(nullptr, nullptr, -1, nullptr, nullptr);
    t.toString("> ", " | ", text, 2);
    EXPECT_STREQ("> QORThrowable | > QOR_RETHROW at File:0 | > QOR_RETHROW at File:1",
                 text.getText());
    t.toString(nullptr, nullptr, text, 0);
    EXPECT_STREQ("QORThrowable", text.getText());
    QORThrowable copy;
    copy = t;
    EXPECT_EQ(backTraceText(t), backTraceText(copy));
}

TEST(QORException, GivesItsTextElseItsFirstMessage) {
    auto const format = [](void* context) { return static_cast<char const*>(context); };
    char other[] = "formatted";
    QORException e(QORSeverity::Warning, 12), copy(1);
    EXPECT_EQ(nullptr, e.getMessage());
    e << kMessage << QORMessage(I18NString("stored", "catalogue", 3, format, other));
    copy = e;
    e << kMessage;
    EXPECT_TRUE(copy.getCode() == 12 && copy.getSeverity() == QORSeverity::Warning);
    ASSERT_EQ(2U, copy.getMessages().size());
    EXPECT_STREQ("a message", copy.getMessage());
    EXPECT_STREQ("formatted", copy.getMessages()[1].getText());
    EXPECT_STREQ("", (QORException("") << kMessage).getMessage()) << "a text that is empty";
}

TEST(QORException, IsChangedInFullOrNotAtAll) {
    QORException other = QORException("a text too long to stand in the string") << kMessage;
    other.addBackTrace(kHere, nullptr, "QOR_THROW");
    forEachFailingAllocation([&] {
        QORException e(5), added(6);
        try {
            e = other;
        } catch (std::bad_alloc const&) {
            EXPECT_TRUE(e.getCode() == 5 && !e.getMessage() && e.getMessages().size() == 0);
            throw;
        }
        EXPECT_TRUE(e.getMessages().size() == 1 && e.getBackTrace().size() == 1);
        try {
            added << kMessage;
        } catch (QOROutOfMemoryError const&) {
            EXPECT_EQ(0U, added.getMessages().size());
        }
    });
}

TEST(QORAssert, TellsTheExpressionAndTheLine) {
    int const line = __LINE__ + 1;
    auto const t = raised([&] { QOR_ASSERT(line < 0 && "x,y"); });
    EXPECT_STREQ("QOR_ASSERT(line < 0 && \"x,y\");", t->getMessage());
    EXPECT_EQ("QOR_THROW QORThrowableTest\n", backTraceText(*t));
    EXPECT_EQ(0, dynamic_cast<QORAssertError&>(*t).getCode());
    EXPECT_EQ(line, t->getBackTrace()[0].location.getLine());
    QOR_ASSERT(line > 0);
}

TEST(QORThrowable, ReportsOutOfMemoryWithoutMemory) {
    EXPECT_EQ(0, allocationsOf([] {
                  try {
                      QOROutOfMemoryError(0, nullptr).hurl(kHere, nullptr, "QOR_THROW");
                  } catch (QORThrowable& t) {
                      t.addBackTrace(kHere, nullptr, "QOR_RETHROW");
                  }
              }));
    forEachFailingAllocation([] {
        QORException e("a text too long to stand in the string itself");
        std::unique_ptr<QORThrowable>((e << kMessage).clone())->toString();
        std::unique_ptr<QORMessage>(kMessage.clone());
        ZULStreamException const framing(ZULStreamException::ZUL_ERR_FRAMING);
        std::unique_ptr<QORThrowable>(framing.clone());
    });
}

TEST(QORFmDir, LooksInTheNamedFolderElseInItsOwn) {
    std::string program = "postwire_tests", missing = "no_such_module.so", named = "x.so";
    EXPECT_TRUE(QORFmDir::resolveEffectivePath(program));
    EXPECT_EQ("/postwire_tests", program.substr(program.rfind('/')));
    EXPECT_FALSE(QORFmDir::resolveEffectivePath(missing));
    EXPECT_EQ("no_such_module.so", missing);
    setenv("QOR_MODULE_PATH", "/no/such/folder", 1);
    EXPECT_TRUE(QORFmDir::resolveEffectivePath(named));
    unsetenv("QOR_MODULE_PATH");
    EXPECT_EQ("/no/such/folder/x.so", named);
}
