// SPDX-License-Identifier: Apache-2.0
// CAN sockets without a kernel: every system call can be made to fail with any error number.
#pragma once

#include <velmor/kepla/canopen/CanSocketApi.h>
#include <velmor/platform/Clock.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include <linux/can/raw.h>
#include <net/if.h>
#include <sys/socket.h>
#include <sys/time.h>

namespace libfieldwarden::test {

/// One interface, "can0", up and running unless told otherwise. A wait moves the process's clock.
class FakeCanSockets final : public velmor::kepla::canopen::CanSocketApi {
public:
    /// The system calls that can fail.
    enum class Call { Open, Index, Flags, Option, Bind, Read, Write, Poll };

    /// Makes the next calls fail with these error numbers, one after the other; 0 lets one pass.
    void failNext(Call aCall, std::deque<int> aErrors) { mFailures[aCall] = std::move(aErrors); }

    /// Makes every call fail with this error number from now on; 0 ends that.
    void failAlways(Call aCall, int aError) { mAlways[aCall] = aError; }

    void setInterface(bool aExists, bool aUp, bool aRunning) {
        mExists = aExists;
        mUp = aUp;
        mRunning = aRunning;
    }

    /// Puts a frame where the next read finds it.
    void arrive(can_frame const& aFrame) { mIncoming.push_back(aFrame); }
    void arrive(canid_t aId, std::vector<std::uint8_t> const& aData) {
        can_frame frame{};
        frame.can_id = aId;
        frame.len = static_cast<std::uint8_t>(aData.size());
        std::copy(aData.begin(), aData.end(), frame.data);
        arrive(frame);
    }

    std::vector<can_frame> sent;                        ///< What went out.
    unsigned dropped = 0;                               ///< The kernel's count of dropped frames.
    int openSockets = 0;                                ///< Now.
    int socketsMade = 0;                                ///< In all.
    std::vector<can_filter> filters;                    ///< Of the last socket.
    can_err_mask_t errorMask = 0;                       ///< Of the last socket.
    bool tellsDrops = false;                            ///< Of the last socket.
    velmor::platform::Clock::Duration receiveTimeout{}; ///< Of the last socket.

    int open() override {
        if (fails(Call::Open)) {
            return -1;
        }
        ++openSockets;
        return 1000 + ++socketsMade;
    }
    int interfaceIndex(int /*aSocket*/, char const* aName) override {
        if (fails(Call::Index)) {
            return -1;
        }
        if (!mExists || std::string("can0") != aName) {
            errno = ENODEV;
            return -1;
        }
        return 3;
    }
    int interfaceFlags(int /*aSocket*/, char const* /*aName*/) override {
        return fails(Call::Flags) ? -1 : (mUp ? IFF_UP : 0) | (mRunning ? IFF_RUNNING : 0);
    }
    int setOption(int /*aSocket*/, int aLevel, int aOption, void const* aValue, unsigned aSize) override {
        if (fails(Call::Option)) {
            return -1;
        }
        if (aLevel == SOL_CAN_RAW && aOption == CAN_RAW_FILTER) {
            filters.resize(aSize / sizeof(can_filter));
            std::memcpy(filters.data(), aValue, aSize);
        } else if (aLevel == SOL_CAN_RAW && aOption == CAN_RAW_ERR_FILTER) {
            std::memcpy(&errorMask, aValue, sizeof(errorMask));
        } else if (aLevel == SOL_SOCKET && aOption == SO_RXQ_OVFL) {
            tellsDrops = true;
        } else if (aLevel == SOL_SOCKET && aOption == SO_RCVTIMEO) {
            timeval time{};
            std::memcpy(&time, aValue, sizeof(time));
            receiveTimeout = std::chrono::seconds(time.tv_sec) + std::chrono::microseconds(time.tv_usec);
        }
        return 0;
    }
    int bind(int /*aSocket*/, int /*aInterfaceIndex*/) override { return fails(Call::Bind) ? -1 : 0; }
    ssize_t read(int /*aSocket*/, bool aWait, can_frame& aFrame, unsigned& aDropped) override {
        if (fails(Call::Read)) {
            return -1;
        }
        if (mIncoming.empty()) {
            if (aWait) {
                velmor::platform::Clock::current().sleepFor(receiveTimeout);
            }
            errno = EAGAIN;
            return -1;
        }
        aFrame = mIncoming.front();
        mIncoming.pop_front();
        aDropped = dropped;
        return sizeof(aFrame);
    }
    ssize_t write(int /*aSocket*/, can_frame const& aFrame) override {
        if (fails(Call::Write)) {
            return -1;
        }
        sent.push_back(aFrame);
        return sizeof(aFrame);
    }
    int poll(pollfd* aEntries, nfds_t aCount, int aTimeoutMs) override {
        if (fails(Call::Poll)) {
            return -1;
        }
        int ready = 0;
        if (!mIncoming.empty() || !mFailures[Call::Read].empty() || mAlways[Call::Read] != 0) {
            aEntries[0].revents = POLLIN;
            ++ready;
        }
        if (aCount > 1) { // The second descriptor is a real one.
            ready += ::poll(aEntries + 1, aCount - 1, 0);
        }
        if (ready == 0) {
            velmor::platform::Clock::current().sleepFor(std::chrono::milliseconds(aTimeoutMs));
        }
        return ready;
    }
    int close(int /*aSocket*/) override {
        --openSockets;
        return 0;
    }

private:
    bool fails(Call aCall) {
        int error = mAlways[aCall];
        if (auto& next = mFailures[aCall]; error == 0 && !next.empty()) {
            error = next.front();
            next.pop_front();
        }
        errno = error;
        return error != 0;
    }

    std::map<Call, std::deque<int>> mFailures;
    std::map<Call, int> mAlways;
    std::deque<can_frame> mIncoming;
    bool mExists = true;
    bool mUp = true;
    bool mRunning = true;
};

} // namespace libfieldwarden::test
