#include "KTProperties.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "KTException.h"
#include "KTOwned.h"
#include "fakes/fakes.h"
#include "support/results.h"
#include "support/scratch.h"

namespace {

using testing::IsEmpty;

// A value, or nothing for a name that is not there.
std::optional<std::string> valueOf(KTProperties& properties, const std::string& name) {
  const char* value = properties.getProperty(name.c_str());
  return value ? std::optional<std::string>(value) : std::nullopt;
}

// A file of that content, and what it was loaded into.
class Loaded {
 public:
  explicit Loaded(const std::string& content) { load(content); }

  void load(const std::string& content) {
    writeFile(directory / "file.cfg", content);
    EXPECT_TRUE(properties.load((directory / "file.cfg").c_str()));
  }
  std::optional<std::string> operator[](const std::string& name) { return valueOf(properties, name); }

  KTProperties properties;

 private:
  ScratchDirectory directory;
};

// `start` and `count` times `c`.
std::string filled(std::string start, size_t count, char c) { return start.append(count, c); }

// A text that a routine may write to.
class Writable {
 public:
  explicit Writable(const std::string& content) : characters(content.begin(), content.end()) {
    characters.push_back('\0');
  }
  char* text() { return characters.data(); }

 private:
  std::vector<char> characters;
};

// Expects that `body` fails an assertion of the properties reader with that expression.
template <typename Body>
void expectAssertion(const std::string& expression, const Body& body) {
  const KTAssertionException failure = assertionOf(body);
  EXPECT_EQ(failure.m_expression, expression);
  EXPECT_EQ(failure.m_file, "ktutils/src/KTProperties");
  EXPECT_GT(failure.m_line, 0);
  EXPECT_EQ(failure.m_message,
            "ASSERT (" + expression + ") in ktutils/src/KTProperties at line " + std::to_string(failure.m_line) + ".");
}

}  // namespace

TEST(KTPropertyTest, CopiesNameAndValue) {
  char name[] = "name";
  char value[] = "value";
  const KTProperty property(name, value);
  name[0] = value[0] = 'x';
  EXPECT_STREQ(property.getName(), "name");
  EXPECT_STREQ(property.getValue(), "value");
}

TEST(KTPropertyTest, CopyIsAFreshArray) {
  const char* const text = "text";
  const OwnedChars copy(KTProperty::copy(text));
  EXPECT_NE(copy.get(), text);
  EXPECT_STREQ(copy.get(), "text");
  EXPECT_STREQ(OwnedChars(KTProperty::copy("")).get(), "");
}

TEST(KTPropertyTest, SetValueReplacesTheValueWithACopy) {
  KTProperty property("name", "value");
  char other[] = "other, and longer";
  property.setValue(other);
  other[0] = 'x';
  EXPECT_STREQ(property.getValue(), "other, and longer");
  EXPECT_STREQ(property.getName(), "name");
}

TEST(KTPropertyTest, SetValueTakesThePairsOwnValue) {
  KTProperty property("name", "value");
  property.setValue(property.getValue());
  EXPECT_STREQ(property.getValue(), "value");
}

TEST(KTPropertyTest, NullArgumentsFailTheirAssertions) {
  expectAssertion("str", [] { KTProperty::copy(nullptr); });
  expectAssertion("str", [] { const KTProperty property(nullptr, "value"); });
  expectAssertion("str", [] { const KTProperty property("name", nullptr); });
  KTProperty property("name", "value");
  expectAssertion("value", [&] { property.setValue(nullptr); });
  EXPECT_STREQ(property.getValue(), "value") << "the old value is kept";
}

TEST(KTPropertiesTest, NewListIsEmpty) {
  KTProperties properties;
  EXPECT_EQ(valueOf(properties, "name"), std::nullopt);
  EXPECT_EQ(valueOf(properties, ""), std::nullopt);
}

TEST(KTPropertiesTest, SetPropertyAppendsAndReplaces) {
  KTProperties properties;
  properties.setProperty("a", "1");
  properties.setProperty("b", "2");
  properties.setProperty("a", "3");
  EXPECT_EQ(valueOf(properties, "a"), "3");
  EXPECT_EQ(valueOf(properties, "b"), "2");
}

TEST(KTPropertiesTest, SetPropertyTakesNameAndValueAsTheyAre) {
  KTProperties properties;
  properties.setProperty(" a b ", " \"1\" ");
  EXPECT_EQ(valueOf(properties, " a b "), " \"1\" ");
  properties.setProperty("", "empty name");
  EXPECT_EQ(valueOf(properties, ""), "empty name");
}

TEST(KTPropertiesTest, ReplacingKeepsTheNameUnique) {
  KTProperties properties;
  properties.setProperty("a", "1");
  properties.setProperty("a", "2");
  properties.remove("a");
  EXPECT_EQ(valueOf(properties, "a"), std::nullopt) << "a second pair of that name was there";
}

TEST(KTPropertiesTest, ValueOfThePairItselfMayBeSet) {
  KTProperties properties;
  properties.setProperty("a", "a long enough value");
  properties.setProperty("a", properties.getProperty("a"));
  EXPECT_EQ(valueOf(properties, "a"), "a long enough value");
}

TEST(KTPropertiesTest, NamesAreComparedByteByByte) {
  KTProperties properties;
  properties.setProperty("Name", "1");
  properties.setProperty("n\xC3\xA4me", "2");
  EXPECT_EQ(valueOf(properties, "name"), std::nullopt);
  EXPECT_EQ(valueOf(properties, "NAME"), std::nullopt);
  EXPECT_EQ(valueOf(properties, "Name "), std::nullopt);
  EXPECT_EQ(valueOf(properties, "Nam"), std::nullopt);
  EXPECT_EQ(valueOf(properties, "n\xC3\xA4me"), "2");
}

TEST(KTPropertiesTest, RemoveDropsThePairAlone) {
  KTProperties properties;
  for (const char* name : {"a", "b", "c"}) properties.setProperty(name, "1");
  properties.remove("b");
  EXPECT_EQ(valueOf(properties, "a"), "1");
  EXPECT_EQ(valueOf(properties, "b"), std::nullopt);
  EXPECT_EQ(valueOf(properties, "c"), "1");
  properties.setProperty("b", "2");
  EXPECT_EQ(valueOf(properties, "b"), "2");
}

TEST(KTPropertiesTest, RemoveOfAnAbsentNameIsIgnored) {
  KTProperties properties;
  properties.remove("a");
  properties.setProperty("a", "1");
  properties.remove("b");
  EXPECT_EQ(valueOf(properties, "a"), "1");
}

TEST(KTPropertiesTest, ClearDropsEveryPair) {
  KTProperties properties;
  properties.setProperty("a", "1");
  properties.setProperty("b", "2");
  properties.clear();
  EXPECT_EQ(valueOf(properties, "a"), std::nullopt);
  EXPECT_EQ(valueOf(properties, "b"), std::nullopt);
  properties.clear();
  properties.setProperty("a", "3");
  EXPECT_EQ(valueOf(properties, "a"), "3");
}

TEST(KTPropertiesTest, NullArgumentsFailTheirAssertions) {
  KTProperties properties;
  expectAssertion("filename", [&] { properties.load(nullptr); });
  expectAssertion("name", [&] { properties.getProperty(nullptr); });
  expectAssertion("name", [&] { properties.setProperty(nullptr, "value"); });
  expectAssertion("name", [&] { properties.setProperty(nullptr, nullptr); });
  expectAssertion("value", [&] { properties.setProperty("name", nullptr); });
  expectAssertion("name", [&] { properties.remove(nullptr); });
  EXPECT_EQ(valueOf(properties, "name"), std::nullopt) << "nothing was stored";
}

TEST(KTPropertiesLoadTest, ALineSplitsAtItsFirstEqualsSign) {
  Loaded loaded("a = b = c\n");
  EXPECT_EQ(loaded["a"], "b = c");
  EXPECT_EQ(loaded["a = b"], std::nullopt);
}

TEST(KTPropertiesLoadTest, AQuotedPathLosesItsQuotesAndTheBlanksBehindIt) {
  Loaded loaded("path = \"/data/repo one\"   \n");
  EXPECT_EQ(loaded["path"], "/data/repo one");
}

TEST(KTPropertiesLoadTest, LineGivesNameAndValue) {
  const struct {
    std::string line;
    std::string name;
    std::string value;
  } table[] = {
      {"k=v", "k", "v"},
      {"  \t\v\f\r k \t = \t v \t", "k", "v"},
      {"a==", "a", "="},
      {"x = 1 # not a comment", "x", "1 # not a comment"},
      {"x#y = 1", "x#y", "1"},
      {"two words = one value", "two words", "one value"},
      {"key = \"a b\"", "key", "a b"},
      {"key=a\"b", "key", "a b"},
      {"key=a\"\"b", "key", "a  b"},
      {"key=\"", "key", ""},
      {"key= \" \" ", "key", ""},
      {"key=", "key", ""},
      {"key=   ", "key", ""},
      {"\"quoted\" = v", "\"quoted\"", "v"},
      {"key = 'v'", "key", "'v'"},
      {"key = v\\", "key", "v\\"},
      {"Key = v", "Key", "v"},
      {"\xC3\xA4 = \xA0\x85", "\xC3\xA4", "\xA0\x85"},
      {"key = v\r", "key", "v"},
      {std::string("key = v\0 = w", 12), "key", "v"},
  };
  for (const auto& row : table)
    for (const char* const end : {"\n", "\r\n", ""}) {
      Loaded loaded(row.line + end);
      EXPECT_EQ(loaded[row.name], row.value) << row.line;
      loaded.properties.remove(row.name.c_str());
      EXPECT_EQ(loaded[row.name], std::nullopt) << row.line;
    }
}

TEST(KTPropertiesLoadTest, FileOfCommentsAndBlankLinesGivesAnEmptyList) {
  Loaded loaded("# x = 1\n\n   \n\t\r\n  # y = 2\n#\n\v\f\n#z=3");
  for (const char* const name : {"x", "y", "z", "# x", "#z", "", "#"}) EXPECT_EQ(loaded[name], std::nullopt) << name;
}

TEST(KTPropertiesLoadTest, HashMarkIsACommentOnlyInFront) {
  Loaded loaded("  # x = 1\nx = 1 # not a comment\n");
  EXPECT_EQ(loaded["x"], "1 # not a comment");
  EXPECT_EQ(loaded["# x"], std::nullopt);
}

TEST(KTPropertiesLoadTest, LineWithoutNameOrWithoutEqualsSignIsSkipped) {
  Loaded loaded("= 5\n   = 6\n=\nnovalue\nlast = 1\n");
  EXPECT_EQ(loaded[""], std::nullopt);
  EXPECT_EQ(loaded["novalue"], std::nullopt);
  EXPECT_EQ(loaded["last"], "1");
}

TEST(KTPropertiesLoadTest, LastOccurrenceOfANameWins) {
  Loaded loaded("k=1\nother=x\nk=2\n");
  EXPECT_EQ(loaded["k"], "2");
  EXPECT_EQ(loaded["other"], "x");
  loaded.properties.remove("k");
  EXPECT_EQ(loaded["k"], std::nullopt) << "one pair only";
}

TEST(KTPropertiesLoadTest, CarriageReturnIsNoPartOfAValue) {
  Loaded loaded("a=1\r\nb = \"2\" \r\n\r\nc=\r\n");
  EXPECT_EQ(loaded["a"], "1");
  EXPECT_EQ(loaded["b"], "2");
  EXPECT_EQ(loaded["c"], "");
}

TEST(KTPropertiesLoadTest, EmptyFileGivesAnEmptyList) {
  Loaded loaded("");
  EXPECT_EQ(loaded[""], std::nullopt);
}

TEST(KTPropertiesLoadTest, LineOf1500CharactersIsReadInTwoPieces) {
  // The first piece holds 1023 characters, "first=" among them.
  const std::string start = filled("first=", 1017, 'x');
  std::string rest = "second = y";
  rest += std::string(1500 - start.size() - rest.size(), 'z');
  Loaded loaded(start + rest + "\nthird=3\n");
  EXPECT_EQ(loaded["first"], std::string(1017, 'x'));
  EXPECT_EQ(loaded["second"], filled("y", 467, 'z'));
  EXPECT_EQ(loaded["third"], "3");
}

TEST(KTPropertiesLoadTest, SecondPieceWithoutEqualsSignIsDropped) {
  Loaded loaded(filled("first=", 2000, 'x') + "\nnext=1\n");
  EXPECT_EQ(loaded["first"], std::string(1017, 'x'));
  EXPECT_EQ(loaded["next"], "1");
}

TEST(KTPropertiesLoadTest, SecondPieceMayBeAComment) {
  Loaded loaded(filled("first=", 1017, 'x') + "#second=2\nthird=3\n");
  EXPECT_EQ(loaded["#second"], std::nullopt);
  EXPECT_EQ(loaded["second"], std::nullopt);
  EXPECT_EQ(loaded["third"], "3");
}

TEST(KTPropertiesLoadTest, LineIsCutAt1023Characters) {
  for (const size_t length : {size_t{1022}, size_t{1023}, size_t{1024}, size_t{1025}}) {
    const std::string value(length - 2, 'v');
    Loaded loaded(filled("k=", length - 2, 'v') + "\nnext=1\n");
    EXPECT_EQ(loaded["k"], value.substr(0, 1021)) << length;
    EXPECT_EQ(loaded["next"], "1") << length;
  }
}

TEST(KTPropertiesLoadTest, NameSplitByThePieceIsLost) {
  Loaded loaded(std::string(1020, 'n') + "ame=1\n");
  EXPECT_EQ(loaded[std::string(1020, 'n') + "ame"], std::nullopt);
  EXPECT_EQ(loaded["ame"], std::nullopt);
  EXPECT_EQ(loaded[""], std::nullopt) << "the second piece begins with the equals sign";
}

TEST(KTPropertiesLoadTest, BlanksAtTheCutAreTrimmedOnBothSides) {
  Loaded loaded(filled("k=", 1011, 'v') + std::string(20, ' ') + "l=2\n");
  EXPECT_EQ(loaded["k"], std::string(1011, 'v'));
  EXPECT_EQ(loaded["l"], "2");
}

TEST(KTPropertiesLoadTest, SecondFileIsMergedOverTheFirst) {
  Loaded loaded("a=1\nb=2\n");
  loaded.load("b=3\nc=4\n");
  EXPECT_EQ(loaded["a"], "1");
  EXPECT_EQ(loaded["b"], "3");
  EXPECT_EQ(loaded["c"], "4");
}

TEST(KTPropertiesLoadTest, MissingFileIsFalseAndLeavesThePairs) {
  Loaded loaded("a=1\n");
  const FakeSyslog log;
  EXPECT_FALSE(loaded.properties.load("/no/such/file"));
  EXPECT_FALSE(loaded.properties.load(""));
  EXPECT_EQ(loaded["a"], "1");
  EXPECT_THAT(log.events, IsEmpty());
}

TEST(KTPropertiesLoadTest, UnreadableFileIsFalseAndLeavesThePairs) {
  const ScratchDirectory directory;
  writeFile(directory / "file.cfg", "a=2\n");
  KTProperties properties;
  properties.setProperty("a", "1");
  const FakeSyslog log;
  const FailingCall refused("fopen", EACCES, "file.cfg");
  EXPECT_FALSE(properties.load((directory / "file.cfg").c_str()));
  EXPECT_EQ(refused.failed(), 1);
  EXPECT_EQ(valueOf(properties, "a"), "1");
  EXPECT_THAT(log.events, IsEmpty());
}

TEST(KTPropertiesLoadTest, DirectoryCanBeOpenedAndHoldsNothing) {
  const ScratchDirectory directory;
  KTProperties properties;
  properties.setProperty("a", "1");
  EXPECT_TRUE(properties.load(directory.path().c_str()));
  EXPECT_EQ(valueOf(properties, "a"), "1");
}

TEST(KTPropertiesLoadTest, FileIsClosed) {
  const long before = openDescriptors();
  Loaded loaded("a=1\n");
  EXPECT_EQ(openDescriptors(), before);
}

TEST(KTPropertiesTextTest, ReplaceTurnsEveryOccurrence) {
  const struct {
    std::string text;
    std::string want;
  } table[] = {{"", ""}, {"abc", "abc"}, {"\"", " "}, {"\"a\"\"b\"", " a  b "}};
  for (const auto& row : table) {
    Writable text(row.text);
    KTProperties::replace(text.text(), '"', ' ');
    EXPECT_EQ(text.text(), row.want);
  }
}

TEST(KTPropertiesTextTest, SkipWhiteSpacesFindsTheFirstOtherCharacter) {
  const struct {
    std::string text;
    std::ptrdiff_t offset;
  } table[] = {{"", 0}, {"a ", 0}, {" \t\n\v\f\ra", 6}, {"   ", 3}, {"\xA0 a", 0}, {" \xFF", 1}};
  for (const auto& row : table) {
    Writable text(row.text);
    EXPECT_EQ(KTProperties::skipWhiteSpaces(text.text()) - text.text(), row.offset) << row.text;
    EXPECT_EQ(text.text(), row.text) << "nothing is written";
  }
}

TEST(KTPropertiesTextTest, TrimCutsTheEndInPlace) {
  const struct {
    std::string text;
    std::ptrdiff_t offset;
    std::string want;
  } table[] = {
      {"", 0, ""},    {"a", 0, "a"}, {"a b", 0, "a b"}, {"  a b \t\r\n", 2, "a b"},
      {"   ", 3, ""}, {"\n", 1, ""}, {"a\v\f", 0, "a"}, {" \xA0 ", 1, "\xA0"},
  };
  for (const auto& row : table) {
    Writable text(row.text);
    char* const first = KTProperties::trim(text.text());
    EXPECT_EQ(first - text.text(), row.offset) << row.text;
    EXPECT_EQ(first, row.want);
  }
}

TEST(KTPropertiesTextTest, GetNextValueMovesBehindTheSeparator) {
  Writable text(" a , b,,  ,rest");
  char* cursor = text.text();
  EXPECT_STREQ(KTProperties::getNextValue(cursor, ','), "a");
  EXPECT_STREQ(cursor, " b,,  ,rest");
  EXPECT_STREQ(KTProperties::getNextValue(cursor, ','), "b");
  EXPECT_STREQ(KTProperties::getNextValue(cursor, ','), "");
  EXPECT_STREQ(KTProperties::getNextValue(cursor, ','), "");
  EXPECT_STREQ(cursor, "rest");
}

TEST(KTPropertiesTextTest, GetNextValueWithoutSeparatorIsNullAndLeavesTheCursor) {
  for (const char* const content : {"rest", "", "  "}) {
    Writable text(content);
    char* cursor = text.text();
    EXPECT_EQ(KTProperties::getNextValue(cursor, '='), nullptr);
    EXPECT_EQ(cursor, text.text());
    EXPECT_STREQ(cursor, content);
  }
}

TEST(KTPropertiesTextTest, GetNextValueAtTheEndLeavesAnEmptyRest) {
  Writable text("a=");
  char* cursor = text.text();
  EXPECT_STREQ(KTProperties::getNextValue(cursor, '='), "a");
  EXPECT_STREQ(cursor, "");
}
