// SPDX-License-Identifier: Apache-2.0
// What the ramping states of the adjustable temperature share: the ramp, and flow and target on its way.
#pragma once

#include "at/ATRamp.h"

#include <velmor/kepla/log/Logger.h>

#include <chrono>
#include <memory>

#include <boost/intrusive_ptr.hpp>
#include <boost/statechart/event_base.hpp>

class ATFlowTable;
class ATFSMParameters;
struct EvAtTarget;
class FSMAT;
class TempBoardQ47Ifc;
class TemperatureListenerInterface;
namespace libfieldwarden::at {
class FlowForATFSMIfc;
}

/// Mix-in of a state that ramps. Only the machine's thread; blocks for transfers to the board.
class StateWithRamp : protected virtual velmor::kepla::log::Logger {
public:
    StateWithRamp(StateWithRamp const&) = delete;
    StateWithRamp& operator=(StateWithRamp const&) = delete;

protected:
    explicit StateWithRamp(FSMAT& aMachine);
    ~StateWithRamp() = default;

    /// Begins a ramp from where the probe is.
    /// @param aTarget  Its end in K.
    void resetRamp(double aTarget);

    /// Goes on with the ramp, in steps of 1 K.
    /// @param aElapsed  Since the last step.
    /// @param aForce    Whether to set flow and target however small the step is.
    /// @return Whether the ramp has arrived.
    /// @throws std::runtime_error  when the gas does not follow, or none flows; the heating has ended then.
    bool doRampStep(std::chrono::milliseconds aElapsed, bool aForce);

    /// @return The news that this ramp has arrived.
    boost::intrusive_ptr<boost::statechart::event_base const> arrival() const;

    /// @return Whether it is this ramp that has arrived, and not one before it: what an exchange has put off
    /// comes before what an entry has posted.
    bool isOwn(EvAtTarget const& aArrival) const;

    TempBoardQ47Ifc& board() const { return *mBoard; }
    ATFSMParameters const& parameters() const { return *mParameters; }
    ATFlowTable const& flows() const { return *mFlows; }
    TemperatureListenerInterface& listener() const { return *mListener; }

private:
    bool isRampRequired() const;
    void setTargetTemperatureAndFlow(double aKelvin);
    void refuseToHeatWithoutGas(bool aIsGasThere);
    [[noreturn]] void giveUp();

    std::shared_ptr<TempBoardQ47Ifc> mBoard;
    std::shared_ptr<ATFSMParameters> mParameters;
    std::shared_ptr<ATFlowTable> mFlows;
    std::shared_ptr<TemperatureListenerInterface> mListener;
    std::shared_ptr<libfieldwarden::at::FlowForATFSMIfc> mFlowController;
    unsigned mSerial; ///< Of this ramp.
    ATRamp mRamp;
    double mRampTarget = 0.0;  ///< Where the ramp ends, in K.
    double mFinalTarget = 0.0; ///< The target that resetRamp() was given, in K.
};
