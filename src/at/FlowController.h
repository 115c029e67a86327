// SPDX-License-Identifier: Apache-2.0
// The one who sets the probe gas: serialises the requests of state machine and user, verifies each by reading
// back, and sees what changed without the library.
#pragma once

#include "at/FlowForATFSMIfc.h"

#include <velmor/kepla/log/Logger.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <utility>

class ATFlowTable;
class AtFlowBoxIfc;
struct ActualFlow;
class TempBoardQ47Ifc;
class TemperatureListenerInterface;
namespace velmor::kepla::datalogger {
class DataLoggerChannelIfc;
class DataLoggerInterface;
struct DataLoggerChannelInfo;
} // namespace velmor::kepla::datalogger
namespace velmor::kepla::utils {
class PeriodicCallerIfc;
class PeriodicCallerManagerIfc;
} // namespace velmor::kepla::utils
namespace velmor::platform {
class Clock;
}

/// Drives the flow box. State machine, periodic worker and users may call at once; all operations but the
/// plain getters block for their transfers to the board and throw what these throw.
///
/// The listener is told while the controller is busy with the request: a callback must not come back to this
/// class on the same thread.
class FlowController : public libfieldwarden::at::FlowForATFSMIfc,
                       private virtual velmor::kepla::log::Logger {
public:
    /// Who decides about the gas.
    enum class FlowState : std::int32_t {
        ControlledByFSM = 0,     ///< The state machine.
        OverridenInSoftware = 1, ///< A user, through the library.
        OverridenInHardware = 2, ///< An operator, at the box's knob.
        Error = 3,               ///< Nobody: the box reports an error.
    };

    /// Begins to poll the flow box once a second and reads what it does; blocks for that.
    /// @param aBoard            The temperature board; not null.
    /// @param aFlowTable        The table of gas flows; not null.
    /// @param aListener         Who is told; not null.
    /// @param aFlowBox          The coding of the board's flow box; not null.
    /// @param aPeriodicCallers  Runs the polls; not null.
    /// @param aDataLogger       Makes the channels; not null.
    /// @throws std::runtime_error  when the board does not answer.
    FlowController(std::shared_ptr<TempBoardQ47Ifc> aBoard,
                   std::shared_ptr<ATFlowTable> aFlowTable,
                   std::shared_ptr<TemperatureListenerInterface> aListener,
                   std::unique_ptr<AtFlowBoxIfc> aFlowBox,
                   std::shared_ptr<velmor::kepla::utils::PeriodicCallerManagerIfc> const& aPeriodicCallers,
                   std::shared_ptr<velmor::kepla::datalogger::DataLoggerInterface> const& aDataLogger);
    ~FlowController() override; ///< Waits for a poll that is under way; leaves the gas as it is.
    FlowController(FlowController const&) = delete;
    FlowController& operator=(FlowController const&) = delete;

    bool setFlowFromSM(unsigned char aSwFlowIndex, bool aHoldFlow) override;
    bool setFlowFromSMSampleExchange(unsigned char aSwFlowIndex, bool aHoldFlow) override;

    /// Puts a flow in the place of the state machine's, until resetFlowFromUser(). In strict mode it is only
    /// remembered. No flow ends the heating first. Blocks 0.3 s longer when the hold gas must come first.
    /// @param aFlowLiterPerHour  In l/h, one of the table's.
    /// @throws std::out_of_range  when the table has no such flow.
    void setFlowByUser(double aFlowLiterPerHour);

    void resetFlowFromUser() override;
    void setStrictMode(bool aStrict) override;

    /// @return Whether strict mode is on. Never blocks.
    bool isStrictMode() const { return mStrictMode; }

    std::pair<unsigned char, bool> actualFlowIndex() const override;
    bool lookForGas() override;
    bool sawGas() const override;

    /// @return The flow in l/h that the box was last seen to give. Never blocks.
    /// @throws std::out_of_range  when the table has no such flow.
    double getActualFlow();

    std::pair<bool, unsigned char> userDefinedFlow() const override;

    /// @return Who decides about the gas, as far as the last poll or request has seen. Never blocks.
    FlowState state() const { return mFlowState; }

    /// Sees what the flow box does: tells of changes that the library did not make, and restores the gas when
    /// the knob is back at remote. Comes once a second; blocks 0.3 s longer when the hold gas must come
    /// first.
    /// @throws std::out_of_range  when the table has no flow of the index that the box reports.
    void pollATFlowBox();

private:
    using Channel = std::shared_ptr<velmor::kepla::datalogger::DataLoggerChannelIfc>;

    bool setFlow(unsigned char aFlowIndex, bool aHoldFlow, bool aAllowHold);
    bool setFlowAndVerify(unsigned char aSwFlowIndex, bool aHoldFlow);
    void applyUserFlow();
    void endHeating();
    void noteGas(unsigned char aHw, ActualFlow const& aActual);
    void noteChange(unsigned char aHw, ActualFlow const& aActual);
    void restoreGas(bool aIsHoldFlowEnabled);
    void setFlowState(FlowState aState);
    void setFlowError();
    void tellFlow(double aFlow, bool aIsOn);
    void push(Channel const& aChannel, double aValue) const;

    std::chrono::milliseconds const mHoldDuration{300}; ///< Until the hold gas has opened the way.
    velmor::platform::Clock& mClock;
    std::shared_ptr<ATFlowTable> mFlowTable;
    std::shared_ptr<TempBoardQ47Ifc> mBoard;
    std::shared_ptr<TemperatureListenerInterface> mListener;
    std::atomic<bool> mUserFlowEnabled{false};
    std::atomic<std::int32_t> mUserFlowIndex{0};
    std::atomic<std::int32_t> mFSMFlowIndex{0};
    std::atomic<bool> mFSMHold{false};
    mutable std::mutex mMutex; ///< Held by all that sets the gas, but for setStrictMode(); not recursive.
    std::atomic<FlowState> mFlowState{FlowState::ControlledByFSM};
    std::atomic<std::uint8_t> mLastActualFlowHardwareIndex{0};
    std::atomic<bool> mStrictMode{false};
    std::atomic<bool> mFlowErrorReported{false};
    std::atomic<bool> mSawGas{false}; ///< Whether what was seen last allows to heat.
    std::unique_ptr<AtFlowBoxIfc> mFlowBox;
    bool mKnobWasRemote = false; ///< At the last poll.
    Channel mStateChannel;
    Channel mActualChannel;
    Channel mUserChannel;
    Channel mFSMChannel;
    Channel mHoldChannel;
    /// Last, so that the polls end before anything goes that they use.
    std::unique_ptr<velmor::kepla::utils::PeriodicCallerIfc> mPollHandle;
};
