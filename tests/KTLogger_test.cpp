#include "KTLogger.h"

#include <gmock/gmock.h>
#include <syslog.h>

#include <cerrno>
#include <cstdarg>
#include <memory>

#include "fakes/fakes.h"
#include "support/scratch.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

// Each test begins as a process does: no stream open.
class KTLoggerTest : public testing::Test {
 protected:
  KTLoggerTest() { KTLogger::m_lastFacility = FACILITY_NONE; }
  ~KTLoggerTest() override { KTLogger::m_lastFacility = FACILITY_NONE; }

  int openings() const {
    int count = 0;
    for (const std::string& event : log.events) count += event.starts_with("openlog ");
    return count;
  }

  FakeSyslog log;
};

void logAt(KTLogger& logger, LOG_MODE mode, const char* format, ...) {
  va_list args;
  va_start(args, format);
  logger.log(mode, format, args);
  va_end(args);
}

std::string openEvent(const std::string& ident, int facility) {
  return "openlog " + ident + " " + std::to_string(LOG_PID) + " " + std::to_string(facility);
}

}  // namespace

TEST_F(KTLoggerTest, ConstructionOpensNothing) {
  const KTLogger logger("kt");
  EXPECT_THAT(log.events, IsEmpty());
  EXPECT_EQ(KTLogger::m_lastFacility, FACILITY_NONE);
}

TEST_F(KTLoggerTest, EachOperationHasItsStreamAndPriority) {
  const EnvironmentVariable oper("LOG_OPER_FACILITY", "local1");
  const EnvironmentVariable general("LOG_FACILITY", "local2");
  const struct {
    void (KTLogger::*operation)(const char*, ...);
    int priority;
    int facility;
  } table[] = {
      {&KTLogger::operInfoLog, LOG_INFO, LOG_LOCAL1}, {&KTLogger::operErrorLog, LOG_ERR, LOG_LOCAL1},
      {&KTLogger::infoLog, LOG_INFO, LOG_LOCAL2},     {&KTLogger::errorLog, LOG_ERR, LOG_LOCAL2},
      {&KTLogger::debugLog, LOG_DEBUG, LOG_LOCAL2},
  };
  KTLogger logger("kt");
  for (const auto& row : table) {
    (logger.*row.operation)("%s is at %d", "m1", 99);
    const LogLine& line = log.lines.back();
    EXPECT_EQ(line.text, "m1 is at 99");
    EXPECT_EQ(line.priority, row.priority);
    EXPECT_EQ(line.facility, row.facility);
    EXPECT_EQ(line.ident, "kt");
    EXPECT_EQ(line.option, LOG_PID);
  }
}

TEST_F(KTLoggerTest, EachLevelHasItsStreamAndPriority) {
  const struct {
    LOG_MODE mode;
    LOG_FACILITY stream;
    int priority;
  } table[] = {
      {MODE_OPER_INFO, FACILITY_OPER, 6}, {MODE_OPER_ERROR, FACILITY_OPER, 3}, {MODE_INFO, FACILITY_MAIN, 6},
      {MODE_ERROR, FACILITY_MAIN, 3},     {MODE_DEBUG, FACILITY_MAIN, 7},      {MODE_NONE, FACILITY_NONE, 7},
  };
  KTLogger logger("kt");
  for (const auto& row : table) {
    EXPECT_EQ(FACILITY_ARRAY[row.mode], row.stream) << row.mode;
    logAt(logger, row.mode, "level %d", row.mode);
    EXPECT_EQ(KTLogger::m_lastFacility, row.stream) << row.mode;
    EXPECT_EQ(log.lines.back().priority, row.priority) << row.mode;
    EXPECT_EQ(log.lines.back().text, "level " + std::to_string(row.mode));
  }
}

TEST_F(KTLoggerTest, StreamsAndLevelsKeepTheirNumbers) {
  EXPECT_EQ(static_cast<int>(FACILITY_OPER), 0);
  EXPECT_EQ(static_cast<int>(FACILITY_MAIN), 1);
  EXPECT_EQ(static_cast<int>(FACILITY_NONE), 2);
  EXPECT_EQ(static_cast<int>(MODE_OPER_INFO), 0);
  EXPECT_EQ(static_cast<int>(MODE_OPER_ERROR), 1);
  EXPECT_EQ(static_cast<int>(MODE_INFO), 2);
  EXPECT_EQ(static_cast<int>(MODE_ERROR), 3);
  EXPECT_EQ(static_cast<int>(MODE_DEBUG), 4);
  EXPECT_EQ(static_cast<int>(MODE_NONE), 5);
}

TEST_F(KTLoggerTest, ANameInUpperCaseOrWithATrailingBlankSelectsLocal0) {
  KTLogger logger("kt");
  for (const char* name : {"LOCAL5", "local5 "}) {
    const EnvironmentVariable variable("LOG_FACILITY", name);
    logger.openLog(FACILITY_MAIN);
    EXPECT_EQ(log.events.back(), openEvent("kt", LOG_LOCAL0)) << '"' << name << '"';
    const EnvironmentVariable oper("LOG_OPER_FACILITY", name);
    const EnvironmentVariable general("LOG_FACILITY", "local3");
    logger.openLog(FACILITY_OPER);
    EXPECT_EQ(log.events.back(), openEvent("kt", LOG_LOCAL0)) << '"' << name << '"';
  }
}

TEST_F(KTLoggerTest, VariableNamesOneOfTheLocalFacilities) {
  const struct {
    std::optional<std::string> value;
    int facility;
  } table[] = {
      {"local0", LOG_LOCAL0},     {"local1", LOG_LOCAL1}, {"local2", LOG_LOCAL2},  {"local3", LOG_LOCAL3},
      {"local4", LOG_LOCAL4},     {"local5", LOG_LOCAL5}, {"local6", LOG_LOCAL6},  {"local7", LOG_LOCAL7},
      {std::nullopt, LOG_LOCAL0}, {"", LOG_LOCAL0},       {"Local5", LOG_LOCAL0},  {" local5", LOG_LOCAL0},
      {"local", LOG_LOCAL0},      {"local8", LOG_LOCAL0}, {"local55", LOG_LOCAL0}, {"user", LOG_LOCAL0},
      {"daemon", LOG_LOCAL0},     {"5", LOG_LOCAL0},
  };
  KTLogger logger("kt");
  for (const auto& row : table) {
    const EnvironmentVariable variable("LOG_FACILITY", row.value);
    logger.openLog(FACILITY_MAIN);
    EXPECT_EQ(log.events.back(), openEvent("kt", row.facility)) << row.value.value_or("(unset)");
    const EnvironmentVariable none("LOG_FACILITY", std::nullopt);
    const EnvironmentVariable oper("LOG_OPER_FACILITY", row.value);
    logger.openLog(FACILITY_OPER);
    EXPECT_EQ(log.events.back(), openEvent("kt", row.facility)) << row.value.value_or("(unset)");
  }
}

TEST_F(KTLoggerTest, GeneralStreamTakesItsVariableAndTheOperationalOneItsOwn) {
  const EnvironmentVariable general("LOG_FACILITY", "local5");
  KTLogger logger("kt");
  logger.errorLog("broken");
  logger.operInfoLog("started");
  ASSERT_EQ(log.lines.size(), 2U);
  EXPECT_EQ(log.lines[0].facility, LOG_LOCAL5);
  EXPECT_EQ(log.lines[0].priority, LOG_ERR);
  EXPECT_EQ(log.lines[1].facility, LOG_LOCAL0);
  EXPECT_EQ(log.lines[1].priority, LOG_INFO);
}

TEST_F(KTLoggerTest, StreamNoneReadsTheVariableOfTheGeneralStream) {
  const EnvironmentVariable general("LOG_FACILITY", "local6");
  const EnvironmentVariable oper("LOG_OPER_FACILITY", "local1");
  KTLogger logger("kt");
  logger.openLog(FACILITY_NONE);
  EXPECT_THAT(log.events, ElementsAre(openEvent("kt", LOG_LOCAL6)));
  EXPECT_EQ(KTLogger::m_lastFacility, FACILITY_NONE);
}

TEST_F(KTLoggerTest, OpeningRecordsTheStream) {
  KTLogger logger("kt");
  logger.openLog(FACILITY_OPER);
  EXPECT_EQ(KTLogger::m_lastFacility, FACILITY_OPER);
  logger.openLog(FACILITY_MAIN);
  EXPECT_EQ(KTLogger::m_lastFacility, FACILITY_MAIN);
}

TEST_F(KTLoggerTest, MessagesOfOneStreamShareOneOpening) {
  KTLogger logger("kt");
  logger.errorLog("one");
  logger.errorLog("two");
  logger.infoLog("three");
  logger.debugLog("four");
  EXPECT_THAT(log.events, ElementsAre(openEvent("kt", LOG_LOCAL0), "vsyslog 3 one", "vsyslog 3 two", "vsyslog 6 three",
                                      "vsyslog 7 four"));
}

TEST_F(KTLoggerTest, AlternatingStreamsReopenAtEveryChange) {
  KTLogger logger("kt");
  logger.errorLog("one");
  logger.operErrorLog("two");
  logger.errorLog("three");
  EXPECT_EQ(openings(), 3);
}

TEST_F(KTLoggerTest, ChangedVariableTakesEffectAtTheNextOpening) {
  KTLogger logger("kt");
  const EnvironmentVariable before("LOG_FACILITY", "local3");
  logger.errorLog("one");
  const EnvironmentVariable after("LOG_FACILITY", "local4");
  logger.errorLog("two");
  logger.operInfoLog("three");
  logger.errorLog("four");
  ASSERT_EQ(log.lines.size(), 4U);
  EXPECT_EQ(log.lines[1].facility, LOG_LOCAL3) << "still the stream that is open";
  EXPECT_EQ(log.lines[3].facility, LOG_LOCAL4);
}

TEST_F(KTLoggerTest, OpenStreamIsSharedByAllLoggers) {
  KTLogger first("first");
  KTLogger second("second");
  first.errorLog("one");
  second.errorLog("two");
  ASSERT_EQ(log.lines.size(), 2U);
  EXPECT_EQ(openings(), 1);
  EXPECT_EQ(log.lines[1].ident, "first");
}

TEST_F(KTLoggerTest, NullIdentLogsUnderUnknown) {
  KTLogger logger(nullptr);
  EXPECT_EQ(logger.ident, nullptr);
  logger.errorLog("who");
  EXPECT_EQ(log.lines.back().ident, "unknown");
}

TEST_F(KTLoggerTest, IdentIsCopied) {
  char name[] = "kt";
  KTLogger logger(name);
  name[0] = 'x';
  EXPECT_NE(logger.ident, name);
  logger.errorLog("who");
  EXPECT_EQ(log.lines.back().ident, "kt");
}

TEST_F(KTLoggerTest, EmptyIdentStaysEmpty) {
  KTLogger logger("");
  logger.errorLog("who");
  EXPECT_EQ(log.lines.back().ident, "");
}

TEST_F(KTLoggerTest, BuiltTextIsTakenAsAFormat) {
  KTLogger logger("kt");
  logger.errorLog("disk at 99%% of /data/a%%b");
  EXPECT_EQ(log.lines.back().format, "disk at 99%% of /data/a%%b");
  EXPECT_EQ(log.lines.back().text, "disk at 99% of /data/a%b");
}

TEST_F(KTLoggerTest, LongMessageIsNotCut) {
  const std::string text(20000, 'x');
  KTLogger logger("kt");
  logger.errorLog("%s", text.c_str());
  EXPECT_EQ(log.lines.back().text, text);
}

TEST_F(KTLoggerTest, EmptyMessageIsStillSent) {
  KTLogger logger("kt");
  logger.infoLog("%s", "");
  ASSERT_EQ(log.lines.size(), 1U);
  EXPECT_EQ(log.lines[0].text, "");
}

TEST_F(KTLoggerTest, DebugMessagesAreSentWhateverTheSwitchesSay) {
  EXPECT_FALSE(g_ktDebug);
  EXPECT_FALSE(g_ktVerbose);
  KTLogger logger("kt");
  logger.debugLog("one");
  g_ktDebug = g_ktVerbose = true;
  logger.debugLog("two");
  g_ktDebug = g_ktVerbose = false;
  EXPECT_THAT(log.texts(LOG_DEBUG), ElementsAre("one", "two"));
}

TEST_F(KTLoggerTest, LoggingLeavesErrnoAsItWas) {
  KTLogger logger("kt");
  errno = ENOSPC;
  logger.errorLog("%2147483648d", 1);  // wider than a text can be: the expansion fails with EOVERFLOW
  EXPECT_EQ(errno, ENOSPC);
}

TEST_F(KTLoggerTest, DestructionWithoutAMessageDoesNotClose) {
  { const KTLogger logger("kt"); }
  EXPECT_THAT(log.events, IsEmpty());
}

TEST_F(KTLoggerTest, DestructionClosesTheOpenStream) {
  {
    KTLogger logger("kt");
    logger.errorLog("one");
  }
  EXPECT_THAT(log.events, ElementsAre(openEvent("kt", LOG_LOCAL0), "vsyslog 3 one", "closelog"));
  EXPECT_EQ(KTLogger::m_lastFacility, FACILITY_NONE);
}

TEST_F(KTLoggerTest, DestructionClosesTheStreamThatAnotherLoggerOpened) {
  KTLogger lasting("lasting");
  lasting.errorLog("one");
  { const KTLogger passing("passing"); }
  lasting.errorLog("two");
  EXPECT_THAT(log.events, ElementsAre(openEvent("lasting", LOG_LOCAL0), "vsyslog 3 one", "closelog",
                                      openEvent("lasting", LOG_LOCAL0), "vsyslog 3 two"));
}

TEST_F(KTLoggerTest, SecondDestructionDoesNotCloseAgain) {
  {
    const KTLogger idle("idle");
    KTLogger logger("kt");
    logger.operInfoLog("one");
  }
  EXPECT_EQ(std::count(log.events.begin(), log.events.end(), "closelog"), 1);
}

TEST_F(KTLoggerTest, LogOpenedBehindItsBackIsUsedAsItIs) {
  KTLogger logger("kt");
  logger.errorLog("one");
  openlog("kthash", LOG_PID, LOG_LOCAL3);
  closelog();
  log.events.clear();
  logger.errorLog("two");
  EXPECT_THAT(log.events, ElementsAre("vsyslog 3 two"));
  EXPECT_EQ(KTLogger::m_lastFacility, FACILITY_MAIN);
}

TEST_F(KTLoggerTest, MessageOfNoStreamLeavesNoneOpen) {
  KTLogger logger("kt");
  logAt(logger, MODE_NONE, "one");
  logger.errorLog("two");
  logAt(logger, MODE_NONE, "three");
  logAt(logger, MODE_NONE, "four");
  EXPECT_THAT(log.events, ElementsAre("vsyslog 7 one", openEvent("kt", LOG_LOCAL0), "vsyslog 3 two",
                                      openEvent("kt", LOG_LOCAL0), "vsyslog 7 three", "vsyslog 7 four"));
}
