// SPDX-License-Identifier: Apache-2.0
// A temperature board by script: it answers what the test put there, and remembers every call in order.
#pragma once

#include "temperature/TempBoardQ47Ifc.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <functional>
#include <limits>
#include <map>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

#include <fmt/format.h>
#include <gtest/gtest.h>

namespace libfieldwarden::test {

/// Strict: a getter that the test did not script, or that was scripted with a value that it cannot give,
/// fails the test, and so does a script for an operation that does not exist. Setters need no script, and
/// change nothing that a getter gives unless the test says so in onCall().
///
/// A script names an operation ("magnetTemperatureSensor"), or one call of it with its arguments as the
/// journal shows them ("magnetTemperatureSensor(2)"), which goes before. The journal shows a call as
/// "magnetTemperature()", "shimTargetTemperature(1, false)", "setTargetProbeTemperature(292.15)",
/// "setVTMode(2)", "dumpCANopenValues(/tmp)". Any thread.
class FakeTempBoard : public TempBoardQ47Ifc {
public:
    using Range = std::pair<double, double>;

    /// What a getter gives: a number, a flag, a mode, a text or a range.
    template <typename Value>
    void set(std::string const& aCall, Value aValue) {
        checkName(aCall);
        std::lock_guard const lock(mMutex);
        if constexpr (std::is_same_v<Value, bool> || std::is_same_v<Value, Range>) {
            mValues[aCall] = aValue;
        } else if constexpr (std::is_enum_v<Value>) {
            mValues[aCall] = static_cast<std::int64_t>(static_cast<std::underlying_type_t<Value>>(aValue));
        } else if constexpr (std::is_integral_v<Value>) {
            mValues[aCall] = static_cast<std::int64_t>(aValue);
        } else if constexpr (std::is_floating_point_v<Value>) {
            mValues[aCall] = static_cast<double>(aValue);
        } else {
            mValues[aCall] = std::string(aValue);
        }
    }

    /// What happens at a call, behind its line in the journal and before its answer; may throw anything. Runs
    /// on the caller's thread with nothing locked. Replaces a former one; an empty one ends it.
    void onCall(std::string const& aCall, std::function<void()> aWhat) {
        checkName(aCall);
        std::lock_guard const lock(mMutex);
        mOnCall[aCall] = std::make_shared<std::function<void()>>(std::move(aWhat));
    }

    /// Makes every call fail with a std::runtime_error, or only the next so many.
    void fail(std::string const& aCall,
              std::string const& aWords,
              unsigned aTimes = std::numeric_limits<unsigned>::max()) {
        onCall(aCall, [aWords, left = aTimes]() mutable {
            if (left > 0) {
                --left;
                throw std::runtime_error(aWords);
            }
        });
    }

    /// Ends what onCall() or fail() began.
    void mend(std::string const& aCall) { onCall(aCall, {}); }

    /// The calls since the last question, in order.
    std::vector<std::string> takeCalls() {
        std::lock_guard const lock(mMutex);
        return std::exchange(mCalls, {});
    }

    std::string mds() override { return get<std::string>("mds"); }
    std::string mdsOfATFlowBox() override { return get<std::string>("mdsOfATFlowBox"); }
    double magnetTemperature() const override { return get<double>("magnetTemperature"); }
    double targetMagnetTemperature(unsigned char aId) const override {
        return get<double>("targetMagnetTemperature", aId);
    }
    void setTargetMagnetTemperature(double aTemperature) override {
        enter("setTargetMagnetTemperature", aTemperature);
    }
    double isoBoxTemperature() const override { return get<double>("isoBoxTemperature"); }
    double isoBoxTargetTemperature() const override { return get<double>("isoBoxTargetTemperature"); }
    double shimTemperature() const override { return get<double>("shimTemperature"); }
    double shimTemperatureSensor(unsigned char aId) const override {
        return get<double>("shimTemperatureSensor", aId);
    }
    double shimTargetTemperature(unsigned char aId, bool aFromHardware) const override {
        return get<double>("shimTargetTemperature", aId, aFromHardware);
    }
    void setShimTargetTemperature(unsigned char aId, double aKelvin) override {
        enter("setShimTargetTemperature", aId, aKelvin);
    }
    double probeTemperature() override { return get<double>("probeTemperature"); }
    double probeGasHeatingSpiralTemperature() override {
        return get<double>("probeGasHeatingSpiralTemperature");
    }
    double probeGasExhaustTemperature() override { return get<double>("probeGasExhaustTemperature"); }
    double targetProbeTemperature() const override { return get<double>("targetProbeTemperature"); }
    void setTargetProbeTemperature(double aKelvin) override { enter("setTargetProbeTemperature", aKelvin); }
    double magnetTemperatureSensor(unsigned char aId) const override {
        return get<double>("magnetTemperatureSensor", aId);
    }
    double isoBoxTemperatureSensor(unsigned char aId) const override {
        return get<double>("isoBoxTemperatureSensor", aId);
    }
    double magnetHeaterVoltage(unsigned char aId) const override {
        return get<double>("magnetHeaterVoltage", aId);
    }
    unsigned char isoBoxFanSpeed() const override { return get<unsigned char>("isoBoxFanSpeed"); }
    double isoBoxPeltierCurrentPercent() const override { return get<double>("isoBoxPeltierCurrentPercent"); }
    double probeGasHeatingSpiralPower() override { return get<double>("probeGasHeatingSpiralPower"); }
    void setProbeGasHeatingSpiralPower(double aWatt) override {
        enter("setProbeGasHeatingSpiralPower", aWatt);
    }
    bool probeGasHeatingSpiralRegulation() override { return get<bool>("probeGasHeatingSpiralRegulation"); }
    void setProbeGasHeatingSpiralRegulation(bool aEnabled) override {
        enter("setProbeGasHeatingSpiralRegulation", aEnabled);
    }
    bool probeTemperatureRegulation() override { return get<bool>("probeTemperatureRegulation"); }
    void setProbeTemperatureRegulation(bool aEnabled) override {
        enter("setProbeTemperatureRegulation", aEnabled);
    }
    unsigned probeGasOvercurrentCountSinceLastRead() override {
        return get<unsigned>("probeGasOvercurrentCountSinceLastRead");
    }
    double probeGasHeatingSpiralTargetTemperature() override {
        return get<double>("probeGasHeatingSpiralTargetTemperature");
    }
    void setProbeGasHeatingSpiralTargetTemperature(double aKelvin) override {
        enter("setProbeGasHeatingSpiralTargetTemperature", aKelvin);
    }
    unsigned char probeGasFlow() override { return get<unsigned char>("probeGasFlow"); }
    void setProbeGasFlow(unsigned char aFlowIndex) override { enter("setProbeGasFlow", aFlowIndex); }
    ShimTemperingMode shimTemperingMode() const override {
        return get<ShimTemperingMode>("shimTemperingMode");
    }
    void setShimTemperingMode(ShimTemperingMode aMode) override { enter("setShimTemperingMode", aMode); }
    VTMode vtMode() override { return get<VTMode>("vtMode"); }
    void setVTMode(VTMode aMode) override { enter("setVTMode", aMode); }
    IsoBoxTemperingMode isoBoxTemperingMode() const override {
        return get<IsoBoxTemperingMode>("isoBoxTemperingMode");
    }
    void setIsoBoxTemperingMode(IsoBoxTemperingMode aMode) override {
        enter("setIsoBoxTemperingMode", aMode);
    }
    bool setupSavedOnEEPROM() const override { return get<bool>("setupSavedOnEEPROM"); }
    void saveSetupToEEPROM() const override { enter("saveSetupToEEPROM"); }
    Range probeGasRegulatedTemperatureRange() const override {
        return get<Range>("probeGasRegulatedTemperatureRange");
    }
    unsigned char probeGasHeatingTimeout() const override {
        return get<unsigned char>("probeGasHeatingTimeout");
    }
    void setProbeGasHeatingTimeout(unsigned char aSeconds) override {
        enter("setProbeGasHeatingTimeout", aSeconds);
    }
    unsigned char guessedFlowBoxEcl() override { return get<unsigned char>("guessedFlowBoxEcl"); }
    void dumpCANopenValues(std::string const& aDirectory) override { enter("dumpCANopenValues", aDirectory); }

private:
    using Scripted = std::variant<bool, std::int64_t, double, std::string, Range>;

    static constexpr auto kOperations = std::to_array<std::string_view>({
        "mds",
        "mdsOfATFlowBox",
        "magnetTemperature",
        "targetMagnetTemperature",
        "setTargetMagnetTemperature",
        "isoBoxTemperature",
        "isoBoxTargetTemperature",
        "shimTemperature",
        "shimTemperatureSensor",
        "shimTargetTemperature",
        "setShimTargetTemperature",
        "probeTemperature",
        "probeGasHeatingSpiralTemperature",
        "probeGasExhaustTemperature",
        "targetProbeTemperature",
        "setTargetProbeTemperature",
        "magnetTemperatureSensor",
        "isoBoxTemperatureSensor",
        "magnetHeaterVoltage",
        "isoBoxFanSpeed",
        "isoBoxPeltierCurrentPercent",
        "probeGasHeatingSpiralPower",
        "setProbeGasHeatingSpiralPower",
        "probeGasHeatingSpiralRegulation",
        "setProbeGasHeatingSpiralRegulation",
        "probeTemperatureRegulation",
        "setProbeTemperatureRegulation",
        "probeGasOvercurrentCountSinceLastRead",
        "probeGasHeatingSpiralTargetTemperature",
        "setProbeGasHeatingSpiralTargetTemperature",
        "probeGasFlow",
        "setProbeGasFlow",
        "shimTemperingMode",
        "setShimTemperingMode",
        "vtMode",
        "setVTMode",
        "isoBoxTemperingMode",
        "setIsoBoxTemperingMode",
        "setupSavedOnEEPROM",
        "saveSetupToEEPROM",
        "probeGasRegulatedTemperatureRange",
        "probeGasHeatingTimeout",
        "setProbeGasHeatingTimeout",
        "guessedFlowBoxEcl",
        "dumpCANopenValues",
    });

    static void checkName(std::string const& aCall) {
        std::string const operation = aCall.substr(0, aCall.find('('));
        EXPECT_EQ(std::count(kOperations.begin(), kOperations.end(), operation), 1)
            << "no such operation: " << aCall;
    }

    template <typename Argument>
    static std::string text(Argument const& aArgument) {
        if constexpr (std::is_enum_v<Argument>) {
            return std::to_string(static_cast<unsigned>(aArgument));
        } else {
            return fmt::format("{}", aArgument);
        }
    }

    template <typename... Arguments>
    static std::string callOf(char const* aOperation, Arguments const&... aArguments) {
        std::string call = std::string(aOperation) + "(";
        std::string separator;
        ((call += std::exchange(separator, ", ") + text(aArguments)), ...);
        return call + ")";
    }

    /// What stands in a map for a call: for this very one, or else for its operation.
    template <typename Map>
    static auto const* find(Map const& aMap, std::string const& aCall) {
        auto found = aMap.find(aCall);
        if (found == aMap.end()) {
            found = aMap.find(aCall.substr(0, aCall.find('(')));
        }
        return found == aMap.end() ? nullptr : &found->second;
    }

    /// Remembers the call and lets happen what the test wants to happen.
    template <typename... Arguments>
    std::string enter(char const* aOperation, Arguments const&... aArguments) const {
        std::string call = callOf(aOperation, aArguments...);
        std::shared_ptr<std::function<void()>> happening;
        {
            std::lock_guard const lock(mMutex);
            mCalls.push_back(call);
            if (auto const* const found = find(mOnCall, call)) {
                happening = *found;
            }
        }
        if (happening && *happening) {
            (*happening)();
        }
        return call;
    }

    template <typename Value, typename... Arguments>
    Value get(char const* aOperation, Arguments const&... aArguments) const {
        std::string const call = enter(aOperation, aArguments...);
        std::lock_guard const lock(mMutex);
        Scripted const* const scripted = find(mValues, call);
        if (scripted == nullptr) {
            ADD_FAILURE() << "no script for " << call;
            throw std::runtime_error("no script for " + call);
        }
        return convert<Value>(*scripted, call);
    }

    template <typename Value>
    static Value convert(Scripted const& aScripted, std::string const& aCall) {
        auto const* const number = std::get_if<std::int64_t>(&aScripted);
        if constexpr (std::is_enum_v<Value>) {
            if (number != nullptr) {
                return static_cast<Value>(*number);
            }
        } else if constexpr (std::is_integral_v<Value> && !std::is_same_v<Value, bool>) {
            if (number != nullptr && std::in_range<Value>(*number)) {
                return static_cast<Value>(*number);
            }
        } else {
            if (auto const* const value = std::get_if<Value>(&aScripted)) {
                return *value;
            }
            if constexpr (std::is_same_v<Value, double>) {
                if (number != nullptr) {
                    return static_cast<double>(*number);
                }
            }
        }
        ADD_FAILURE() << "scripted with a value that it cannot give: " << aCall;
        throw std::runtime_error("scripted with a value that it cannot give: " + aCall);
    }

    mutable std::mutex mMutex; ///< Guards all below.
    std::map<std::string, Scripted> mValues;
    std::map<std::string, std::shared_ptr<std::function<void()>>> mOnCall;
    mutable std::vector<std::string> mCalls;
};

/// A board of a system with the AT option and a flow box on the port expander, all of it at 25 degrees
/// Celsius (298.15 K) and on target, nothing heated, no gas: every getter has a script.
inline std::shared_ptr<FakeTempBoard> makeTempBoard() {
    auto board = std::make_shared<FakeTempBoard>();
    for (char const* const temperature :
         {"magnetTemperature", "targetMagnetTemperature", "isoBoxTemperature", "isoBoxTargetTemperature",
          "shimTemperature", "shimTemperatureSensor", "shimTargetTemperature", "probeTemperature",
          "probeGasHeatingSpiralTemperature", "probeGasExhaustTemperature", "targetProbeTemperature",
          "magnetTemperatureSensor", "isoBoxTemperatureSensor", "probeGasHeatingSpiralTargetTemperature"}) {
        board->set(temperature, 298.15);
    }
    board->set("mds", "");
    board->set("mdsOfATFlowBox", "");
    board->set("magnetHeaterVoltage", 12.5);
    board->set("isoBoxFanSpeed", 1);
    board->set("isoBoxPeltierCurrentPercent", 0.25);
    board->set("probeGasHeatingSpiralPower", 0.0);
    board->set("probeGasHeatingSpiralRegulation", false);
    board->set("probeTemperatureRegulation", false);
    board->set("probeGasOvercurrentCountSinceLastRead", 0);
    board->set("probeGasFlow", 0);
    board->set("shimTemperingMode", ShimTemperingMode::Mode0);
    board->set("vtMode", VTMode::PortExpander);
    board->set("isoBoxTemperingMode", IsoBoxTemperingMode::SmallPeltier);
    board->set("setupSavedOnEEPROM", true);
    board->set("probeGasRegulatedTemperatureRange", FakeTempBoard::Range{273.15, 373.15});
    board->set("probeGasHeatingTimeout", 60);
    board->set("guessedFlowBoxEcl", 0);
    return board;
}

} // namespace libfieldwarden::test
