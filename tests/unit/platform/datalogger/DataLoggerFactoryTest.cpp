// SPDX-License-Identifier: Apache-2.0
// Whose data logger the factory hands out.
#include "support/FakeBackend.h"

#include <velmor/kepla/datalogger/DataLoggerFactory.h>
#include <velmor/kepla/datalogger/NullDataLogger.h>

#include <memory>
#include <stdexcept>

#include <gmock/gmock.h>

namespace {

using libfieldwarden::test::FakeBackendScope;
using velmor::kepla::datalogger::DataLoggerFactory;
using velmor::kepla::datalogger::DataLoggerStats;
using velmor::kepla::datalogger::DataLoggerStorageType;
using velmor::kepla::datalogger::DataLoggerUnit;
using velmor::kepla::datalogger::NullDataLogger;

TEST(DataLoggerFactory, GivesTheBackendsDataLogger) {
    FakeBackendScope const backend;
    auto logger = std::make_shared<NullDataLogger>();
    backend->dataLoggerDoor = [&] { return logger; };
    EXPECT_EQ(DataLoggerFactory(false).channelCreator(), logger);
}

TEST(DataLoggerFactory, PassesOnThatTheStoreCannotBeOpened) {
    FakeBackendScope const backend;
    backend->dataLoggerDoor = []() -> std::shared_ptr<NullDataLogger> {
        throw std::runtime_error("no store");
    };
    EXPECT_THROW(DataLoggerFactory(false).channelCreator(), std::runtime_error);
}

TEST(DataLoggerFactory, AsksNobodyWhenNothingIsToBeKept) {
    FakeBackendScope const backend; // strict: every door throws
    auto const channel =
        DataLoggerFactory(true).channelCreator()->createChannel({{"lock", "locked"},
                                                                 DataLoggerUnit::Boolean,
                                                                 DataLoggerStats::none(),
                                                                 DataLoggerStorageType::ShortTerm,
                                                                 ""});
    ASSERT_NE(channel, nullptr);
    EXPECT_NO_THROW(channel->push(1.0, {}));
}

} // namespace
