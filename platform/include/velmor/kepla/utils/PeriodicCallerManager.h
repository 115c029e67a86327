// SPDX-License-Identifier: Apache-2.0
// One worker thread for all periodic calls of the library.
#pragma once

#include <velmor/kepla/utils/PeriodicCallerManagerIfc.h>

#include <memory>
#include <string>
#include <thread>

namespace velmor::kepla::utils {

/// How periodic calls are spread over threads.
enum class ExecutionStrategy : int {
    OneWorker = 0, ///< All calls of a manager come one after the other, on its one thread.
};

/// Runs registered callbacks at fixed periods on its own worker, by the process's Clock. The worker ends in
/// the destructor, which waits for the call under way; handles that are left over then do nothing. Must not
/// be destroyed from one of its own calls.
class PeriodicCallerManager final : public PeriodicCallerManagerIfc,
                                    public std::enable_shared_from_this<PeriodicCallerManager> {
public:
    /// @param aStrategy  The spread over threads.
    /// @param aName      Name for the thread and the log; "periodic" when empty.
    PeriodicCallerManager(ExecutionStrategy aStrategy, std::string const& aName);
    ~PeriodicCallerManager() override;
    PeriodicCallerManager(PeriodicCallerManager const&) = delete;
    PeriodicCallerManager& operator=(PeriodicCallerManager const&) = delete;

    std::unique_ptr<PeriodicCallerIfc> createPeriodicCaller(double aPeriodSeconds,
                                                            std::function<void()> aCallback) override;

private:
    class Schedule;
    class Caller;

    std::shared_ptr<Schedule> mSchedule;
    std::thread mWorker;
};

} // namespace velmor::kepla::utils
