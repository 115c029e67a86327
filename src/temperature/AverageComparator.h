// SPDX-License-Identifier: Apache-2.0
// Whether a moving average has stayed in its band for long enough.
#pragma once

#include <algorithm>
#include <cstdint>
#include <functional>
#include <utility>

#include <boost/circular_buffer.hpp>

/// Judges the latest so many values: true when all of them satisfy a predicate at the moment of the
/// judgement, which comes with each value. Until there are so many the verdict is false. The only allocation
/// is that of the constructor. Not thread-safe.
class AverageComparator {
public:
    /// Whether a value is in its band.
    using Predicate = std::function<bool(double)>;

    /// Number of values that are judged: at one each ten seconds those of 500 s.
    static constexpr std::uint32_t kCapacity = 50;

    /// @param aPredicate  Asked for every value of the window at every push, so that a new target counts for
    ///                    the older values too; not empty.
    /// @param aCapacity   Number of values that are judged, from 1 on.
    explicit AverageComparator(Predicate aPredicate, std::uint32_t aCapacity = kCapacity)
        : mCapacity(aCapacity)
        , mPredicate(std::move(aPredicate))
        , mValues(aCapacity) {}

    /// Takes a value in and judges the window.
    /// @param aValue  The value, in the unit of the predicate.
    /// @return The verdict.
    /// @throws std::exception  what the predicate throws; the value counts, the verdict stays.
    bool push(double aValue) {
        mValues.push_front(aValue);
        if (mValues.size() >= mCapacity) {
            mResult = std::all_of(mValues.begin(), mValues.end(), std::cref(mPredicate));
        }
        return mResult;
    }

    /// @return The verdict of the latest push.
    bool result() const noexcept { return mResult; }

private:
    std::uint32_t mCapacity;
    Predicate mPredicate;
    bool mResult = false;
    boost::circular_buffer<double> mValues;
};
