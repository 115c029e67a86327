// SPDX-License-Identifier: Apache-2.0
// What a simulated board is to the node that puts it on the bus.
#pragma once

#include <velmor/kepla/canopen/ObjectDictionaryIfc.h>
#include <velmor/platform/Clock.h>

#include <array>
#include <cstdint>
#include <functional>
#include <vector>

namespace libfieldwarden::sim {

/// A fault or its end, to be told in an emergency message (CiA 301 7.2.7).
struct Emergency {
    std::uint16_t code = 0;                     ///< Error code; 0 when the error is over.
    std::uint8_t errorRegister = 0;             ///< Object 0x1001.
    std::array<std::uint8_t, 5> manufacturer{}; ///< The board's own bytes.

    friend bool operator==(Emergency const&, Emergency const&) = default;
};

/// A board without its bus: an object dictionary with a model behind it. All operations may be called from
/// any thread and do not block for long.
class BoardModelIfc : public velmor::kepla::canopen::ObjectDictionaryIfc {
public:
    using Duration = velmor::platform::Clock::Duration;
    using TimePoint = velmor::platform::Clock::TimePoint;

    /// Why a board starts; the values stand in object 0x2000:03.
    enum class Start : std::uint8_t { PowerOn = 0, Network = 1, ProgramControl = 2, Fault = 3 };

    /// The board restarts: volatile values take their power-on values.
    virtual void restart(Start aWhy) = 0;

    /// The communication objects 0x1000 to 0x1FFF take their power-on values; nothing else changes.
    virtual void resetCommunication() = 0;

    /// Does what is due.
    /// @return When something will be due next.
    virtual TimePoint advance(TimePoint aNow) = 0;

    /// @return When the answer to the access just made may leave the board; the past when at once.
    virtual TimePoint answerTime() const = 0;

    /// @return Whether the board wants to restart since the last question.
    virtual bool takeRestartRequest() = 0;

    /// @return The emergencies since the last question, in their order.
    virtual std::vector<Emergency> takeEmergencies() = 0;

    /// @return The heartbeat's period (0x1017); 0 when there is none.
    virtual Duration heartbeatPeriod() const = 0;

    /// @return How long a restart takes until the boot-up message.
    virtual Duration startTime() const = 0;

    /// @param aWake  Must not use the board. Called, on any thread, when there is something to do or to send
    /// before the time that advance()
    ///               told; empty for nobody.
    virtual void setWaker(std::function<void()> aWake) = 0;
};

} // namespace libfieldwarden::sim
