#include "KTException.h"

#include <gmock/gmock.h>
#include <unistd.h>

#include <cstring>
#include <memory>
#include <sstream>
#include <type_traits>

#include "support/results.h"
#include "support/scratch.h"

namespace {

using testing::EndsWith;
using testing::StartsWith;

constexpr size_t kLongestMessage = 1023;  // what a formatted message keeps

// Counts how often the stream asked it to write through.
class CountingBuffer : public std::stringbuf {
 public:
  int flushes = 0;

 protected:
  int sync() override {
    ++flushes;
    return 0;
  }
};

}  // namespace

TEST(KTExceptionTest, DefaultIsAnUnknownExceptionOfCodeOne) {
  const KTException exception;
  EXPECT_EQ(exception.m_message, "Unknown exception");
  EXPECT_EQ(exception.m_code, 1);
  EXPECT_EQ(rendered(exception), "Unknown Exception: [1] Unknown exception");
}

TEST(KTExceptionTest, CodeAloneRendersAnEmptyMessageBehindOneBlank) {
  const KTException exception(5);
  EXPECT_EQ(exception.m_message, "");
  EXPECT_EQ(exception.m_code, 5);
  EXPECT_EQ(rendered(exception), "Unknown Exception: [5] ");
}

TEST(KTExceptionTest, MessageGivenAsStringIsNoFormat) {
  const KTException exception(13, std::string("100 %d %s full"));
  EXPECT_EQ(exception.m_message, "100 %d %s full");
  EXPECT_EQ(exception.m_code, 13);
}

TEST(KTExceptionTest, MessageGivenAsStringIsNeverCut) {
  const KTException exception(13, std::string(5000, 'x'));
  EXPECT_EQ(exception.m_message, std::string(5000, 'x'));
}

TEST(KTExceptionTest, FormatWithCodeIsExpanded) {
  const KTException exception(7, "mount %s at %d%%", "d1", 99);
  EXPECT_EQ(exception.m_message, "mount d1 at 99%");
  EXPECT_EQ(exception.m_code, 7);
}

TEST(KTExceptionTest, FormatWithoutCodeIsExpandedAndHasCodeOne) {
  const KTException exception("mount %s at %d%%", "d1", 99);
  EXPECT_EQ(exception.m_message, "mount d1 at 99%");
  EXPECT_EQ(exception.m_code, 1);
}

TEST(KTExceptionTest, FormattedMessageIsCutToItsFirst1023Characters) {
  for (const size_t length : {size_t{1022}, size_t{1023}, size_t{1024}, size_t{4000}}) {
    const std::string text = std::string(length - 1, 'a') + 'z';
    const std::string want = text.substr(0, kLongestMessage);
    EXPECT_EQ(KTException(7, "%s", text.c_str()).m_message, want) << length;
    EXPECT_EQ(KTException("%s", text.c_str()).m_message, want) << length;
    EXPECT_EQ(KTAssertionException("x", 1, "f", "%s", text.c_str()).m_message, want) << length;
  }
}

TEST(KTExceptionTest, EachClassRendersUnderItsOwnName) {
  const std::string message = "no % way";
  EXPECT_EQ(rendered(KTException(13, message)), "Unknown Exception: [13] no % way");
  EXPECT_EQ(rendered(KTIOException(13, message)), "IO Exception: [13] no % way");
  EXPECT_EQ(rendered(KTTimeoutException(1, "Semaphore timed out")), "Timeout Exception: [1] Semaphore timed out");
}

TEST(KTExceptionTest, CodeIsRenderedAsASignedDecimal) {
  EXPECT_EQ(rendered(KTIOException(0, "m")), "IO Exception: [0] m");
  EXPECT_EQ(rendered(KTIOException(-1, "m")), "IO Exception: [-1] m");
  EXPECT_EQ(rendered(KTIOException(2147483647, "m")), "IO Exception: [2147483647] m");
}

TEST(KTExceptionTest, RenderingReplacesWhatTheStringHeld) {
  const KTException unknown(5, std::string("m"));
  const KTIOException io(5, "m");
  const KTTimeoutException timeout(5, "m");
  const KTAssertionException plain("x", 1, "f");
  const KTAssertionException detailed("x", 1, "f", "m");
  for (const KTException* exception :
       std::initializer_list<const KTException*>{&unknown, &io, &timeout, &plain, &detailed}) {
    std::string text = "an earlier text that is much longer than the rendering of this exception";
    exception->toString(text);
    EXPECT_EQ(text, rendered(*exception));
    EXPECT_LT(text.size(), 40U);
  }
}

TEST(KTExceptionTest, RenderingAsCharArrayIsAFreshOneEachTime) {
  const KTIOException exception(2, "gone");
  const std::unique_ptr<char[]> first(exception.toString());
  const std::unique_ptr<char[]> second(exception.toString());
  EXPECT_STREQ(first.get(), "IO Exception: [2] gone");
  EXPECT_STREQ(second.get(), "IO Exception: [2] gone");
  EXPECT_NE(first.get(), second.get());
}

TEST(KTExceptionTest, BaseReferenceRendersAsTheClassThatWasThrown) {
  try {
    throw KTTimeoutException(1, "late");
  } catch (const KTException& caught) {
    const std::unique_ptr<char[]> text(caught.toString());
    EXPECT_STREQ(text.get(), "Timeout Exception: [1] late");
    EXPECT_EQ(rendered(caught), "Timeout Exception: [1] late");
    EXPECT_NE(dynamic_cast<const KTTimeoutException*>(&caught), nullptr);
  }
}

TEST(KTExceptionTest, TheFourClassesFormATreeOfTheirOwn) {
  EXPECT_TRUE((std::is_base_of_v<KTException, KTIOException>));
  EXPECT_TRUE((std::is_base_of_v<KTException, KTTimeoutException>));
  EXPECT_TRUE((std::is_base_of_v<KTException, KTAssertionException>));
  EXPECT_FALSE((std::is_base_of_v<KTIOException, KTTimeoutException>));
  EXPECT_FALSE((std::is_base_of_v<std::exception, KTException>));
  EXPECT_TRUE(std::has_virtual_destructor_v<KTException>);
}

TEST(KTExceptionTest, PrintToAStreamEndsWithExactlyOneLineBreak) {
  std::ostringstream out;
  KTIOException(2, "gone").print(out);
  EXPECT_EQ(out.str(), "IO Exception: [2] gone\n");
}

TEST(KTExceptionTest, PrintToAStreamFlushesIt) {
  CountingBuffer buffer;
  std::ostream out(&buffer);
  KTException().print(out);
  EXPECT_EQ(buffer.flushes, 1);
  EXPECT_EQ(buffer.str(), "Unknown Exception: [1] Unknown exception\n");
}

TEST(KTExceptionTest, PrintToAFileEndsWithExactlyOneLineBreak) {
  const std::string out = outputOf([] { KTTimeoutException(1, "100 %s").print(stdout); });
  EXPECT_EQ(out, "Timeout Exception: [1] 100 %s\n");
}

TEST(KTExceptionTest, PrintOfADetailedAssertionIsTwoLines) {
  const KTAssertionException exception("name", 12, "a/b", "no %s", "name");
  std::ostringstream out;
  exception.print(out);
  EXPECT_EQ(out.str(), "ASSERT (name) in a/b at line 12.\nno name\n");
  EXPECT_EQ(outputOf([&] { exception.print(stdout); }), "ASSERT (name) in a/b at line 12.\nno name\n");
}

TEST(KTAssertionExceptionTest, MessageIsTheAssertionTextAndSoIsTheRendering) {
  const KTAssertionException exception("resource", 298, "repositoryhandler/src/libs/KTRepositoryHandler");
  const char* const want = "ASSERT (resource) in repositoryhandler/src/libs/KTRepositoryHandler at line 298.";
  EXPECT_EQ(exception.m_message, want);
  EXPECT_EQ(rendered(exception), want);
}

TEST(KTAssertionExceptionTest, KeepsExpressionLineAndFile) {
  const KTAssertionException exception("access( origin, F_OK ) == 0", 538, "a/b");
  EXPECT_EQ(exception.m_code, 1);
  EXPECT_EQ(exception.m_expression, "access( origin, F_OK ) == 0");
  EXPECT_EQ(exception.m_file, "a/b");
  EXPECT_EQ(exception.m_line, 538);
  EXPECT_FALSE(exception.m_detailed);
}

TEST(KTAssertionExceptionTest, ExplanationFollowsTheAssertionTextOnALineOfItsOwn) {
  const KTAssertionException exception("f", 1705, "a/b", "%s cannot be read: %d", ".dirty", 13);
  EXPECT_EQ(exception.m_code, 1);
  EXPECT_EQ(exception.m_message, ".dirty cannot be read: 13");
  EXPECT_EQ(exception.m_expression, "f");
  EXPECT_EQ(exception.m_file, "a/b");
  EXPECT_EQ(exception.m_line, 1705);
  EXPECT_TRUE(exception.m_detailed);
  EXPECT_EQ(rendered(exception), "ASSERT (f) in a/b at line 1705.\n.dirty cannot be read: 13");
}

TEST(KTAssertionExceptionTest, EmptyExplanationStillHasItsLine) {
  EXPECT_EQ(rendered(KTAssertionException("f", 1, "a/b", "%s", "")), "ASSERT (f) in a/b at line 1.\n");
}

TEST(KTAssertionExceptionTest, LineIsASignedDecimal) {
  EXPECT_EQ(KTAssertionException("x", 0, "f").m_message, "ASSERT (x) in f at line 0.");
  EXPECT_EQ(KTAssertionException("x", -3, "f").m_message, "ASSERT (x) in f at line -3.");
  EXPECT_EQ(KTAssertionException("x", 2147483647L, "f").m_message, "ASSERT (x) in f at line 2147483647.");
}

TEST(KTAssertionExceptionTest, LongExpressionIsNotCut) {
  const std::string expression(3000, 'e');
  EXPECT_EQ(KTAssertionException(expression.c_str(), 1, "f").m_message, "ASSERT (" + expression + ") in f at line 1.");
}

TEST(KTAssertionExceptionTest, CopyKeepsEverything) {
  const KTAssertionException original("f", 1705, "a/b", "why");
  const KTAssertionException copy(original);
  EXPECT_EQ(rendered(copy), "ASSERT (f) in a/b at line 1705.\nwhy");
  EXPECT_EQ(copy.m_code, 1);
}

TEST(KTAssertTest, TrueExpressionGoesOn) {
  const int value = 1;
  EXPECT_NO_THROW(KT_ASSERT(value == 1));
}

TEST(KTAssertTest, FalseExpressionThrowsItsTextLineAndFile) {
  const char* const name = nullptr;
  const long line = __LINE__ + 1;
  const KTAssertionException failure = assertionOf([&] { KT_ASSERT(name); });
  EXPECT_EQ(failure.m_expression, "name");
  EXPECT_EQ(failure.m_line, line);
  EXPECT_THAT(failure.m_file, EndsWith("KTException_test.cpp"));
  EXPECT_FALSE(failure.m_detailed);
  EXPECT_THAT(failure.m_message, StartsWith("ASSERT (name) in "));
}

TEST(KTAssertTest, MacroInTheExpressionStaysAsWritten) {
  const KTAssertionException failure = assertionOf([] { KT_ASSERT(access("/no/such/thing", F_OK) == 0); });
  EXPECT_EQ(failure.m_expression, "access(\"/no/such/thing\", F_OK) == 0");
}

TEST(KTAssertTest, ExpressionIsEvaluatedOnce) {
  int evaluations = 0;
  KT_ASSERT(++evaluations == 1);
  EXPECT_EQ(evaluations, 1);
}

TEST(KTAssertTest, IsOneStatement) {
  bool otherwise = false;
  if (otherwise)
    KT_ASSERT(false);
  else
    otherwise = true;
  EXPECT_TRUE(otherwise);
}
