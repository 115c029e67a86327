// SPDX-License-Identifier: Apache-2.0
// A lock sequencer in memory: registers that a test fills and scripts, interrupts on demand, and one journal
// of everything that was done to it.
#pragma once

#include "lock/hardware/LockHardwareInterface.h"

#include <velmor/platform/HandClock.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <istream>
#include <iterator>
#include <limits>
#include <map>
#include <memory>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include <fmt/format.h>
#include <gtest/gtest.h>

namespace libfieldwarden::test {

/// A function whose copies share their state, so that a mutable lambda goes on where it was.
template <typename Result, typename... Arguments>
std::function<Result(Arguments...)> sharing(std::function<Result(Arguments...)> aFunction) {
    if (!aFunction) {
        return nullptr;
    }
    return [shared = std::make_shared<std::function<Result(Arguments...)>>(std::move(aFunction))](
               Arguments... aArguments) { return (*shared)(aArguments...); };
}

/// The lines of everything that was done, in order. Any thread.
class LockJournal {
public:
    void add(std::string aLine) {
        std::lock_guard const lock(mMutex);
        mLines.push_back(std::move(aLine));
    }
    std::vector<std::string> lines() const {
        std::lock_guard const lock(mMutex);
        return mLines;
    }
    std::vector<std::string> take() {
        std::lock_guard const lock(mMutex);
        return std::exchange(mLines, {});
    }

private:
    mutable std::mutex mMutex;
    std::vector<std::string> mLines;
};

/// A register in memory, of any access: which operations the code under test can reach is decided by the
/// pointer that it has. It holds 0 at first. Any thread.
///
/// get() and set() are written into the journal as "get data/fid_shift = 10" and "set data/fid_shift = 10"
/// (clear() being a set() of all ones); what the test does to the register is not.
template <typename T>
class FakeLockRegister final : public LockHardwareRegisterClearable<T> {
public:
    /// @param aOneToClear  Whether writing ones clears them, as in the status registers.
    FakeLockRegister(std::string aName, bool aOneToClear, std::shared_ptr<LockJournal> aJournal)
        : LockHardwareRegisterReadOnly<T>(std::move(aName))
        , mOneToClear(aOneToClear)
        , mJournal(std::move(aJournal)) {}

    /// What the hardware holds from now on; ends a script.
    void hold(T aValue) {
        std::lock_guard const lock(mMutex);
        mValue = aValue;
        mSequence.clear();
        mFunction = nullptr;
    }

    /// What the hardware itself brings the register to, such as a status bit; a script goes on.
    void raise(T aValue) {
        std::lock_guard const lock(mMutex);
        mValue = aValue;
    }

    /// @return What the hardware holds.
    T value() const {
        std::lock_guard const lock(mMutex);
        return mValue;
    }

    /// The values that the next reads deliver, one each; the last is held from then on. What is written
    /// meanwhile is taken, but seen only in the journal and in onWrite().
    void script(std::vector<T> aValues) {
        std::lock_guard const lock(mMutex);
        mFunction = nullptr;
        mSequence.assign(aValues.begin(), aValues.end());
    }

    /// What makes the value of each read, on the reader's thread with nothing locked; may throw. An empty one
    /// ends it.
    void compute(std::function<T()> aFunction) {
        std::lock_guard const lock(mMutex);
        mSequence.clear();
        mFunction = sharing(std::move(aFunction));
    }

    /// Makes every read fail with a std::invalid_argument.
    void failReads(std::string const& aWords) {
        compute([aWords]() -> T { throw std::invalid_argument(aWords); });
    }

    /// What happens at each write, behind its line in the journal and behind its effect, on the writer's
    /// thread with nothing locked; may throw. An empty one ends it.
    void onWrite(std::function<void(T)> aFunction) {
        std::lock_guard const lock(mMutex);
        mOnWrite = sharing(std::move(aFunction));
    }

    T get() const override {
        T const value = read();
        mJournal->add("get " + this->name + " = " + text(value));
        return value;
    }

    void set(T aValue) override {
        mJournal->add("set " + this->name + " = " + text(aValue));
        std::function<void(T)> onWrite;
        {
            std::lock_guard const lock(mMutex);
            mValue = mOneToClear ? cleared(mValue, aValue) : aValue;
            onWrite = mOnWrite;
        }
        if (onWrite) {
            onWrite(aValue);
        }
    }

    T value4clear() const override {
        if constexpr (std::is_same_v<T, bool>) {
            return true;
        } else if constexpr (std::is_enum_v<T>) {
            return static_cast<T>(std::numeric_limits<std::underlying_type_t<T>>::max());
        } else {
            return static_cast<T>(~T{0});
        }
    }

    /// A value as the journal shows it: flags and numbers in decimal, enumerations in their words.
    static std::string text(T aValue) {
        std::ostringstream stream;
        if constexpr (std::is_same_v<T, std::uint8_t>) {
            stream << static_cast<unsigned>(aValue);
        } else {
            stream << aValue;
        }
        return stream.str();
    }

private:
    T read() const {
        std::function<T()> function;
        {
            std::lock_guard const lock(mMutex);
            if (!mFunction) {
                if (!mSequence.empty()) {
                    mValue = mSequence.front();
                    mSequence.pop_front();
                }
                return mValue;
            }
            function = mFunction;
        }
        return function();
    }

    static T cleared(T aHeld, T aOnes) {
        if constexpr (std::is_same_v<T, bool>) {
            return aHeld && !aOnes;
        } else {
            return static_cast<T>(static_cast<std::uint64_t>(aHeld) & ~static_cast<std::uint64_t>(aOnes));
        }
    }

    bool const mOneToClear;
    std::shared_ptr<LockJournal> const mJournal;
    mutable std::mutex mMutex; ///< Guards all below.
    mutable T mValue{};
    mutable std::deque<T> mSequence;
    std::function<T()> mFunction;
    std::function<void(T)> mOnWrite;
};

/// What one waitForIRQ() meets.
struct LockWait {
    enum class Kind : std::uint8_t {
        Interrupt, ///< Every source that is not masked sets its status bit.
        Foreign,   ///< An interrupt, but no status bit is set.
        Silence,   ///< No interrupt; the whole time passes.
        Failure    ///< A std::runtime_error with the words.
    };

    Kind kind = Kind::Interrupt;
    std::chrono::milliseconds after{0}; ///< Moves the hand clock; what is beyond the time-out is silence.
    std::string words;                  ///< Of the failure.
    std::function<void()> happening;    ///< Before the interrupt; runs on the waiting thread; may throw.
};

/// The lock sequencer in memory. Any thread.
///
/// A test fills and scripts the registers through `registers`, where each bears its accessor's name:
///
///     auto hardware = std::make_shared<FakeLockHardware>();
///     hardware->registers.fidShift->hold(10);
///     hardware->registers.maxSliceMagnitude->script({0, 0, 53'687'091});
///     hardware->registers.statusPllDdsUnlocked->compute([&] { return clock->now() < lockedAt; });
///     hardware->waits({{.kind = LockWait::Kind::Silence}, {.after = 30ms}});
///     ...
///     EXPECT_THAT(hardware->takeJournal(), ElementsAre("setTx(0, 0)", "set control/main_reset = 1", ...));
///
/// Lines of the journal: "setTx(75000000.5, 100)", "getTxFrequency() = 0" (Hz, as short as it is exact),
/// "loadProgram(/path)", "loadWindow(2014 bytes)", "waitForIRQ(1000 ms)", and those of the registers.
///
/// Unless told otherwise, an interrupt comes at once when at least one source is not masked, and all such
/// sources set their status bits; with all masked nothing comes and the time passes. Strict: a script for a
/// call that does not exist fails the test.
class FakeLockHardware : public LockHardwareInterface {
    // First, since the registers below are made with it.
    std::shared_ptr<LockJournal> const mJournal = std::make_shared<LockJournal>();

public:
    FakeLockHardware() = default;

    /// The registers, each under the name of its accessor.
    struct Registers {
        std::shared_ptr<LockJournal> const& journal;
// NOLINTBEGIN(bugprone-macro-parentheses): types, which cannot stand in parentheses
#define FAKE_LOCK_REGISTER(accessor, path, access, type)     \
    std::shared_ptr<FakeLockRegister<type>> const accessor = \
        std::make_shared<FakeLockRegister<type>>(path, std::string_view(#access) == "Clearable", journal);
        LOCK_REGISTERS(FAKE_LOCK_REGISTER)
#undef FAKE_LOCK_REGISTER
        // NOLINTEND(bugprone-macro-parentheses)
    };
    Registers const registers{mJournal};

    /// The clock that waits move; without one they take no time.
    void moveClock(std::shared_ptr<velmor::platform::HandClock> aClock) {
        std::lock_guard const lock(mMutex);
        mClock = std::move(aClock);
    }

    /// How long the interrupts that are not scripted take to come: moves the hand clock.
    void setCycle(std::chrono::milliseconds aCycle) {
        std::lock_guard const lock(mMutex);
        mUsual.after = aCycle;
    }

    /// What happens at the end of each cycle, so before each interrupt that is not scripted, on the waiting
    /// thread with nothing locked: the place for a model that makes peak and magnitude out of what was set.
    void onCycle(std::function<void()> aWhat) {
        std::lock_guard const lock(mMutex);
        mUsual.happening = sharing(std::move(aWhat));
    }

    /// What the next waits meet, one each; after them comes what is usual.
    void waits(std::vector<LockWait> aWaits) {
        std::lock_guard const lock(mMutex);
        mWaits.assign(std::make_move_iterator(aWaits.begin()), std::make_move_iterator(aWaits.end()));
    }

    /// What answers every waitForIRQ() instead of all else; an empty one ends it.
    void onWait(std::function<bool(std::chrono::milliseconds)> aWhat) {
        std::lock_guard const lock(mMutex);
        mOnWait = sharing(std::move(aWhat));
    }

    /// What happens at a call, behind its line in the journal and before its effect, on the caller's thread
    /// with nothing locked; may throw anything. An empty one ends it.
    /// @param aCall  "setTx", "getTxFrequency", "loadProgram", "loadWindow" or "waitForIRQ".
    void onCall(std::string const& aCall, std::function<void()> aWhat) {
        static constexpr std::array kCalls{"setTx", "getTxFrequency", "loadProgram", "loadWindow",
                                           "waitForIRQ"};
        EXPECT_NE(std::find(kCalls.begin(), kCalls.end(), aCall), kCalls.end()) << "no such call: " << aCall;
        std::lock_guard const lock(mMutex);
        mOnCall[aCall] = sharing(std::move(aWhat));
    }

    /// Makes a call fail with a std::runtime_error.
    void fail(std::string const& aCall, std::string const& aWords) {
        onCall(aCall, [aWords] { throw std::runtime_error(aWords); });
    }

    /// Everything that was done so far.
    std::vector<std::string> journal() const {
        return mJournal->lines();
    }

    /// Everything that was done since the last question.
    std::vector<std::string> takeJournal() {
        return mJournal->take();
    }

    /// The same without the reads of registers.
    std::vector<std::string> takeActions() {
        std::vector<std::string> lines = mJournal->take();
        std::erase_if(lines, [](std::string const& aLine) { return aLine.starts_with("get "); });
        return lines;
    }

    /// @return The transmitter's amplitude in mVpp.
    unsigned int txAmplitude() const {
        std::lock_guard const lock(mMutex);
        return mAmplitude;
    }

    /// @return The transmitter's frequency in Hz, in its steps; no line in the journal.
    double txFrequency() const {
        std::lock_guard const lock(mMutex);
        return frequencyOf(mFrequencyWord);
    }

    /// @return What the last loadWindow() was given.
    std::string window() const {
        std::lock_guard const lock(mMutex);
        return mWindow;
    }

    void setTx(double aFreqHz, unsigned int aMVpp) override {
        enter("setTx", fmt::format("setTx({}, {})", aFreqHz, aMVpp));
        std::lock_guard const lock(mMutex);
        mFrequencyWord = static_cast<std::uint32_t>(std::llround(aFreqHz / kSynthesiserHz * kWords));
        mAmplitude = aMVpp;
    }

    double getTxFrequency() const override {
        double const frequency = txFrequency();
        enter("getTxFrequency", fmt::format("getTxFrequency() = {}", frequency));
        return frequency;
    }

    void loadProgram(std::string const& aPath) override {
        enter("loadProgram", "loadProgram(" + aPath + ")");
    }

    void loadWindow(std::istream& aStream) override {
        std::string bytes((std::istreambuf_iterator<char>(aStream)), std::istreambuf_iterator<char>());
        enter("loadWindow", fmt::format("loadWindow({} bytes)", bytes.size()));
        std::lock_guard const lock(mMutex);
        mWindow = std::move(bytes);
    }

    bool waitForIRQ(std::chrono::milliseconds const& aTimeout) override {
        std::chrono::milliseconds const timeout = aTimeout;
        enter("waitForIRQ", fmt::format("waitForIRQ({} ms)", timeout.count()));
        LockWait meets;
        {
            std::unique_lock lock(mMutex);
            if (mOnWait) {
                auto const onWait = mOnWait;
                lock.unlock();
                return onWait(timeout);
            }
            meets = mUsual;
            if (!mWaits.empty()) {
                meets = std::move(mWaits.front());
                mWaits.pop_front();
            }
        }
        return meet(meets, timeout);
    }

// NOLINTBEGIN(bugprone-macro-parentheses)
#define FAKE_LOCK_ACCESSOR(accessor, path, access, type)                                      \
    std::shared_ptr<libfieldwarden::lock::access##Register<type>> accessor() const override { \
        return registers.accessor;                                                            \
    }
    LOCK_REGISTERS(FAKE_LOCK_ACCESSOR)
#undef FAKE_LOCK_ACCESSOR
    // NOLINTEND(bugprone-macro-parentheses)

private:
    static constexpr double kSynthesiserHz = 480'000'000.0;
    static constexpr double kWords = 4'294'967'296.0;

    static double frequencyOf(std::uint32_t aWord) {
        return static_cast<double>(aWord) * kSynthesiserHz / kWords;
    }

    void enter(std::string const& aCall, std::string aLine) const {
        mJournal->add(std::move(aLine));
        std::function<void()> happening;
        {
            std::lock_guard const lock(mMutex);
            if (auto const found = mOnCall.find(aCall); found != mOnCall.end()) {
                happening = found->second;
            }
        }
        if (happening) {
            happening();
        }
    }

    void pass(std::chrono::milliseconds aTime) {
        std::shared_ptr<velmor::platform::HandClock> clock;
        {
            std::lock_guard const lock(mMutex);
            clock = mClock;
        }
        if (clock && aTime.count() > 0) {
            clock->advance(aTime);
        }
    }

    bool meet(LockWait const& aWait, std::chrono::milliseconds aTimeout) {
        if (aWait.kind == LockWait::Kind::Silence || aWait.after > aTimeout) {
            pass(aTimeout);
            return false;
        }
        pass(aWait.after);
        if (aWait.happening) {
            aWait.happening();
        }
        switch (aWait.kind) {
            case LockWait::Kind::Failure:
                throw std::runtime_error(aWait.words);
            case LockWait::Kind::Foreign:
                return true;
            case LockWait::Kind::Interrupt:
            case LockWait::Kind::Silence:
                break;
        }
        if (!raiseUnmasked()) {
            pass(aTimeout - aWait.after);
            return false;
        }
        return true;
    }

    /// @return Whether there was a source that is not masked.
    bool raiseUnmasked() {
        std::array const sources{
            std::pair{registers.irqMaskAdcPllUnlocked.get(), registers.statusAdcPllUnlocked.get()},
            std::pair{registers.irqMaskPllDdsUnlocked.get(), registers.statusPllDdsUnlocked.get()},
            std::pair{registers.irqMaskPllDdsProfileUpdateBusyError.get(),
                      registers.statusPllDdsProfileUpdateBusyError.get()},
            std::pair{registers.irqMaskPllDdsIoUpdateBusyError.get(),
                      registers.statusPllDdsIoUpdateBusyError.get()},
            std::pair{registers.irqMaskDcCompOutOfRange.get(), registers.statusDcCompOutOfRange.get()},
            std::pair{registers.irqMaskSeqInstrMemAccessError.get(),
                      registers.statusSeqInstrMemeAccessError.get()},
            std::pair{registers.irqMaskSeqError.get(), registers.statusSeqError.get()},
            std::pair{registers.irqMaskPidOveflow.get(), registers.statusPidOverflow.get()},
            std::pair{registers.irqMaskFidOverflow.get(), registers.statusFidOverflow.get()},
            std::pair{registers.irqMaskFidDone.get(), registers.statusFidDone.get()},
        };
        bool raised = false;
        for (auto const& [mask, status] : sources) {
            if (mask->value()) {
                status->raise(true);
                raised = true;
            }
        }
        return raised;
    }

    mutable std::mutex mMutex; ///< Guards all below.
    std::shared_ptr<velmor::platform::HandClock> mClock;
    LockWait mUsual;
    std::deque<LockWait> mWaits;
    std::function<bool(std::chrono::milliseconds)> mOnWait;
    std::map<std::string, std::function<void()>> mOnCall;
    std::uint32_t mFrequencyWord = 0;
    unsigned int mAmplitude = 0;
    std::string mWindow;
};

} // namespace libfieldwarden::test
