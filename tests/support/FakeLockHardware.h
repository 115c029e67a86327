// SPDX-License-Identifier: Apache-2.0
// A lock sequencer in memory, which writes down all that is done to it, in one order.
#pragma once

#include "lock/hardware/LockHardwareInterface.h"

#include <cmath>
#include <cstdint>
#include <deque>
#include <functional>
#include <iterator>
#include <limits>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace libfieldwarden::test {

/// What was done, in order: "pid/p_term = 7", "status/fid_done clear", "setTx 75.1 100", "waitForIRQ 1000".
/// Reads are written down only on request, as "read data/fid_shift". Any thread.
class LockJournal {
public:
    void add(std::string aEntry) {
        std::lock_guard const lock(mMutex);
        mEntries.push_back(std::move(aEntry));
    }
    std::vector<std::string> entries() const {
        std::lock_guard const lock(mMutex);
        return mEntries;
    }
    /// The entries that begin so.
    std::vector<std::string> entries(std::string const& aPrefix) const {
        std::vector<std::string> found;
        for (std::string const& entry : entries()) {
            if (entry.starts_with(aPrefix)) {
                found.push_back(entry);
            }
        }
        return found;
    }
    void clear() {
        std::lock_guard const lock(mMutex);
        mEntries.clear();
    }

    bool reads = false; ///< Whether reads are written down, too; set before threads run.

private:
    mutable std::mutex mMutex;
    std::vector<std::string> mEntries;
};

/// A register in memory. Holds 0 at first; a status is 0 once it has been cleared.
template <typename T>
class FakeLockRegister : public virtual LockHardwareRegisterClearable<T> {
public:
    FakeLockRegister(std::string aName, LockJournal& aJournal)
        : LockHardwareRegisterReadOnly<T>(std::move(aName))
        , mJournal(aJournal) {}

    T get() const override {
        if (mJournal.reads) {
            mJournal.add("read " + this->name);
        }
        std::unique_lock lock(mMutex);
        if (mFunction) {
            auto const function = mFunction;
            lock.unlock();
            return function();
        }
        if (!mNext.empty()) {
            T const value = mNext.front();
            mNext.pop_front();
            return value;
        }
        return mValue;
    }
    void set(T aValue) override {
        mJournal.add(this->name + " = " + text(aValue));
        hold(aValue);
    }
    T value4clear() const override {
        if constexpr (std::is_same_v<T, bool>) {
            return true;
        } else if constexpr (std::is_enum_v<T>) {
            return static_cast<T>(std::numeric_limits<std::underlying_type_t<T>>::max());
        } else {
            return static_cast<T>(~T{});
        }
    }

    /// What it holds from now on.
    void hold(T aValue) {
        std::lock_guard const lock(mMutex);
        mValue = aValue;
    }
    /// What it holds, without a read.
    T held() const {
        std::lock_guard const lock(mMutex);
        return mValue;
    }
    /// The next reads deliver these, one each, before what it holds.
    void next(std::vector<T> const& aValues) {
        std::lock_guard const lock(mMutex);
        mNext.insert(mNext.end(), aValues.begin(), aValues.end());
    }
    /// Every read asks this function; empty to end that.
    void ask(std::function<T()> aFunction) {
        std::lock_guard const lock(mMutex);
        mFunction = std::move(aFunction);
    }

private:
    static std::string text(T aValue) {
        std::ostringstream stream;
        if constexpr (std::is_same_v<T, bool>) {
            stream << (aValue ? 1 : 0);
        } else if constexpr (std::is_enum_v<T>) {
            stream << static_cast<int>(aValue);
        } else {
            stream << static_cast<long long>(aValue);
        }
        return stream.str();
    }

    LockJournal& mJournal;
    mutable std::mutex mMutex;
    mutable std::deque<T> mNext;
    std::function<T()> mFunction;
    T mValue{};
};

/// A status register whose bits go when ones are written to them, as the hardware's do.
template <typename T>
class FakeStatusRegister final : public FakeLockRegister<T> {
public:
    FakeStatusRegister(std::string const& aName, LockJournal& aJournal)
        : LockHardwareRegisterReadOnly<T>(aName)
        , FakeLockRegister<T>(aName, aJournal)
        , mJournal(aJournal) {}

    void set(T aValue) override {
        if (aValue == this->value4clear()) {
            mJournal.add(this->name + " clear");
            this->hold(T{});
        } else {
            FakeLockRegister<T>::set(aValue);
        }
    }

private:
    LockJournal& mJournal;
};

/// The sequencer. An interrupt comes at once, unless a test says otherwise: waitForIRQ() then sets the status
/// of every source whose mask is 1, calls `onAcquisition` and returns true.
class FakeLockHardware final : public LockHardwareInterface {
public:
    LockJournal journal;

    /// What waitForIRQ() does in place of that; gets its time-out.
    std::function<bool(std::chrono::milliseconds)> irq;
    /// Called when an acquisition is done, before waitForIRQ() returns.
    std::function<void()> onAcquisition = [] {};
    /// Called with the frequency in Hz after it was set.
    std::function<void(double)> onTx = [](double) {};
    /// Called with the path of a program after it was loaded.
    std::function<void(std::string const&)> onProgram = [](std::string const&) {};

    void setTx(double aFreqHz, unsigned int aMVpp) override {
        std::ostringstream entry;
        entry.precision(17);
        entry << "setTx " << aFreqHz << ' ' << aMVpp;
        journal.add(entry.str());
        {
            std::lock_guard const lock(mMutex);
            mTxHz = aFreqHz;
        }
        onTx(aFreqHz);
    }
    /// The frequency in the steps of the synthesiser, as the hardware answers.
    double getTxFrequency() const override {
        std::lock_guard const lock(mMutex);
        return std::round(mTxHz / kStepHz) * kStepHz;
    }
    void loadProgram(std::string const& aPath) override {
        journal.add("loadProgram " + aPath);
        onProgram(aPath);
    }
    void loadWindow(std::istream& aStream) override {
        std::string content{std::istreambuf_iterator<char>(aStream), std::istreambuf_iterator<char>()};
        journal.add("loadWindow " + std::to_string(content.size()) + " bytes");
        std::lock_guard const lock(mMutex);
        mWindow = std::move(content);
    }
    bool waitForIRQ(std::chrono::milliseconds const& aTimeout) override {
        journal.add("waitForIRQ " + std::to_string(aTimeout.count()));
        if (irq) {
            return irq(aTimeout);
        }
        raise();
        return true;
    }

    /// Sets the status of every source whose mask is 1, as an interrupt does.
    void raise() {
        auto const set = [](auto const& aMask, auto const& aStatus) {
            if (aMask->held()) {
                aStatus->hold(true);
            }
        };
        set(m_irqMaskAdcPllUnlocked, m_statusAdcPllUnlocked);
        set(m_irqMaskPllDdsUnlocked, m_statusPllDdsUnlocked);
        set(m_irqMaskPllDdsProfileUpdateBusyError, m_statusPllDdsProfileUpdateBusyError);
        set(m_irqMaskPllDdsIoUpdateBusyError, m_statusPllDdsIoUpdateBusyError);
        set(m_irqMaskDcCompOutOfRange, m_statusDcCompOutOfRange);
        set(m_irqMaskSeqInstrMemAccessError, m_statusSeqInstrMemeAccessError);
        set(m_irqMaskSeqError, m_statusSeqError);
        set(m_irqMaskPidOveflow, m_statusPidOverflow);
        set(m_irqMaskFidOverflow, m_statusFidOverflow);
        set(m_irqMaskFidDone, m_statusFidDone);
        onAcquisition();
    }

    /// The window that was loaded last.
    std::string window() const {
        std::lock_guard const lock(mMutex);
        return mWindow;
    }

private:
    template <typename T>
    using ReadOnlyFake = FakeLockRegister<T>;
    template <typename T>
    using ReadWriteFake = FakeLockRegister<T>;
    template <typename T>
    using ClearableFake = FakeStatusRegister<T>;

    /// 480 MHz in 2^32 steps.
    static constexpr double kStepHz = 480000000.0 / 4294967296.0;

    // NOLINTBEGIN(readability-identifier-naming): named after their accessors
#define LOCK_FAKE_MEMBER(accessor, path, access, type) \
    std::shared_ptr<access##Fake<type>> m_##accessor = std::make_shared<access##Fake<type>>(path, journal);
    LOCK_REGISTERS(LOCK_FAKE_MEMBER)
#undef LOCK_FAKE_MEMBER
    // NOLINTEND(readability-identifier-naming)

    mutable std::mutex mMutex;
    double mTxHz = 0.0;
    std::string mWindow;

public:
    // The accessors of the interface, and each as the fake that a test scripts:
    // hardware.fake_fidShift().hold(7).
#define LOCK_FAKE_ACCESSOR(accessor, path, access, type)                                      \
    std::shared_ptr<libfieldwarden::lock::access##Register<type>> accessor() const override { \
        return m_##accessor;                                                                  \
    }                                                                                         \
    access##Fake<type>& fake_##accessor() const {                                             \
        return *m_##accessor;                                                                 \
    } /* NOLINT: named after them */
    LOCK_REGISTERS(LOCK_FAKE_ACCESSOR)
#undef LOCK_FAKE_ACCESSOR
};

} // namespace libfieldwarden::test
