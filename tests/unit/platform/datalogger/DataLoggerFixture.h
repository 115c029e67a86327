// SPDX-License-Identifier: Apache-2.0
// A data logger in a folder of its own, on time that moves by hand.
#pragma once

#include "support/HandClockScope.h"
#include "support/LogCapture.h"
#include "support/TemporaryDirectory.h"

#include <velmor/kepla/datalogger/DataLoggerReader.h>
#include <velmor/kepla/datalogger/SqliteDataLogger.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>

namespace libfieldwarden::test {

/// What a test of the data logger begins with. The hand clock begins on 2023-05-24 00:00:00 UTC.
class DataLoggerFixture : public testing::Test {
protected:
    using Info = velmor::kepla::datalogger::DataLoggerChannelInfo;
    using Reader = velmor::kepla::datalogger::DataLoggerReader;
    using Sample = velmor::kepla::datalogger::DataLoggerSample;
    using Stats = velmor::kepla::datalogger::DataLoggerStats;
    using Status = velmor::kepla::datalogger::DataLoggerStatusCode;
    using Storage = velmor::kepla::datalogger::DataLoggerStorageType;
    using Store = velmor::kepla::datalogger::SqliteDataLogger;
    using Time = std::chrono::system_clock::time_point;
    using Unit = velmor::kepla::datalogger::DataLoggerUnit;

    static Info info(std::string const& aName,
                     Storage aStorage = Storage::ShortTerm,
                     Stats aStats = Stats::none()) {
        return {{"test", aName}, Unit::Kelvin, aStats, aStorage, "A test of " + aName};
    }

    void open(Store::Options const& aOptions = {}) {
        logger = std::make_unique<Store>(file, aOptions);
        clock->awaitWaiters(1);
    }

    /// Moves the time on by a second and waits until the writer has done its turn.
    void turn() { pass(std::chrono::seconds(1)); }

    void pass(std::chrono::nanoseconds aTime) {
        clock->advance(aTime);
        clock->awaitWaiters(1);
    }

    std::vector<Sample> samples(std::string const& aName) const {
        std::vector<Sample> found;
        Reader(file).samples("test/" + aName, {}, [&](Sample const& aSample) {
            found.push_back(aSample);
            return true;
        });
        return found;
    }

    std::vector<double> values(std::string const& aName) const {
        std::vector<double> found;
        for (Sample const& sample : samples(aName)) {
            found.push_back(sample.value);
        }
        return found;
    }

    Time now() const { return clock->systemNow(); }

    LogCapture log;
    HandClockScope clock;
    TemporaryDirectory folder;
    std::filesystem::path file = folder.path() / "datalogger.sqlite";
    std::unique_ptr<Store> logger;
};

} // namespace libfieldwarden::test
