// SPDX-License-Identifier: Apache-2.0
// Where an episode begins, goes on and ends.
#include "simulator/thermal/HeatingWatch.h"

#include <algorithm>

namespace libfieldwarden::sim {

void HeatingWatch::update(TimePoint aNow, bool aHeats, bool aGas, double aCelsius) {
    mHottest = std::max(mHottest, aCelsius);
    if (mLasts) {
        mPresent.length = aNow - mPresent.begin;
        mPresent.hottestCelsius = std::max(mPresent.hottestCelsius, aCelsius);
        mLongest = std::max(mLongest, mPresent.length);
        if (mCount <= kKept) {
            mEpisodes.back() = mPresent;
        }
    }
    bool const lasts = aHeats && !aGas;
    if (lasts && !mLasts) {
        mPresent = {aNow, {}, aCelsius};
        ++mCount;
        if (mCount <= kKept) {
            mEpisodes.push_back(mPresent);
        }
    }
    mLasts = lasts;
}

void HeatingWatch::reset() {
    *this = HeatingWatch{};
}

} // namespace libfieldwarden::sim
