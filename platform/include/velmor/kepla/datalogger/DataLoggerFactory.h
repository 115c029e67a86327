// SPDX-License-Identifier: Apache-2.0
// The way to the data logger.
#pragma once

#include <velmor/kepla/datalogger/DataLoggerInterface.h>

#include <memory>

namespace velmor::kepla::datalogger {

/// Makes clients of the data logger.
class DataLoggerFactory {
public:
    /// @param aDiscard  Whether nothing shall be kept: channels are made and swallow what is pushed. False
    ///                  for the data logger of the process's backend.
    explicit DataLoggerFactory(bool aDiscard);
    ~DataLoggerFactory() = default;

    /// Any thread; may block while the store opens.
    /// @return The data logger; it outlives the factory.
    /// @throws std::runtime_error  when the store cannot be opened; the words name the file and the reason.
    std::shared_ptr<DataLoggerInterface> channelCreator() const;

private:
    bool mDiscard;
};

} // namespace velmor::kepla::datalogger
