// SPDX-License-Identifier: Apache-2.0
// The front of the lock's state machine and its worker.
#include "lock/LockFSM.h"

#include "lock/LockListenerSync.h"
#include "lock/LockStreams.h"
#include "lock/LockWorkflows.h"

#include <velmor/kepla/utils/ThreadName.h>

#include <exception>
#include <utility>

using libfieldwarden::lock::LockStatus;
using libfieldwarden::lock::StartAndStopIfc;
using velmor::kepla::log::Severity;

namespace {

/// What has a start and a stop, as the machine sees it.
template <typename Worked>
class StartAndStop final : public StartAndStopIfc {
public:
    explicit StartAndStop(std::shared_ptr<Worked> aWorked)
        : mWorked(std::move(aWorked)) {}
    void start() override { mWorked->start(); }
    void stop() override { mWorked->stop(); }

private:
    std::shared_ptr<Worked> mWorked;
};

} // namespace

LockFSM::LockFSM(std::shared_ptr<LockHardwareInterface> aHardware,
                 std::shared_ptr<LockHardwareHelper> aHelper,
                 std::shared_ptr<LockParametersInterface> const& aParameters,
                 std::shared_ptr<LockListenerSync> aListener,
                 std::shared_ptr<LockStreams> aStreams,
                 std::shared_ptr<ShimForLockIfc> aShim,
                 bool aStartNow)
    : LockFSM(std::make_shared<LockWorkflows>(
                  std::move(aHardware), std::move(aHelper), aParameters, aStreams, std::move(aShim)),
              aParameters,
              std::move(aListener),
              aStreams,
              aStartNow) {}

LockFSM::LockFSM(std::shared_ptr<LockWorkflows> aWorkflows,
                 std::shared_ptr<LockParametersInterface> const& aParameters,
                 std::shared_ptr<LockListenerSync> aListener,
                 std::shared_ptr<LockStreams> aStreams,
                 bool aStartNow)
    : LockFSM(
          std::make_shared<StartAndStop<LockWorkflows>>(aWorkflows),
          std::make_shared<StartAndStop<LockStreams>>(std::move(aStreams)),
          aParameters,
          std::move(aListener),
          [aWorkflows] { aWorkflows->requestEnd(); },
          aStartNow) {
    mWorkflows = std::move(aWorkflows);
}

LockFSM::LockFSM(std::shared_ptr<StartAndStopIfc> aWorkflows,
                 std::shared_ptr<StartAndStopIfc> aStreams,
                 std::shared_ptr<LockParametersInterface> const& aParameters,
                 std::shared_ptr<LockListenerSync> aListener,
                 std::function<void()> aEndSteps,
                 bool aStartNow)
    : Logger("LockFSM", "Lock")
    , mListener(std::move(aListener))
    , mEndSteps(std::move(aEndSteps))
    , mScheduler(true) // the worker waits for events instead of ending with the last one
    , mProcessor(mScheduler.create_processor<FSM>(
          std::move(aWorkflows), mListener, std::move(aStreams), aParameters)) {
    mScheduler.initiate_processor(mProcessor);
    ++mWaiting;
    mThread = boost::thread([this] { work(); });
    mListener->doing("");
    mListener->state(static_cast<int>(LockStatus::Stopped));
    if (aStartNow) {
        restart();
    }
}

LockFSM::~LockFSM() {
    keplaDoLog(Severity::Info, "LockFSM destructor", {});
    mListener->removeListener();
    mClosing =
        true; // Events that wait are dropped: the longest wait of the running step is all that is waited for.
    mEndSteps();
    mScheduler.terminate();
    mThread.join();
    // The processor goes with the scheduler, which no thread runs any more.
}

void LockFSM::work() {
    velmor::kepla::utils::nameThisThread("lock-fsm");
    while (!mClosing && !mScheduler.terminated()) {
        runOneEvent();
    }
}

/// Runs one event, or waits for it.
void LockFSM::runOneEvent() {
    try {
        mWaiting -= static_cast<long>(mScheduler(1));
    } catch (std::exception const& failure) {
        beginAnew(failure.what());
    } catch (...) {
        beginAnew("an exception of an unknown type");
    }
}

/// What escapes from a state's entry ends the machine, which would swallow all events from then on. So it is
/// told, and the machine begins anew.
void LockFSM::beginAnew(char const* aReason) {
    keplaDoLog(Severity::Critical,
               "The lock state machine failed and begins anew, %d waiting events are lost: %s", {},
               --mWaiting, aReason);
    mScheduler.initiate_processor(mProcessor);
    ++mWaiting;
}

template <typename Event>
void LockFSM::queue() {
    ++mWaiting;
    mScheduler.queue_event(mProcessor, libfieldwarden::lock::made<Event>());
}

void LockFSM::start() {
    keplaDoLog(Severity::Info, "+start", {});
    mListener->doing("Starting the lock");
    queue<EvStart>();
}

void LockFSM::stop() {
    keplaDoLog(Severity::Info, "+stop", {});
    mListener->doing("Stopping the lock");
    queue<EvStop>();
}

void LockFSM::restart() {
    keplaDoLog(Severity::Info, "+restart", {});
    mListener->doing("Restarting the lock");
    queue<EvReset>();
    queue<EvStart>();
}

void LockFSM::notifyHardwareError() {
    keplaDoLog(Severity::Info, "+notifyHardwareError", {});
    queue<EvHardwareError>();
}

void LockFSM::notifyPIDSetChanged() {
    keplaDoLog(Severity::Info, "+notifyPIDSetChanged", {});
    queue<EvGotPIDSetChanged>();
}

void LockFSM::notifyMagnetFrequencyHasBeenSet() {
    keplaDoLog(Severity::Info, "+notifyMagnetFrequencyHasBeenSet", {});
    queue<EvGotMagnetFrequency>();
}

void LockFSM::setProgressObserver(libfieldwarden::lock::LockProgressObserver aObserver) {
    if (mWorkflows) {
        mWorkflows->setProgressObserver(std::move(aObserver));
    }
}
