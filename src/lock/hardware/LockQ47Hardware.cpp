// SPDX-License-Identifier: Apache-2.0
// Transmitter, memories, interrupt and registers of the lock sequencer.
#include "lock/hardware/LockQ47Hardware.h"

#include <velmor/platform/Backend.h>
#include <velmor/q47/mainboarddaemon/MainboardInterface.h>

#include <array>
#include <cerrno>
#include <cmath>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <type_traits>
#include <utility>

using libfieldwarden::lock::ClearableRegister;
using libfieldwarden::lock::ReadOnlyRegister;
using libfieldwarden::lock::ReadWriteRegister;
using velmor::kepla::log::Severity;
using velmor::q47::mainboarddaemon::MainboardInterface;
using velmor::q47::seqlock::SeqlockDriver;

namespace {

constexpr char const* kRootPath = "/sys/class/misc/seqlock/";
constexpr char const* kProgramDevice = "/dev/seqlock";
constexpr char const* kWindowDevice = "/dev/seqlock-window";
constexpr char const* kNotificationFile = "irq/irq_notification";

constexpr unsigned int kLockChannel = 1;
/// The synthesiser's clock, and its word of 32 bits: 2^32 stand for one clock.
constexpr double kSynthesiserHz = 480000000.0;
constexpr double kSynthesiserSteps = 4294967296.0;
/// 1 V peak to peak in the word of the amplitude.
constexpr double kAmplitudeStepsPerVolt = 16384.0;
constexpr double kMillivoltsPerVolt = 1000.0;

/// What a register needs to be made.
struct Maker {
    std::string const& root;
    std::shared_ptr<SeqlockDriver> const& driver;

    template <typename Register>
    auto make(char const* aPath) const {
        return std::make_shared<Register>(aPath, root + aPath, driver);
    }
    template <typename Register>
    auto makeWide(char const* aPath) const {
        return std::make_shared<Register>(aPath, root + aPath + "_high", root + aPath + "_low", driver);
    }
};

/// The file-backed register of an access word and a type.
template <typename T>
std::shared_ptr<ReadOnlyRegister<T>> makeReadOnly(Maker const& aMaker, char const* aPath) {
    if constexpr (std::is_same_v<T, long long>) {
        return aMaker.makeWide<LockQ47HardwareRegisterReadOnly<T>>(aPath);
    } else {
        return aMaker.make<LockQ47HardwareRegisterReadOnly<T>>(aPath);
    }
}

template <typename T>
std::shared_ptr<ReadWriteRegister<T>> makeReadWrite(Maker const& aMaker, char const* aPath) {
    if constexpr (std::is_same_v<T, long long>) {
        return aMaker.makeWide<LockQ47HardwareRegister<T>>(aPath);
    } else if constexpr (std::is_enum_v<T>) {
        return aMaker.make<LockQ47HardwareRegisterCast<T, std::uint8_t>>(aPath);
    } else {
        return aMaker.make<LockQ47HardwareRegister<T>>(aPath);
    }
}

template <typename T>
std::shared_ptr<ClearableRegister<T>> makeClearable(Maker const& aMaker, char const* aPath) {
    if constexpr (std::is_enum_v<T>) {
        return aMaker.make<LockQ47HardwareRegisterCastClearable<T, std::uint8_t>>(aPath);
    } else {
        return aMaker.make<LockQ47HardwareRegisterClearable<T>>(aPath);
    }
}

/// Copies a whole stream and brings it to its device.
void copyAll(std::istream& aFrom, std::ostream& aTo) {
    // An empty source sets the failure of the target, which means nothing here.
    aTo << aFrom.rdbuf();
    aTo.flush();
}

} // namespace

LockQ47Hardware::LockQ47Hardware(std::shared_ptr<MainboardInterface> aMainboard,
                                 std::shared_ptr<SeqlockDriver> aDriver)
    : Logger("LockQ47Hardware", "Lock")
    , mRootPath(kRootPath)
    , mMainboard(std::move(aMainboard))
    , mDriver(std::move(aDriver)) {
    Maker const maker{mRootPath, mDriver};
#define LOCK_REGISTER_MADE(accessor, path, access, type) m_##accessor = make##access<type>(maker, path);
    LOCK_REGISTERS_AS_MADE(LOCK_REGISTER_MADE)
#undef LOCK_REGISTER_MADE
}

void LockQ47Hardware::setTx(double aFreqHz, unsigned int aMVpp) {
    keplaDoLog(Severity::Info, "+setTx(freqHz = %f, mVpp = %lu)", {}, aFreqHz, aMVpp);
    auto const freqWord =
        static_cast<std::uint32_t>(std::llround(aFreqHz / kSynthesiserHz * kSynthesiserSteps));
    keplaDoLog(Severity::Debug, "~setTx: freqWord = 0x%08X", {}, freqWord);
    // By way of 64 bits, since no amplitude may leave the range of the cast.
    auto const ampWord = static_cast<std::uint32_t>(
        static_cast<std::uint64_t>(aMVpp / kMillivoltsPerVolt * kAmplitudeStepsPerVolt));
    keplaDoLog(Severity::Debug, "~setTx: ampWord = 0x%08X", {}, ampWord);
    mMainboard->setTxEnable(kLockChannel, true);
    mMainboard->setTxAmplitudeWord(ampWord);
    mMainboard->setTxFrequencyWord(kLockChannel, freqWord);
    keplaDoLog(Severity::Debug, "-setTX", {});
}

double LockQ47Hardware::getTxFrequency() const {
    keplaDoLog(Severity::Debug, "+getTxFrequency", {});
    std::uint32_t const freqWord = mMainboard->txFrequencyWord(kLockChannel);
    keplaDoLog(Severity::Debug, "~getTxFrequency: freqWord = 0x%08X", {}, freqWord);
    double const frequency = static_cast<double>(freqWord) * kSynthesiserHz / kSynthesiserSteps;
    keplaDoLog(Severity::Debug, "-getTxFrequency: %f Hz", {}, frequency);
    return frequency;
}

bool LockQ47Hardware::waitForIRQ(std::chrono::milliseconds const& aTimeout) {
    keplaDoLog(Severity::Trace, "+waitForIRQ", {});
    auto const file = mDriver->openNotification(mRootPath + kNotificationFile);
    if (file == nullptr) {
        // "thte" is intended: the log knows it so.
        keplaDoLog(Severity::Error, "-waitForIRQ: failed to open thte irq_notification file", {});
        throw std::runtime_error("Cannot wait for IRQ: could not open the irq_notification file");
    }
    auto const seconds = std::chrono::duration_cast<std::chrono::seconds>(aTimeout);
    std::chrono::microseconds const rest = aTimeout - seconds;

    keplaDoLog(Severity::Trace, "~waitForIRQ: reading from file before being able to wait", {});
    std::array<char, 100> ignored{};
    file->read(ignored.data(), ignored.size());

    keplaDoLog(Severity::Trace, "~waitForIRQ: select", {});
    int const selected = file->wait(seconds, rest);
    if (selected < 0) {
        // Intended: a signal that interrupts the wait counts as a failure, too.
        keplaDoLog(Severity::Error, "~waitForIRQ: select call failed with errno is %d", {}, errno);
        throw std::runtime_error("Failed to wait for IRQ");
    }
    bool const gotIt = selected > 0;
    keplaDoLog(Severity::Trace, "~waitForIRQ: gotIt = %d", {}, static_cast<int>(gotIt));
    return gotIt;
}

void LockQ47Hardware::loadProgram(std::string const& aPath) {
    keplaDoLog(Severity::Debug, "+loadProgram(path='%s')", {}, aPath);
    std::ifstream input(velmor::platform::Backend::current()->instrumentPath(aPath), std::ios::binary);
    if (!input.is_open()) {
        throw std::runtime_error("Could not open input file '" + aPath + "'");
    }
    {
        auto const device = mDriver->openMemory(kProgramDevice);
        if (!*device) {
            throw std::runtime_error("Could not open output file /dev/seqlock");
        }
        copyAll(input, *device);
    }
    checkProgram();
}

/// Asks the sequencer what it thinks of the program.
void LockQ47Hardware::checkProgram() const {
    if (statusSeqInstrMemeAccessError()->get()) {
        keplaDoLog(Severity::Error,
                   "-loadProgram: failed, seqinstrmemaccesserror is set after loading the program", {});
        throw std::runtime_error("Failed to load the lock program: illegal memory instruction access");
    }
    if (!statusSeqError()->get()) {
        return;
    }
    keplaDoLog(Severity::Warning, "Sequencer Error bit is set", {});
    LockHardwareSeqErrorCode const code = statusSeqErrorCode()->get();
    std::ostringstream rendered;
    rendered << code;
    keplaDoLog(Severity::Trace, "Status seq error code is now %s", {}, rendered.str());
    switch (code) {
        case LockHardwareSeqErrorCode::NoError:
            keplaDoLog(Severity::Error, "Sequencer Error bit is set but error code is NO_ERROR", {});
            throw std::runtime_error("Failed to load the lock program.");
        case LockHardwareSeqErrorCode::InstructionSetVersionMismatch:
        case LockHardwareSeqErrorCode::InvalidOpCode:
        case LockHardwareSeqErrorCode::JumpAddressOutOfRange:
            keplaDoLog(Severity::Error,
                       "-loadProgram: sequencer is in error after having loaded the program. Error is %s", {},
                       rendered.str());
            throw std::runtime_error("Failed to load the lock program: " + rendered.str());
        case LockHardwareSeqErrorCode::AllForClear:
            break;
    }
    keplaDoLog(Severity::Error, "-loadProgram: unknown sequencer error code (0x%02X)", {},
               static_cast<unsigned int>(code));
    throw std::runtime_error("Failed to load the lock program: unknown error has been reported");
}

void LockQ47Hardware::loadWindow(std::istream& aStream) {
    keplaDoLog(Severity::Debug, "+loadWindow", {});
    // Intended: a device that cannot be opened is not told; the stream swallows what is written.
    auto const device = mDriver->openMemory(kWindowDevice);
    copyAll(aStream, *device);
}
