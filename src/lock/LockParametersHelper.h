// SPDX-License-Identifier: Apache-2.0
// Records the lock's parameters in the data logger.
#pragma once

#include <velmor/kepla/datalogger/DataLoggerUnit.h>
#include <velmor/kepla/log/Logger.h>

#include <chrono>
#include <memory>
#include <string>

class LockParametersInterface;
class LockParametersPIDSet;
namespace velmor::kepla::datalogger {
class DataLoggerInterface;
}

/// Writes down which parameters a lock start ran with. A data logger that fails never stops the caller. One
/// thread at a time; nothing blocks.
class LockParametersHelper : private virtual velmor::kepla::log::Logger {
public:
    LockParametersHelper(std::shared_ptr<LockParametersInterface> aParameters,
                         std::shared_ptr<velmor::kepla::datalogger::DataLoggerInterface> aDataLogger);

    /// Pushes all parameters, each to its channel, with one time.
    void pushLockParametersToDataLogger();

    /// Pushes the three terms of a set, with the time of the last pushLockParametersToDataLogger().
    /// @param name  The set's name, in the channels and for people.
    /// @param set   The set.
    void pushPID(std::string const& name, std::shared_ptr<LockParametersPIDSet> const& set) const;

    /// Makes a channel below "lock/parameters" and pushes one value, with the time of the last
    /// pushLockParametersToDataLogger().
    /// @param name         The channel's name; may hold several levels.
    /// @param unit         The value's unit.
    /// @param value        The value.
    /// @param description  A sentence for people.
    void createChannelPush(std::string const& name,
                           velmor::kepla::datalogger::DataLoggerUnit unit,
                           double value,
                           std::string const& description) const;

private:
    void pushUseComputed(std::string const& aDescription) const;

    std::shared_ptr<LockParametersInterface> mParameters;
    std::shared_ptr<velmor::kepla::datalogger::DataLoggerInterface> mDataLogger;
    std::string const mSection = "lock";
    std::string const mGroup = "parameters";
    std::chrono::system_clock::time_point mTimestamp;
};
