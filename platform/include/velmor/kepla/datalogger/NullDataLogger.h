// SPDX-License-Identifier: Apache-2.0
// A data logger for those who want nothing kept.
#pragma once

#include <velmor/kepla/datalogger/DataLoggerInterface.h>

#include <memory>

namespace velmor::kepla::datalogger {

/// Makes channels that swallow what is pushed. Any thread.
class NullDataLogger final : public DataLoggerInterface {
public:
    std::shared_ptr<DataLoggerChannelIfc> createChannel(DataLoggerChannelInfo const& aInfo) override;
};

} // namespace velmor::kepla::datalogger
