// SPDX-License-Identifier: Apache-2.0
// The readable copies of the simulated boards' dictionaries, read over the bus within this process: what the
// service log gets of an instrument.
#include "shim/ShimBoardQ47.h"
#include "simulator/boards/CanNode.h"
#include "simulator/boards/ShimBoard.h"
#include "simulator/boards/TemperatureBoard.h"
#include "support/FakePeriodicCallers.h"
#include "support/LogCapture.h"
#include "support/TemporaryDirectory.h"
#include "temperature/TempBoardProxy.h"
#include "temperature/TempBoardQ47.h"
#include "temperature/TemperatureListenerSync.h"

#include <velmor/kepla/canopen/CanOpenMaster.h>
#include <velmor/kepla/canopen/InProcessBus.h>
#include <velmor/kepla/datalogger/NullDataLogger.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using libfieldwarden::sim::CanNode;
using libfieldwarden::sim::ShimBoard;
using libfieldwarden::sim::TemperatureBoard;
using libfieldwarden::test::FakePeriodicCallers;
using libfieldwarden::test::LogCapture;
using libfieldwarden::test::readFile;
using libfieldwarden::test::Severity;
using libfieldwarden::test::TemporaryDirectory;
using testing::Each;
using testing::ElementsAreArray;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using velmor::kepla::canopen::CanOpenMaster;
using velmor::kepla::canopen::InProcessBus;
using velmor::kepla::datalogger::NullDataLogger;

constexpr std::uint32_t kHardwareFault = 0x0606'0000; ///< CiA 301: access failed due to an hardware error.

std::vector<std::string> linesOf(std::string const& aText) {
    std::vector<std::string> lines;
    std::istringstream text(aText);
    for (std::string line; std::getline(text, line);) {
        lines.push_back(line);
    }
    return lines;
}

/// "0x3001", TAB, "0x01", TAB: what stands before the value; the whole of an empty line.
std::string objectOf(std::string const& aLine) {
    return aLine.substr(0, 12);
}

std::vector<std::string> objectsOf(std::string const& aDump) {
    std::vector<std::string> objects = linesOf(aDump);
    std::transform(objects.begin(), objects.end(), objects.begin(), objectOf);
    return objects;
}

/// The lines with a star in place of each value that has a star in the stored dump: those that change with
/// time.
std::vector<std::string> masked(std::string const& aDump, std::vector<std::string> const& aGolden) {
    std::vector<std::string> lines = linesOf(aDump);
    for (std::size_t line = 0; line < std::min(lines.size(), aGolden.size()); ++line) {
        bool const lives =
            aGolden[line].ends_with("\t*") && lines[line].size() > objectOf(lines[line]).size();
        if (lives) {
            lines[line] = objectOf(lines[line]) + "*";
        }
    }
    return lines;
}

/// @return The value of an object in a dump.
long long valueOf(std::string const& aDump, std::string_view aObject) {
    for (std::string const& line : linesOf(aDump)) {
        if (line.starts_with(aObject)) {
            return std::stoll(line.substr(aObject.size()));
        }
    }
    throw std::runtime_error("no line of " + std::string(aObject));
}

class DictionaryDump : public testing::Test {
protected:
    std::string dumpOfTemperatureBoard() {
        mTemperature->dumpCANopenValues(mDirectory.path().string());
        return readFile(mDirectory.path() / "canopen_temperature.dump");
    }

    std::string dumpOfShimBoard() {
        mShim->dumpCANopenValues(mDirectory.path().string());
        return readFile(mDirectory.path() / "canopen_shim_8.dump");
    }

    TemporaryDirectory mDirectory;
    LogCapture mLog;
    InProcessBus mBus{{}};
    CanNode mTemperatureNode{mBus.open("temperature board"), 7,
                             std::make_shared<TemperatureBoard>(TemperatureBoard::Options{})};
    CanNode mShimNode{mBus.open("shim board"), 8, std::make_shared<ShimBoard>(ShimBoard::Options{})};
    std::shared_ptr<CanOpenMaster> mMaster =
        std::make_shared<CanOpenMaster>(mBus.open("can0"), std::uint8_t{1});
    std::shared_ptr<NullDataLogger> mDataLogger = std::make_shared<NullDataLogger>();
    std::shared_ptr<FakePeriodicCallers> mCallers = std::make_shared<FakePeriodicCallers>();
    std::shared_ptr<TempBoardQ47> mTemperature =
        std::make_shared<TempBoardQ47>(mMaster, nullptr, "/firmware", std::uint8_t{7});
    std::shared_ptr<ShimBoardQ47> mShim =
        std::make_shared<ShimBoardQ47>(mMaster, std::uint8_t{8}, "/firmware", mDataLogger, mCallers, nullptr);
};

TEST_F(DictionaryDump, OfTheTemperatureBoardHasEachOfItsObjects) {
    std::string const dump = dumpOfTemperatureBoard();
    EXPECT_THAT(objectsOf(dump),
                ElementsAreArray(objectsOf(readFile(TEMPERATURE_OBJECTS "/canopen_temperature.dump"))));
    EXPECT_THAT(dump, Not(HasSubstr("failed")));
    EXPECT_THAT(mLog.linesUpTo(Severity::Error), IsEmpty());
}

TEST_F(DictionaryDump, OfTheShimBoardHasEachOfItsObjects) {
    std::string const dump = dumpOfShimBoard();
    EXPECT_THAT(objectsOf(dump), ElementsAreArray(objectsOf(readFile(SHIM_OBJECTS "/canopen_shim_8.dump"))));
    EXPECT_THAT(dump, Not(HasSubstr("failed")));
    EXPECT_THAT(mLog.linesUpTo(Severity::Error), IsEmpty());
}

TEST_F(DictionaryDump, OfTheTemperatureBoardShowsItsSetup) {
    auto const golden = linesOf(readFile(DUMP_GOLDEN "/canopen_temperature.dump"));
    EXPECT_THAT(masked(dumpOfTemperatureBoard(), golden), ElementsAreArray(golden));
}

TEST_F(DictionaryDump, OfTheShimBoardShowsItsSetup) {
    auto const golden = linesOf(readFile(DUMP_GOLDEN "/canopen_shim_8.dump"));
    EXPECT_THAT(masked(dumpOfShimBoard(), golden), ElementsAreArray(golden));
}

// A board that has stayed switched on begins with all bodies on their targets: magnet and shim coil on
// 25.000, iso box on 21.000 degrees Celsius.
TEST_F(DictionaryDump, ShowsWhatTheBoardMeasures) {
    std::string const dump = dumpOfTemperatureBoard();
    EXPECT_NEAR(static_cast<double>(valueOf(dump, "0x3001\t0x01\t")), 25'000.0, 20.0);
    EXPECT_NEAR(static_cast<double>(valueOf(dump, "0x3101\t0x01\t")), 25'000.0, 20.0);
    EXPECT_NEAR(static_cast<double>(valueOf(dump, "0x3201\t0x01\t")), 21'000.0, 300.0);
}

TEST_F(DictionaryDump, ShowsWhatHasBeenWritten) {
    mTemperature->setShimTargetTemperature(1, 298.65); // 25.500 degrees Celsius for both ends
    mTemperature->setVTMode(VTMode::PortExpander);
    std::string const dump = dumpOfTemperatureBoard();
    EXPECT_NEAR(static_cast<double>(valueOf(dump, "0x3104\t0x01\t")), 25'500.0, 1.0);
    EXPECT_NEAR(static_cast<double>(valueOf(dump, "0x3104\t0x02\t")), 25'500.0, 1.0);
    EXPECT_NEAR(static_cast<double>(valueOf(dump, "0x3104\t0x03\t")), 25'500.0, 1.0);
    EXPECT_EQ(valueOf(dump, "0x3401\t0x05\t"), 2);
}

TEST_F(DictionaryDump, IsWholeBehindAnObjectThatTheBoardRefuses) {
    mTemperatureNode.faults().abortObject({0x3101, 2}, kHardwareFault);
    mShimNode.faults().abortObject({0x3002, 1}, kHardwareFault);
    std::string const temperature = dumpOfTemperatureBoard();
    EXPECT_THAT(temperature, HasSubstr("\n0x3101\t0x02\treading the value failed with "));
    EXPECT_THAT(objectsOf(temperature),
                ElementsAreArray(objectsOf(readFile(TEMPERATURE_OBJECTS "/canopen_temperature.dump"))));
    std::string const shim = dumpOfShimBoard();
    EXPECT_THAT(shim, HasSubstr("\n0x3002\t0x01\treading the value failed with "));
    EXPECT_THAT(objectsOf(shim), ElementsAreArray(objectsOf(readFile(SHIM_OBJECTS "/canopen_shim_8.dump"))));
}

// The poll of every ten seconds goes on while a dump is written.
TEST_F(DictionaryDump, IsWholeWhileThePollReadsTheSameBoard) {
    TempBoardProxy proxy(mTemperature, std::make_shared<TemperatureListenerSync>(0.001, 0.1), mDataLogger,
                         mCallers);
    auto const golden = linesOf(readFile(DUMP_GOLDEN "/canopen_temperature.dump"));
    mTemperature->setVTMode(VTMode::None); // Known from here on, so that each poll is the same.
    std::atomic<bool> end{false};
    std::atomic<unsigned> polls{0};
    std::thread poller([&] {
        while (!end) {
            proxy.poll();
            ++polls;
        }
    });
    unsigned const before = polls;
    while (polls < before + 3) {
        auto const lines = masked(dumpOfTemperatureBoard(), golden);
        EXPECT_THAT(lines, Each(Not(HasSubstr("failed"))));
        ASSERT_EQ(lines.size(), golden.size());
    }
    end = true;
    poller.join();
}

} // namespace
