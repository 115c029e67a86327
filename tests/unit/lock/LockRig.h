// SPDX-License-Identifier: Apache-2.0
// What the tests of the lock's workflows share: a sequencer in memory with a clock that leaps, a data logger,
// and streams that only note what they are asked for.
#pragma once

#include "lock/LockAcquisitionsIfc.h"
#include "lock/hardware/LockHardwareHelper.h"

#include "support/FakeDataLogger.h"
#include "support/FakeLockHardware.h"
#include "support/LeapClock.h"
#include "support/LogCapture.h"

#include <velmor/platform/Clock.h>

#include <chrono>
#include <functional>
#include <limits>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace libfieldwarden::test {

/// Makes a leaping clock the process's clock, from construction to destruction.
class LeapClockScope {
public:
    LeapClockScope()
        : mFormer(velmor::platform::Clock::use(mClock)) {}
    ~LeapClockScope() { velmor::platform::Clock::use(mFormer); }
    LeapClockScope(LeapClockScope const&) = delete;
    LeapClockScope& operator=(LeapClockScope const&) = delete;

    LeapClock* operator->() const noexcept { return mClock.get(); }

private:
    std::shared_ptr<LeapClock> mClock = std::make_shared<LeapClock>();
    std::shared_ptr<velmor::platform::Clock> mFormer;
};

/// Notes dumps and measurements in the sequencer's journal, as "dump NAME" and "measure slope".
class NotedAcquisitions : public libfieldwarden::lock::LockAcquisitionsIfc {
public:
    explicit NotedAcquisitions(std::shared_ptr<LockJournal> aJournal)
        : mJournal(std::move(aJournal)) {}

    void dumpFFTandFID(std::string const& aName) override {
        mJournal->add("dump " + aName);
        if (onDump) {
            onDump(aName);
        }
    }
    double fftSlopeAt0Crossing() override {
        mJournal->add("measure slope");
        return slope;
    }

    double slope = 1000.0;
    std::function<void(std::string const&)> onDump;

private:
    std::shared_ptr<LockJournal> mJournal;
};

/// A quiet instrument: each acquisition takes 30 ms and has a strong FID at 0 Hz.
struct LockRig {
    LockRig() {
        hardware->onCycle([this] {
            clock->sleepFor(cycle);
            if (onCycle) {
                onCycle();
            }
        });
        hardware->registers.maxSliceMagnitude->hold(kStrong);
    }

    /// The journal so far, short: the accesses of a wait for an acquisition are one "await FID done", those
    /// of a look at its magnitude one "look for FID".
    std::vector<std::string> takeJournal() {
        std::vector<std::string> shortened;
        for (std::string const& text : hardware->takeJournal()) {
            if (text == "set status/fid_done = 1" || text == "set irq/fid_done_mask = 0" ||
                text == "set irq/fid_done_mask = 1" || text.starts_with("get status/fid_done = ")) {
                continue;
            }
            if (text.starts_with("get data/max_slice_magnitude = ") && !shortened.empty() &&
                shortened.back().starts_with("get data/fid_shift = ")) {
                shortened.back() = "look for FID";
            } else {
                shortened.push_back(text == "waitForIRQ(1000 ms)" ? "await FID done" : text);
            }
        }
        return shortened;
    }

    /// The same without the reads of registers.
    std::vector<std::string> takeActions() {
        auto lines = takeJournal();
        std::erase_if(lines, [](std::string const& aLine) {
            return aLine.starts_with("get ") || aLine == "look for FID";
        });
        return lines;
    }

    /// The values of all samples of a channel.
    std::vector<double> pushed(std::string const& aChannel) const {
        std::vector<double> values;
        for (auto const& push : dataLogger->pushes(aChannel)) {
            values.push_back(push.value);
        }
        return values;
    }

    static constexpr long long kStrong = std::numeric_limits<long long>::max();
    inline static LockWait const kSilence{LockWait::Kind::Silence, std::chrono::milliseconds(0), {}, {}};

    LogCapture log;
    LeapClockScope clock;
    std::chrono::milliseconds cycle{30};
    std::function<void()> onCycle;
    std::shared_ptr<FakeLockHardware> hardware = std::make_shared<FakeLockHardware>();
    std::shared_ptr<FakeDataLogger> dataLogger = std::make_shared<FakeDataLogger>();
    std::shared_ptr<LockHardwareHelper> helper = std::make_shared<LockHardwareHelper>(hardware, dataLogger);
    std::shared_ptr<NotedAcquisitions> streams =
        std::make_shared<NotedAcquisitions>(hardware->registers.journal);
};

} // namespace libfieldwarden::test
