// SPDX-License-Identifier: Apache-2.0
// The lock's workflows with all that they work on in memory, and a signal that a test can put into the field.
#pragma once

#include "lock/LockParameters.h"
#include "lock/LockWorkflows.h"

#include "support/FakeBackend.h"
#include "support/TemporaryDirectory.h"
#include "unit/lock/LockRig.h"

#include <fieldwarden/ShimForLockIfc.h>

#include <cmath>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <fmt/format.h>
#include <gmock/gmock.h>

namespace libfieldwarden::test {

/// A shim system that answers what it is told, and counts the questions.
class AskedShims : public ShimForLockIfc {
public:
    bool areAllShimZero() override {
        ++asked;
        return zero;
    }
    bool zero = false;
    int asked = 0;
};

class LockWorkflowsRig : public testing::Test {
protected:
    LockWorkflowsRig() {
        mBackend->instrumentPathDoor = [this](std::filesystem::path const& aPath) {
            return mDirectory.path() / aPath.relative_path();
        };
        writeFile(mDirectory.path() / "usr/share/firmware/Q47Lock/window.bin", "12345");
        mParameters->setMagnet1HFrequency(80000000.0);
    }

    /// Takes another factor between 1H and 19F, which decides how wide the searches are.
    void setFactor(double aFactor) {
        writeFile(mDirectory.path() / "lock.config", fmt::format("[factors]\n1HTo19F = {}\n", aFactor));
        mParameters->reload();
        mRig.log.clear();
    }

    /// Puts a signal at a 19F frequency in Hz: it is seen 1000 Hz around it.
    void putSignalAt(double a19FHz) {
        mRig.onCycle = [this, a19FHz] {
            // The synthesiser runs 120 MHz / 7 above the lock frequency.
            double const distance = a19FHz - (mRig.hardware->txFrequency() - 120000000.0 / 7.0);
            bool const seen = std::abs(distance) < 1000.0;
            mRegisters.maxSliceMagnitude->hold(seen ? LockRig::kStrong : 0);
            mRegisters.maxSlicePosition->hold(
                seen ? static_cast<std::int16_t>(std::lround(distance / 0.51089)) : std::int16_t{0});
        };
    }

    auto lines() const { return mRig.log.linesOf("LockWorkflows"); }

    /// The frequencies of the transmitter less the intermediate one, in their order, in whole Hz.
    std::vector<long> frequencies() {
        std::vector<long> result;
        for (std::string const& text : mRig.takeActions()) {
            if (text.starts_with("setTx(")) {
                result.push_back(std::lround(std::stod(text.substr(6)) - 120000000.0 / 7.0));
            }
        }
        return result;
    }

    /// The names of the dumps, in their order.
    std::vector<std::string> dumps() {
        std::vector<std::string> result;
        for (std::string const& text : mRig.takeActions()) {
            if (text.starts_with("dump ")) {
                result.push_back(text.substr(5));
            }
        }
        return result;
    }

    TemporaryDirectory mDirectory;
    FakeBackendScope mBackend; // ahead of the rig and its clock, since it brings the real one
    LockRig mRig;
    FakeLockHardware::Registers const& mRegisters = mRig.hardware->registers;
    std::shared_ptr<LockParameters> mParameters =
        std::make_shared<LockParameters>((mDirectory.path() / "lock.config").string());
    std::shared_ptr<AskedShims> mShims = std::make_shared<AskedShims>();
    LockWorkflows mWorkflows{mRig.hardware, mRig.helper, mParameters, mRig.streams, mShims};
};

} // namespace libfieldwarden::test
