// SPDX-License-Identifier: Apache-2.0
// Channels that swallow what is pushed.
#include <velmor/kepla/datalogger/NullDataLogger.h>

namespace velmor::kepla::datalogger {

namespace {

class NullChannel final : public DataLoggerChannelIfc {
public:
    void push(double /*aValue*/,
              std::chrono::system_clock::time_point /*aTime*/,
              DataLoggerStatusCode /*aStatus*/) noexcept override {}
};

} // namespace

std::shared_ptr<DataLoggerChannelIfc> NullDataLogger::createChannel(DataLoggerChannelInfo const& /*aInfo*/) {
    return std::make_shared<NullChannel>();
}

} // namespace velmor::kepla::datalogger
