// SPDX-License-Identifier: Apache-2.0
// A bounded queue of samples whose memory is there from the beginning.
#pragma once

#include <velmor/kepla/datalogger/DataLoggerStatusCode.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace velmor::kepla::datalogger {

/// A sample on its way to the file.
struct QueuedSample {
    std::int64_t time = 0; ///< Microseconds since 1970-01-01 UTC.
    double value = 0.0;
    std::uint32_t channel = 0; ///< Index among the process's channels.
    DataLoggerStatusCode status = DataLoggerStatusCode::Good;
};

/// First in, first out; never allocates after its construction. Not guarded.
class SampleRing {
public:
    /// @param aCapacity  More than 0.
    explicit SampleRing(std::size_t aCapacity)
        : mSamples(aCapacity) {}

    std::size_t size() const noexcept { return mSize; }
    bool empty() const noexcept { return mSize == 0; }
    bool full() const noexcept { return mSize == mSamples.size(); }

    /// @param aAge  0 for the oldest.
    QueuedSample const& operator[](std::size_t aAge) const noexcept { return mSamples[place(aAge)]; }

    /// Adds a sample to a ring that is not full.
    void add(QueuedSample const& aSample) noexcept {
        mSamples[place(mSize)] = aSample;
        ++mSize;
    }

    /// Takes the oldest samples off; as many as there are, when there are less.
    void removeOldest(std::size_t aCount) noexcept {
        std::size_t const count = std::min(aCount, mSize);
        mOldest = place(count);
        mSize -= count;
    }

private:
    std::size_t place(std::size_t aAge) const noexcept {
        std::size_t const place = mOldest + aAge;
        return place < mSamples.size() ? place : place - mSamples.size();
    }

    std::vector<QueuedSample> mSamples;
    std::size_t mOldest = 0;
    std::size_t mSize = 0;
};

} // namespace velmor::kepla::datalogger
