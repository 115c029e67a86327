// SPDX-License-Identifier: Apache-2.0
// The whole start of the lock on the simulated sequencer: nothing of the one is made for the other but what
// the registers mean.
#include "lock/LockAcquisitionsIfc.h"
#include "lock/LockParameters.h"
#include "lock/LockSlope0Crossing.h"
#include "lock/LockWorkflows.h"
#include "lock/hardware/LockHardwareHelper.h"
#include "lock/hardware/LockQ47Hardware.h"
#include "simulator/instrument/Instrument.h"
#include "simulator/instrument/SimulatedBackend.h"
#include "support/FakeDataLogger.h"
#include "support/SimulationSpeed.h"
#include "support/TemporaryDirectory.h"

#include <fieldwarden/ShimForLockIfc.h>

#include <velmor/kepla/utils/Bits.h>
#include <velmor/platform/Backend.h>
#include <velmor/q47/seqlock/SeqlockDriver.h>

#include <cmath>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <gmock/gmock.h>

namespace {

using libfieldwarden::sim::Instrument;
using libfieldwarden::sim::Magnet;
using testing::HasSubstr;
using velmor::platform::Backend;
using velmor::q47::seqlock::SeqlockDriver;

constexpr double kMagnet1H = 80'123'400.0;

/// Fetches a spectrum as the dumps do, and keeps nothing of it.
class Acquisitions : public libfieldwarden::lock::LockAcquisitionsIfc {
public:
    void dumpFFTandFID(std::string const& /*aName*/) override {}

    double fftSlopeAt0Crossing() override {
        auto const driver = SeqlockDriver::current();
        auto const device = driver->openStream("/dev/lock_dma_fd");
        device->ioctl(velmor::q47::seqlock::kSetPacketMode, 1);
        driver->writeRegister("/sys/class/misc/seqlock/log/single_fd_transfer", "1");
        std::vector<unsigned char> bytes(0x80000);
        if (device->waitReadable(std::chrono::seconds(10)) <= 0 ||
            device->read(bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size())) {
            throw std::runtime_error("no spectrum");
        }
        auto const imaginary = std::make_shared<std::vector<int>>();
        for (std::size_t i = 0; i < bytes.size(); i += 8) {
            imaginary->push_back(static_cast<int>(static_cast<unsigned>(bytes[i]) << 24 |
                                                  static_cast<unsigned>(bytes[i + 1]) << 16 |
                                                  static_cast<unsigned>(bytes[i + 2]) << 8 | bytes[i + 3]));
        }
        slope = LockSlope0Crossing().slopeAt0Crossing(imaginary);
        return slope;
    }

    double slope = 0.0;
};

class Shims : public ShimForLockIfc {
public:
    bool areAllShimZero() override { return zero; }
    bool zero = false;
};

class LockStart : public testing::Test {
protected:
    ~LockStart() override { Backend::use(nullptr); }

    /// An instrument with a magnet that is even, unless it is to lack its shims.
    void switchOn(double a1HFrequency, bool aWithoutShims = false) {
        Magnet::Options magnet{.protonHz = a1HFrequency};
        if (!aWithoutShims) {
            magnet.raw = {};
        }
        mInstrument = std::make_shared<Instrument>(
            Instrument::Options{.folder = mDirectory.path(),
                                .timeScale = libfieldwarden::test::kSimulationSpeed,
                                .magnet = magnet});
        Backend::use(libfieldwarden::sim::makeSimulatedBackend(mInstrument));
        mShims->zero = aWithoutShims;
        mHardware = std::make_shared<LockQ47Hardware>(Backend::current()->mainboard());
        auto const logger = std::make_shared<libfieldwarden::test::FakeDataLogger>();
        mHelper = std::make_shared<LockHardwareHelper>(mHardware, logger);
        mWorkflows = std::make_unique<LockWorkflows>(mHardware, mHelper, mParameters, mAcquisitions, mShims);
    }

    /// @return The words with which the start failed; none when it came to its end.
    std::string start(double aConfigured1H) {
        mParameters->setMagnet1HFrequency(aConfigured1H);
        try {
            mWorkflows->start();
        } catch (std::exception const& failure) {
            return failure.what();
        }
        return {};
    }

    void awaitCycles(int aCount) {
        for (int i = 0; i < aCount; ++i) {
            ASSERT_TRUE(mHelper->irqFidDone()->waitFor(std::chrono::milliseconds(1000)));
        }
    }

    libfieldwarden::test::TemporaryDirectory mDirectory;
    std::shared_ptr<Instrument> mInstrument;
    std::shared_ptr<LockQ47Hardware> mHardware;
    std::shared_ptr<LockHardwareHelper> mHelper;
    std::shared_ptr<LockParameters> mParameters =
        std::make_shared<LockParameters>((mDirectory.path() / "lock.config").string());
    std::shared_ptr<Acquisitions> mAcquisitions = std::make_shared<Acquisitions>();
    std::shared_ptr<Shims> mShims = std::make_shared<Shims>();
    std::unique_ptr<LockWorkflows> mWorkflows;
};

TEST_F(LockStart, LocksAShimmedMagnet) {
    switchOn(kMagnet1H);
    ASSERT_EQ(start(kMagnet1H - 800.0), "");
    EXPECT_EQ(mHardware->fidShift()->get(), 15);
    EXPECT_NEAR(std::abs(mAcquisitions->slope), 18'000.0, 700.0);
    EXPECT_NEAR(mHardware->pidITerm()->get(), -417, 20);
    awaitCycles(150);
    EXPECT_LE(std::abs(mHardware->maxSlicePosition()->get()), 1);
    // 800 Hz of 1H are 752.6 Hz of 19F, 1473 bins of 1024 counts, downwards.
    EXPECT_NEAR(mInstrument->sequencer()->h0Count(), -1473 * 1024, 5'000);
}

TEST_F(LockStart, TakesTheFieldBackAfterAJump) {
    switchOn(kMagnet1H);
    ASSERT_EQ(start(kMagnet1H), "");
    awaitCycles(50);
    mInstrument->magnet()->jump(-20.0);
    awaitCycles(200);
    EXPECT_LE(std::abs(mHardware->maxSlicePosition()->get()), 1);
}

TEST_F(LockStart, FindsTheFidBySteppingH0AndBringsItToZero) {
    switchOn(kMagnet1H);
    // 3,000 Hz of 19F: too far to be heard, but not with H0 half way down.
    ASSERT_EQ(start(kMagnet1H - 3'000.0 / 0.9407841), "");
    awaitCycles(150);
    EXPECT_LE(std::abs(mHardware->maxSlicePosition()->get()), 1);
}

TEST_F(LockStart, TellsTheFrequencyThatTheFieldSearchFound) {
    switchOn(kMagnet1H);
    EXPECT_EQ(start(80'200'000.0), "Please change your spectrometer frequency to 80.123MHz and try again");
    EXPECT_EQ(mInstrument->sequencer()->h0Count(), 0);
}

TEST_F(LockStart, FindsAMagnetFarFromTheMiddleOfTheRange) {
    switchOn(80'500'000.0);
    EXPECT_EQ(start(kMagnet1H), "Please change your spectrometer frequency to 80.500MHz and try again");
}

TEST_F(LockStart, MissesTheFidWithoutShims) {
    switchOn(kMagnet1H, true);
    EXPECT_THAT(start(kMagnet1H), HasSubstr("all shim gradients currently being set to zero"));
}

TEST_F(LockStart, FailsWithoutASignal) {
    switchOn(kMagnet1H, true);
    mInstrument->sequencer()->faults().setSilentFid(true);
    EXPECT_THAT(start(kMagnet1H), HasSubstr("The lock signal could not be found."));
}

TEST_F(LockStart, FailsWithAPllThatDoesNotLock) {
    switchOn(kMagnet1H);
    mInstrument->sequencer()->faults().setDdsPllUnlocked(true);
    EXPECT_EQ(start(kMagnet1H), "Failed to configure the lock's frequency");
}

} // namespace
