// SPDX-License-Identifier: Apache-2.0
// A simulated temperature board with a flow box on a clock that moves by hand, and the accesses of a bus.
#pragma once

#include "simulator/boards/FlowBox.h"
#include "simulator/boards/TemperatureBoard.h"

#include <velmor/platform/HandClock.h>

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace libfieldwarden::test {

/// What the dictionary says stands in its numbers: milli degrees Celsius, mW, mV.
class TemperatureBoardRig : public testing::Test {
protected:
    using Bytes = std::vector<std::uint8_t>;
    using SdoObject = sim::TemperatureBoard::SdoObject;
    using Sensor = sim::TemperatureSensor;
    using Fault = sim::SensorFault;

    static constexpr std::uint32_t kDeviceState = 0x08000022;
    static constexpr std::uint32_t kOutOfRange = 0x06090030;
    static constexpr std::uint32_t kReadOnly = 0x06010002;
    static constexpr std::uint32_t kWriteOnly = 0x06010001;
    static constexpr std::uint32_t kWrongSize = 0x06070010;

    static constexpr SdoObject kMagnetTarget{0x3004, 1};
    static constexpr SdoObject kShimTarget{0x3104, 1};
    static constexpr SdoObject kProbe{0x3301, 1};
    static constexpr SdoObject kSpiral{0x3301, 2};
    static constexpr SdoObject kExhaust{0x3301, 3};
    static constexpr SdoObject kSpiralPower{0x3302, 1};
    static constexpr SdoObject kSpiralRegulation{0x3303, 1};
    static constexpr SdoObject kProbeRegulation{0x3303, 2};
    static constexpr SdoObject kGas{0x3303, 3};
    static constexpr SdoObject kOvercurrents{0x3303, 4};
    static constexpr SdoObject kHeating{0x3303, 5};
    static constexpr SdoObject kTimeout{0x3303, 6};
    static constexpr SdoObject kEcl{0x3303, 7};
    static constexpr SdoObject kProbeTarget{0x3304, 1};
    static constexpr SdoObject kSpiralTarget{0x3304, 2};
    static constexpr SdoObject kUntilCut{0x3305, 3};
    static constexpr SdoObject kBoxMode{0x3401, 3};
    static constexpr SdoObject kShimMode{0x3401, 4};
    static constexpr SdoObject kVtMode{0x3401, 5};
    static constexpr SdoObject kSaved{0x3401, 6};
    static constexpr SdoObject kErrors{0x1001, 0};

    /// A room of 23 degrees that stays so, and a board as after days of regulation.
    explicit TemperatureBoardRig(sim::FlowBox::Options const& aBox = {})
        : mBox(std::make_shared<sim::FlowBox>(aBox, mClock))
        , mBoard(std::make_unique<sim::TemperatureBoard>(options(), mClock)) {}

    sim::TemperatureBoard::Options options() const {
        return {.room = {.meanCelsius = 23.0, .swingKelvin = 0.0}, .gas = mBox};
    }
    void remake(sim::TemperatureBoard::Options const& aOptions) {
        mBoard = std::make_unique<sim::TemperatureBoard>(aOptions, mClock);
    }

    Bytes bytes(SdoObject aObject) {
        Bytes data;
        EXPECT_EQ(mBoard->read(aObject, data), 0U)
            << std::hex << aObject.index << ':' << int{aObject.subindex};
        return data;
    }
    std::int64_t number(SdoObject aObject) {
        std::uint32_t bits = 0;
        Bytes const data = bytes(aObject);
        for (std::size_t byte = 0; byte < data.size(); ++byte) {
            bits |= std::uint32_t{data[byte]} << (8 * byte);
        }
        return mBoard->dictionary().row(aObject).type == sim::ObjectType::I32
                   ? static_cast<std::int32_t>(bits)
                   : std::int64_t{bits};
    }
    /// @return A number in thousandths, as a temperature in degrees Celsius.
    double thousandths(SdoObject aObject) { return static_cast<double>(number(aObject)) / 1000.0; }
    std::string text(SdoObject aObject) {
        Bytes const data = bytes(aObject);
        return {data.begin(), data.end()};
    }
    /// @return The answer's abort code; 0 for none.
    std::uint32_t write(SdoObject aObject, std::int64_t aNumber) {
        std::size_t size = 4;
        switch (mBoard->dictionary().row(aObject).type) {
            case sim::ObjectType::U8:
                size = 1;
                break;
            case sim::ObjectType::U16:
                size = 2;
                break;
            default:
                break;
        }
        Bytes data;
        for (std::size_t byte = 0; byte < size; ++byte) {
            data.push_back(static_cast<std::uint8_t>(static_cast<std::uint64_t>(aNumber) >> (8 * byte)));
        }
        return mBoard->write(aObject, data);
    }
    /// Writes what must be taken.
    void set(SdoObject aObject, std::int64_t aNumber) {
        EXPECT_EQ(write(aObject, aNumber), 0U) << std::hex << aObject.index << ':' << int{aObject.subindex};
    }
    /// Lets time pass while somebody reads once a second, as the library does.
    void passTalking(std::chrono::seconds aTime) {
        for (std::chrono::seconds passed{0}; passed < aTime; ++passed) {
            mClock.advance(std::chrono::seconds(1));
            number(kHeating);
        }
    }
    /// @return How long the spiral was heated without gas; a loss is seen by the sample that follows it.
    std::chrono::seconds longestWithoutGas() {
        return std::chrono::ceil<std::chrono::seconds>(mBoard->heatingWatch().longest());
    }
    /// Lets time pass without a word on the bus.
    void passSilent(sim::TemperatureBoard::Duration aTime) {
        mClock.advance(aTime);
        mBoard->advance(mClock.now());
    }

    velmor::platform::HandClock mClock;
    std::shared_ptr<sim::FlowBox> mBox;
    std::unique_ptr<sim::TemperatureBoard> mBoard;
};

} // namespace libfieldwarden::test
