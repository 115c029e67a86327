// SPDX-License-Identifier: Apache-2.0
// A temperature service on a scripted board of a system without adjustable temperature.
#pragma once

#include "support/FakeDataLogger.h"
#include "support/FakeTempBoard.h"
#include "support/HandClockScope.h"
#include "support/LogCapture.h"
#include "support/TemporaryDirectory.h"
#include "temperature/TemperatureHardwareQ47.h"

#include <fieldwarden/TemperatureListenerInterface.h>
#include <velmor/kepla/deviceid/DeviceIdClientIfc.h>
#include <velmor/kepla/utils/PeriodicCallerManagerIfc.h>

#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <fmt/format.h>
#include <gtest/gtest.h>

namespace libfieldwarden::test {

/// A device-id service whose main record is a text, or that fails.
class FakeDeviceIdClient : public velmor::kepla::deviceid::DeviceIdClientIfc {
public:
    std::function<std::string()> answer = [] { return std::string("<record></record>"); };

    std::string mainMds() override { return answer(); }
};

/// A listener that keeps all it hears, as "name = value".
class NewsKeeper : public TemperatureListenerInterface {
public:
    void magnetTemperatureChanged(double aValue) override { keep("magnetTemperature", aValue); }
    void magnetReadyChanged(bool aReady) override { keep("magnetReady", aReady); }
    void coilTemperatureChanged(double aValue) override { keep("coilTemperature", aValue); }
    void probeTargetTemperatureChanged(double aValue) override { keep("probeTargetTemperature", aValue); }
    void probeTemperatureChanged(double aValue) override { keep("probeTemperature", aValue); }
    void probeTemperatureStatusChanged(ProbeTemperatureGlobalStatus aStatus) override {
        keep("probeTemperatureStatus", static_cast<int>(aStatus));
    }
    void probeTemperatureGasStatusChanged(ProbeTemperatureControlGasFlowStatus aStatus) override {
        keep("probeTemperatureGasStatus", static_cast<int>(aStatus));
    }
    void probeTemperatureStabilityChanged(TemperatureStability aStability) override {
        keep("probeTemperatureStability", static_cast<int>(aStability));
    }
    void probeMeasuredGasFlowChanged(double aFlow) override { keep("probeMeasuredGasFlow", aFlow); }
    void probeTargetGasFlowForOperationChanged(double aFlow) override {
        keep("probeTargetGasFlowForOperation", aFlow);
    }
    void probeTargetGasFlowForStandbyChanged(double aFlow) override {
        keep("probeTargetGasFlowForStandby", aFlow);
    }
    void probeTemperatureControlStatusChanged(ProbeTemperatureControlStatus aStatus) override {
        keep("probeTemperatureControlStatus", static_cast<int>(aStatus));
    }
    void probeActualPowerChanged(double aPower) override { keep("probeActualPower", aPower); }
    void probeTargetTemperatureMinimumChanged(double aValue) override {
        keep("probeTargetTemperatureMinimum", aValue);
    }
    void probeTargetTemperatureMaximumChanged(double aValue) override {
        keep("probeTargetTemperatureMaximum", aValue);
    }
    void probePowerMaximumChanged(double aPower) override { keep("probePowerMaximum", aPower); }

    /// What was heard since the last question.
    std::vector<std::string> take() { return std::exchange(mNews, {}); }

private:
    template <typename Value>
    void keep(char const* aName, Value aValue) {
        mNews.push_back(fmt::format("{} = {}", aName, aValue));
    }

    std::vector<std::string> mNews;
};

/// Board, records and recorders of one service. The board has all temperatures at 298.15 K and is on target.
class TemperatureServiceTest : public ::testing::Test {
protected:
    /// The service, made of all that stands here.
    std::unique_ptr<TemperatureHardwareQ47> makeService(
        std::shared_ptr<velmor::kepla::utils::PeriodicCallerManagerIfc> const& aCallers) {
        return std::make_unique<TemperatureHardwareQ47>(mBoard, mDataLogger, aCallers, mDeviceId,
                                                        mVtuMdsPath.string());
    }

    /// Values pushed to a channel so far.
    std::vector<double> values(std::string const& aChannel) {
        std::vector<double> all;
        for (auto const& push : mDataLogger->pushes(aChannel)) {
            all.push_back(push.value);
        }
        return all;
    }

    HandClockScope mClock;
    LogCapture mLog;
    TemporaryDirectory mDirectory;
    std::filesystem::path mVtuMdsPath = mDirectory.path() / "vtu.mds"; ///< Not there.
    std::shared_ptr<FakeTempBoard> mBoard = makeTempBoard();
    std::shared_ptr<FakeDataLogger> mDataLogger = std::make_shared<FakeDataLogger>();
    std::shared_ptr<FakeDeviceIdClient> mDeviceId = std::make_shared<FakeDeviceIdClient>();
    NewsKeeper mNews;
};

} // namespace libfieldwarden::test
