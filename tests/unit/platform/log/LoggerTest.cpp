// SPDX-License-Identifier: Apache-2.0
// What a log call makes of its format and arguments, and what it costs when nobody listens.
#include "support/AllocationCount.h"
#include "support/LogCapture.h"

#include <velmor/kepla/log/Logger.h>

#include <cerrno>
#include <limits>
#include <stdexcept>
#include <thread>
#include <vector>

#include <gmock/gmock.h>

namespace {

using libfieldwarden::test::allocationsOfThisThread;
using libfieldwarden::test::CapturedLine;
using libfieldwarden::test::LogCapture;
using testing::ElementsAre;
using velmor::kepla::log::keplaDoLog;
using velmor::kepla::log::Severity;

/// A class that logs as the services do.
class Speaker : private virtual velmor::kepla::log::Logger {
public:
    explicit Speaker(std::string_view aName = "Speaker", std::string_view aCategory = "Test")
        : Logger(aName, aCategory) {}

    using Logger::keplaDoLog;
};

/// The text that a format and its arguments give.
template <typename... Arguments>
std::string textOf(std::string_view aFormat, Arguments const&... aArguments) {
    LogCapture const log;
    Speaker().keplaDoLog(Severity::Info, aFormat, {}, aArguments...);
    return log.lines().at(0).text;
}

TEST(Logger, DeliversWordsSeverityNameAndCategory) {
    LogCapture const log;
    Speaker("LockMock", "Lock").keplaDoLog(Severity::Warning, "step %d of %d", {}, 2, 5);
    ASSERT_EQ(log.lines().size(), 1U);
    EXPECT_EQ(log.lines()[0], (CapturedLine{Severity::Warning, "step 2 of 5", {}, {}}));
    EXPECT_EQ(log.lines()[0].name, "LockMock");
    EXPECT_EQ(log.lines()[0].category, "Lock");
}

TEST(Logger, FormatsAsPrintfDoes) {
    EXPECT_EQ(textOf("%5.2f|%-4s|%08X|%+d|%%|%c", 3.14159, "ab", 0xBEEFU, 7, 'z'),
              " 3.14|ab  |0000BEEF|+7|%|z");
    EXPECT_EQ(textOf("%x", -1), "ffffffff");
    EXPECT_EQ(textOf("%d %u", true, std::uint8_t{200}), "1 200");
    EXPECT_EQ(textOf("%f", 0.1), "0.100000");
}

TEST(Logger, TakesStringsOfEveryKind) {
    EXPECT_EQ(textOf("%s %s %s", std::string("a"), std::string_view("b"), "c"), "a b c");
    EXPECT_EQ(textOf("'%s'", std::string("x\0y", 3)), std::string("'x\0y'", 5));
    EXPECT_EQ(textOf("%s", static_cast<char const*>(nullptr)), "(null)");
}

TEST(Logger, TakesLengthModifiersThatDoNotFitTheArgument) {
    EXPECT_EQ(textOf("%lu", 4000000000U), "4000000000");
    EXPECT_EQ(textOf("%lld", 5), "5");
    EXPECT_EQ(textOf("%lu", std::numeric_limits<unsigned long long>::max()), "18446744073709551615");
    EXPECT_EQ(textOf("%zu", std::vector<int>(3).size()), "3");
}

TEST(Logger, PrintsTheLetterThatFollowsAConversion) {
    // "%ul" is the unsigned conversion and then the letter l.
    EXPECT_EQ(textOf("Read back %ul shim currents but expected %ul", 17U, std::size_t{18}),
              "Read back 17l shim currents but expected 18l");
}

TEST(Logger, PutsTheTextOfErrnoForPercentM) {
    errno = ENODEV;
    EXPECT_EQ(textOf("open of '%s' failed: %m", "can0"), "open of 'can0' failed: No such device");
    EXPECT_EQ(textOf("100%%m"), "100%m");
}

TEST(Logger, LeavesErrnoAlone) {
    LogCapture const log;
    errno = ENOSPC;
    Speaker().keplaDoLog(Severity::Info, "%m", {});
    EXPECT_EQ(errno, ENOSPC);
}

TEST(Logger, ReportsAFormatThatDoesNotFitInsteadOfThrowing) {
    EXPECT_THAT(textOf("%d and %d", 1), testing::StartsWith("%d and %d (this line could not be formatted: "));
    EXPECT_THAT(textOf("%d", "text"), testing::StartsWith("%d (this line could not be formatted: "));
}

TEST(Logger, AppendsTheLazyTextAndAsksForItOnlyWhenTheLineIsWanted) {
    bool asked = false;
    auto const producer = [&]() -> std::string {
        asked = true;
        return " lazily";
    };
    Speaker().keplaDoLog(Severity::Info, "spoken", producer);
    EXPECT_FALSE(asked);
    LogCapture const log;
    Speaker().keplaDoLog(Severity::Info, "spoken", producer);
    EXPECT_TRUE(log.has(Severity::Info, "spoken lazily"));
}

TEST(Logger, SurvivesALazyTextThatThrows) {
    LogCapture const log;
    Speaker().keplaDoLog(Severity::Info, "lost",
                         []() -> std::string { throw std::runtime_error("no text"); });
    EXPECT_TRUE(log.lines().empty());
}

TEST(Logger, HandsItsLinesToAReceiverOfItsOwn) {
    struct Receiver : velmor::kepla::log::LoggerImplInterface {
        void write(velmor::kepla::log::Line const& aLine) noexcept override {
            texts.emplace_back(aLine.text);
        }
        std::vector<std::string> texts;
    };
    auto const receiver = std::make_shared<Receiver>();
    struct Owner : velmor::kepla::log::Logger {
        explicit Owner(std::shared_ptr<velmor::kepla::log::LoggerImplInterface> aReceiver)
            : Logger("Owner", "", std::move(aReceiver)) {}
    };
    LogCapture const log;
    Owner(receiver).keplaDoLog(Severity::Error, "mine", {});
    EXPECT_THAT(receiver->texts, ElementsAre("mine"));
    EXPECT_TRUE(log.lines().empty());
}

TEST(FreeLoggingCall, SpeaksWithoutANameAndCategory) {
    LogCapture const log;
    keplaDoLog(Severity::Critical, "from %s", {}, "static code");
    ASSERT_EQ(log.lines().size(), 1U);
    EXPECT_EQ(log.lines()[0], (CapturedLine{Severity::Critical, "from static code", {}, {}}));
    EXPECT_EQ(log.lines()[0].name, "");
}

TEST(Logger, AllocatesNothingOnceItsNameIsKnown) {
    Speaker("AT FSM: RampTemperatureAndFlow", "Temperature");
    auto const before = allocationsOfThisThread();
    for (int i = 0; i < 100; ++i) {
        Speaker("AT FSM: RampTemperatureAndFlow", "Temperature");
    }
    EXPECT_EQ(allocationsOfThisThread() - before, 0U);
}

TEST(Logger, AllocatesNothingForALineThatNobodyWants) {
    Speaker const speaker;
    auto const before = allocationsOfThisThread();
    speaker.keplaDoLog(Severity::Trace, "%s %d %f", {}, "a text that would not fit a small string", 1, 2.0);
    EXPECT_EQ(allocationsOfThisThread() - before, 0U);
}

TEST(Logger, TakesLinesFromManyThreadsWhileTheSetUpChanges) {
    std::atomic<bool> stop{false};
    std::vector<std::thread> speakers;
    for (int i = 0; i < 3; ++i) {
        speakers.emplace_back([&stop, i] {
            while (!stop) {
                Speaker("Speaker " + std::to_string(i)).keplaDoLog(Severity::Info, "line %d", {}, i);
            }
        });
    }
    for (int i = 0; i < 50; ++i) {
        LogCapture const log;
        while (log.lines().empty()) {
            std::this_thread::yield();
        }
    }
    stop = true;
    for (std::thread& speaker : speakers) {
        speaker.join();
    }
}

} // namespace
