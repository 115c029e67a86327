// SPDX-License-Identifier: Apache-2.0
// The lock sequencer of this instrument: its driver's files, and the transmitter behind the main board.
#pragma once

#include "lock/hardware/LockHardwareInterface.h"
#include "lock/hardware/LockQ47HardwareRegister.h"

#include <velmor/kepla/log/Logger.h>
#include <velmor/q47/seqlock/SeqlockDriver.h>

#include <memory>
#include <string>

namespace velmor::q47::mainboarddaemon {
class MainboardInterface;
}

/// The one implementation of LockHardwareInterface. Making it opens every register's file once as a test and
/// writes nothing: the sequencer stays as it was. Nothing is locked and nothing is kept open.
class LockQ47Hardware : public LockHardwareInterface, private virtual velmor::kepla::log::Logger {
public:
    /// @param aMainboard  The transmitter's board; not null.
    /// @param aDriver     The sequencer's driver; not null.
    /// @throws std::invalid_argument  when a register's file is missing or cannot be written; the words have
    /// its path.
    explicit LockQ47Hardware(std::shared_ptr<velmor::q47::mainboarddaemon::MainboardInterface> aMainboard,
                             std::shared_ptr<velmor::q47::seqlock::SeqlockDriver> aDriver =
                                 velmor::q47::seqlock::SeqlockDriver::current());

    void setTx(double aFreqHz, unsigned int aMVpp) override;
    double getTxFrequency() const override;
    void loadProgram(std::string const& aPath) override;
    void loadWindow(std::istream& aStream) override;
    bool waitForIRQ(std::chrono::milliseconds const& aTimeout) override;

    // NOLINTBEGIN(bugprone-macro-parentheses): types, which cannot stand in parentheses
#define LOCK_REGISTER_ACCESSOR(accessor, path, access, type)                                  \
    std::shared_ptr<libfieldwarden::lock::access##Register<type>> accessor() const override { \
        return m_##accessor;                                                                  \
    }
    LOCK_REGISTERS(LOCK_REGISTER_ACCESSOR)
#undef LOCK_REGISTER_ACCESSOR
    // NOLINTEND(bugprone-macro-parentheses)

private:
    void checkProgram() const;

    std::string const mRootPath;
    std::shared_ptr<velmor::q47::mainboarddaemon::MainboardInterface> mMainboard;
    std::shared_ptr<velmor::q47::seqlock::SeqlockDriver> mDriver;

    // NOLINTBEGIN(readability-identifier-naming, bugprone-macro-parentheses): named after their accessors
#define LOCK_REGISTER_MEMBER(accessor, path, access, type) \
    std::shared_ptr<libfieldwarden::lock::access##Register<type>> m_##accessor;
    LOCK_REGISTERS_AS_MADE(LOCK_REGISTER_MEMBER)
#undef LOCK_REGISTER_MEMBER
    // NOLINTEND(readability-identifier-naming, bugprone-macro-parentheses)
};
