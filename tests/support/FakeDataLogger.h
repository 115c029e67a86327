// SPDX-License-Identifier: Apache-2.0
// A data logger that a test can look into.
#pragma once

#include <velmor/kepla/datalogger/DataLoggerInterface.h>

#include <chrono>
#include <map>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace libfieldwarden::test {

/// Remembers every channel that was made and all that was pushed. Any thread.
class FakeDataLogger : public velmor::kepla::datalogger::DataLoggerInterface {
public:
    using Info = velmor::kepla::datalogger::DataLoggerChannelInfo;
    using Status = velmor::kepla::datalogger::DataLoggerStatusCode;

    /// One sample.
    struct Push {
        double value;
        std::chrono::system_clock::time_point time;
        Status status = Status::Good;

        bool operator==(Push const&) const = default;
    };

    std::shared_ptr<velmor::kepla::datalogger::DataLoggerChannelIfc> createChannel(
        Info const& aInfo) override {
        if (aInfo.name() == refused) {
            throw std::runtime_error("no channel " + refused);
        }
        auto channel = std::make_shared<Channel>();
        std::lock_guard const lock(mMutex);
        mInfos.push_back(aInfo);
        mChannels[aInfo.name()] = channel;
        return channel;
    }

    std::string refused; ///< Name of the channel that cannot be made; set before it is asked for.

    /// The descriptions of all channels, in the order of their making.
    std::vector<Info> infos() {
        std::lock_guard const lock(mMutex);
        return mInfos;
    }

    /// What was pushed to the channel of a name, its path joined with "/"; a channel that was never made
    /// fails the test.
    std::vector<Push> pushes(std::string const& aName) {
        std::lock_guard const lock(mMutex);
        auto const found = mChannels.find(aName);
        if (found == mChannels.end()) {
            ADD_FAILURE() << "no such channel: " << aName;
            return {};
        }
        return found->second->pushes();
    }

private:
    class Channel : public velmor::kepla::datalogger::DataLoggerChannelIfc {
    public:
        void push(double aValue,
                  std::chrono::system_clock::time_point aTime,
                  Status aStatus) noexcept override {
            std::lock_guard const lock(mMutex);
            mPushes.push_back({aValue, aTime, aStatus});
        }
        std::vector<Push> pushes() {
            std::lock_guard const lock(mMutex);
            return mPushes;
        }

    private:
        std::mutex mMutex;
        std::vector<Push> mPushes;
    };

    std::mutex mMutex;
    std::vector<Info> mInfos;
    std::map<std::string, std::shared_ptr<Channel>> mChannels;
};

} // namespace libfieldwarden::test
