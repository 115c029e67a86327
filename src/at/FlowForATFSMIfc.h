// SPDX-License-Identifier: Apache-2.0
// What the state machine of the adjustable temperature needs of the gas.
#pragma once

#include <utility>

namespace libfieldwarden::at {

/// The gas as the state machine sees it. Any thread; every operation but userDefinedFlow() and sawGas()
/// blocks for its transfers to the board, and throws what these throw (std::runtime_error when the board does
/// not answer).
class FlowForATFSMIfc {
public:
    virtual ~FlowForATFSMIfc() = default;

    /// Asks for a flow. While a user's flow is set the request is only remembered.
    /// @param aSwFlowIndex  Software index of the main flow; 0 is off.
    /// @param aHoldFlow     Whether the hold gas shall flow.
    /// @return Whether the gas follows; a request that failed is not remembered.
    /// @throws std::out_of_range     when the flow table has no such flow.
    /// @throws std::runtime_error    when the box needs the hold flow first and it is off.
    /// @throws std::invalid_argument when the box cannot have this main flow without hold flow.
    virtual bool setFlowFromSM(unsigned char aSwFlowIndex, bool aHoldFlow) = 0;

    /// Asks for a flow during the exchange of a sample, in strict mode only: at once, with no regard for the
    /// order of the hold flow or for a user's flow. The hold flow asked for is not remembered.
    /// @return Whether the gas follows; false outside of strict mode.
    /// @throws as setFlowFromSM().
    virtual bool setFlowFromSMSampleExchange(unsigned char aSwFlowIndex, bool aHoldFlow) = 0;

    /// Forgets the user's flow and goes back to the main flow that the state machine asked for last; the hold
    /// gas flows if that is not 0. Blocks 0.3 s longer when the hold gas must come first.
    virtual void resetFlowFromUser() = 0;

    /// In strict mode a knob that is turned away is a failure, and a user's flow waits for its end.
    /// @param aStrict  Whether the mode begins or ends.
    virtual void setStrictMode(bool aStrict) = 0;

    /// @return Software index of the main flow, and whether the hold gas flows, as the board tells now.
    /// @throws std::runtime_error  when the box reports an error: there is no telling what flows.
    virtual std::pair<unsigned char, bool> actualFlowIndex() const = 0;

    /// Asks the board whether the probe may be heated.
    /// @return Whether main or hold gas flows, or an operator at the box's knob decides about it; never while
    /// the box reports an error.
    virtual bool lookForGas() = 0;

    /// @return What lookForGas() would, by the last look, request or poll; of a box that cannot be read back,
    /// by what was set last. Asks nothing of the board, but waits for a request or poll that is under way.
    virtual bool sawGas() const = 0;

    /// @return Whether the user's flow is set, and its software index. Never blocks.
    virtual std::pair<bool, unsigned char> userDefinedFlow() const = 0;
};

} // namespace libfieldwarden::at
