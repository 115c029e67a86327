// SPDX-License-Identifier: Apache-2.0
// The adjustable temperature in a run: on when the lock is armed for it, up, held, down again, and off.
#pragma once

#include "apps/fieldwarden/Event.h"
#include "apps/fieldwarden/PhaseClock.h"
#include "apps/fieldwarden/TemperatureText.h"

#include <velmor/platform/Clock.h>

#include <optional>
#include <string>

class LockForTemperatureIfc;
class TemperatureInterface;

namespace libfieldwarden::app {

/// Follows the probe through a run, by the events that the temperature listener makes. One thread.
class ProbeRun {
public:
    enum class Stage { WaitsForLock, GasStarts, RampUp, Settles, Stable, RampDown, Off, Failed };

    static constexpr char const* kRamp = "ramp";

    /// @param aTemperature  The temperature service; outlives this object.
    /// @param aLock         Whom to ask whether the lock is armed; null where nobody asks. Outlives this
    /// object.
    /// @param aKelvin       The target; set at once.
    /// @param aQueue        Takes the events; outlives this object.
    /// @param aPhases       Is told where each phase begins; outlives this object.
    /// @throws WrongUsage  without the option, and when the target is outside of the probe's range.
    /// @throws std::runtime_error  when the board does not answer.
    ProbeRun(TemperatureInterface& aTemperature,
             LockForTemperatureIfc const* aLock,
             double aKelvin,
             EventQueue& aQueue,
             PhaseClock& aPhases);

    /// Switches on as soon as the lock is armed, and tells how far a ramp is when it has moved by a kelvin.
    /// @param aKelvin  The probe's temperature; none while it cannot be read.
    void look(std::optional<double> aKelvin);

    /// Takes in what the temperature service said.
    void hear(Event const& aEvent);

    /// Begins the way down. Where the regulation is not on, nothing is to be done.
    /// @throws std::runtime_error  when the service refuses.
    void switchOff();

    Stage stage() const noexcept { return mStage; }
    /// @return Whether no heating is on or on its way off.
    bool over() const noexcept { return mStage == Stage::Off || mStage == Stage::Failed; }
    /// @return Whether the way down takes longer than it ever should.
    bool overdue() const;
    /// @return Whether the regulation was switched on in this run.
    bool wasOn() const noexcept { return mWasOn; }
    /// @return Whether the target was held and stable once.
    bool wasStable() const noexcept { return mWasStable; }

    /// @param aFlow  Of the gas, l/h.
    /// @return The line of a terminal, such as "[###-------] 301.2 K to 310.0 K, 9 min, 200 l/h".
    std::string words(double aFlow) const;

private:
    void heard(ProbeTemperatureGlobalStatus aStatus);
    void heard(ProbeTemperatureControlStatus aStatus);
    void settle();
    void tellRamp();
    RampProgress progress() const;
    std::string rampWords(double aFlow) const;
    /// @return Whether the way down needs no ramp.
    bool coolEnough() const;
    void enter(Stage aStage, char const* aPhase);

    TemperatureInterface& mTemperature;
    LockForTemperatureIfc const* mLock;
    double const mTarget;
    EventQueue& mQueue;
    PhaseClock& mPhases;
    double mLowest = 0.0; ///< Of the probe's range.
    double mKelvin = 0.0; ///< As it was read last.
    double mBegin = 0.0;  ///< Where the probe was when the present ramp began.
    std::optional<double> mToldKelvin;
    Stage mStage = Stage::WaitsForLock;
    bool mHolding = false;
    bool mStable = false;
    bool mWasOn = false;
    bool mWasStable = false;
    velmor::platform::Clock::TimePoint mOffAtLatest;
};

} // namespace libfieldwarden::app
