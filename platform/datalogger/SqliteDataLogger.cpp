// SPDX-License-Identifier: Apache-2.0
// Channels in front of the writer that they share.
#include <velmor/kepla/datalogger/SqliteDataLogger.h>

#include "Layout.h"
#include "SampleWriter.h"

#include <utility>

namespace velmor::kepla::datalogger {

namespace {

/// Keeps the writer alive: services let go of the data logger once they have their channels.
class SqliteChannel final : public DataLoggerChannelIfc {
public:
    SqliteChannel(std::shared_ptr<SampleWriter> aWriter, std::uint32_t aIndex)
        : mWriter(std::move(aWriter))
        , mIndex(aIndex) {}

    void push(double aValue,
              std::chrono::system_clock::time_point aTime,
              DataLoggerStatusCode aStatus) noexcept override {
        mWriter->push({toFileTime(aTime), aValue, mIndex, aStatus});
    }

private:
    std::shared_ptr<SampleWriter> mWriter;
    std::uint32_t mIndex;
};

} // namespace

SqliteDataLogger::SqliteDataLogger(std::filesystem::path const& aPath, Options const& aOptions)
    : mWriter(std::make_shared<SampleWriter>(aPath, aOptions)) {}

SqliteDataLogger::~SqliteDataLogger() = default;

std::shared_ptr<DataLoggerChannelIfc> SqliteDataLogger::createChannel(DataLoggerChannelInfo const& aInfo) {
    return std::make_shared<SqliteChannel>(mWriter, mWriter->describe(aInfo));
}

std::uint64_t SqliteDataLogger::lostSamples() const noexcept {
    return mWriter->lostSamples();
}

} // namespace velmor::kepla::datalogger
