// SPDX-License-Identifier: Apache-2.0
// How services ask to be called at a fixed period.
#pragma once

#include <functional>
#include <memory>

namespace velmor::kepla::utils {

/// Handle of a periodic call. The calls end with it: its destructor waits for a call that is under way,
/// unless it runs in that call itself.
class PeriodicCallerIfc {
public:
    virtual ~PeriodicCallerIfc() = default;
};

/// Giver of periodic calls.
class PeriodicCallerManagerIfc {
public:
    virtual ~PeriodicCallerManagerIfc() = default;

    /// Asks for a call every so many seconds, the first one after the first period.
    ///
    /// Periods are counted from the registration, not from the end of a call; a call that is late does not
    /// shift the ones after it, and periods that passed meanwhile are left out. A call that throws is logged
    /// and comes again at its next time. May be called from any thread, also from a periodic call.
    /// @param aPeriodSeconds  Period in s, above 0.
    /// @param aCallback       What to call.
    /// @return The handle that keeps the calls coming.
    /// @throws std::invalid_argument  when the period is not a positive number or there is nothing to call.
    virtual std::unique_ptr<PeriodicCallerIfc> createPeriodicCaller(double aPeriodSeconds,
                                                                    std::function<void()> aCallback) = 0;
};

} // namespace velmor::kepla::utils
