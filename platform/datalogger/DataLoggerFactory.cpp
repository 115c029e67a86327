// SPDX-License-Identifier: Apache-2.0
// Asks the backend for its data logger, or gives the one that keeps nothing.
#include <velmor/kepla/datalogger/DataLoggerFactory.h>

#include <velmor/kepla/datalogger/NullDataLogger.h>
#include <velmor/platform/Backend.h>

namespace velmor::kepla::datalogger {

DataLoggerFactory::DataLoggerFactory(bool aDiscard)
    : mDiscard(aDiscard) {}

std::shared_ptr<DataLoggerInterface> DataLoggerFactory::channelCreator() const {
    if (mDiscard) {
        return std::make_shared<NullDataLogger>();
    }
    return velmor::platform::Backend::current()->dataLogger();
}

} // namespace velmor::kepla::datalogger
