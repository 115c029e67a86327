// SPDX-License-Identifier: Apache-2.0
// How samples travel from a pusher to the file, and what is said when they do not arrive.
#include "SampleWriter.h"

#include <velmor/kepla/utils/ThreadName.h>

#include <algorithm>
#include <chrono>
#include <exception>
#include <stdexcept>

namespace velmor::kepla::datalogger {

namespace {

using velmor::kepla::log::Severity;

/// Samples that are moved under one lock, so that a pusher never waits for long.
constexpr std::size_t kPortion = 1024;

SqliteDataLoggerOptions const& checked(SqliteDataLoggerOptions const& aOptions) {
    if (aOptions.queueCapacity == 0 || aOptions.flushInterval.count() <= 0 ||
        aOptions.retentionInterval.count() <= 0) {
        throw std::invalid_argument(
            "The data logger needs a queue capacity, a flush interval and a retention interval above 0");
    }
    return aOptions;
}

} // namespace

SampleWriter::SampleWriter(std::filesystem::path const& aPath, SqliteDataLoggerOptions const& aOptions)
    : Logger("SqliteDataLogger", "")
    , mOptions(checked(aOptions))
    , mClock(velmor::platform::Clock::current())
    , mQueue(aOptions.queueCapacity)
    , mStore(aPath, aOptions)
    , mBacklog(aOptions.queueCapacity)
    , mNextForgetting(mClock.now()) {
    if (auto const outage = mStore.open()) {
        noteOutage(*outage);
    }
    mThread = std::thread([this] { run(); });
}

SampleWriter::~SampleWriter() {
    {
        std::lock_guard const lock(mMutex);
        mStop = true;
    }
    mWake.notify_all();
    mThread.join();
}

std::uint32_t SampleWriter::describe(DataLoggerChannelInfo const& aInfo) {
    std::string const name = aInfo.name();
    std::lock_guard const registry(mRegistryMutex);
    auto const [known, isNew] =
        mRegistry.try_emplace(name, Known{static_cast<std::uint32_t>(mRegistry.size()), aInfo});
    Known& entry = known->second;
    if (isNew) {
        std::lock_guard const lock(mMutex);
        mQueueLost.resize(mRegistry.size());
    } else if (entry.info == aInfo) {
        return entry.index;
    }
    entry.info = aInfo;
    mDescribed.emplace_back(entry.index, aInfo);
    return entry.index;
}

void SampleWriter::push(QueuedSample const& aSample) noexcept {
    bool isHalfFull = false;
    {
        std::lock_guard const lock(mMutex);
        if (mQueue.full()) {
            QueuedSample const& oldest = mQueue[0];
            mQueueLost[oldest.channel].add(oldest.time);
            mLostTotal.fetch_add(1, std::memory_order_relaxed);
            mQueue.removeOldest(1);
        }
        mQueue.add(aSample);
        isHalfFull = mQueue.size() == (mOptions.queueCapacity + 1) / 2;
    }
    if (isHalfFull) {
        mWake.notify_one();
    }
}

// ---------------------------------------------------------------------------------------------- the thread

void SampleWriter::run() {
    utils::nameThisThread("data-logger");
    bool stop = false;
    while (!stop) {
        {
            std::unique_lock lock(mMutex);
            mClock.waitFor(mWake, lock, mOptions.flushInterval,
                           [&] { return mStop || mQueue.size() >= (mOptions.queueCapacity + 1) / 2; });
            stop = mStop;
        }
        collect();
        flush();
        forget();
    }
    reportEnd();
}

void SampleWriter::collect() {
    collectSamples();
    collectDescriptions(); // Second, so that no sample comes before the description of its channel.
    noteLosses();
}

void SampleWriter::collectSamples() {
    // Not more than stood here at the beginning: quick pushers must not keep the thread from writing.
    for (std::size_t moved = 0; moved < mOptions.queueCapacity; moved += kPortion) {
        std::lock_guard const lock(mMutex);
        std::size_t const portion = std::min(kPortion, mQueue.size());
        for (std::size_t age = 0; age < portion; ++age) {
            if (mBacklog.full()) {
                QueuedSample const& oldest = mBacklog[0];
                mLost.resize(mQueueLost.size());
                mLost[oldest.channel].add(oldest.time);
                mLostTotal.fetch_add(1, std::memory_order_relaxed);
                mBacklog.removeOldest(1);
            }
            mBacklog.add(mQueue[age]);
        }
        mQueue.removeOldest(portion);
        if (mQueue.empty()) {
            break;
        }
    }
    std::lock_guard const lock(mMutex);
    mLost.resize(mQueueLost.size());
    for (std::size_t channel = 0; channel < mQueueLost.size(); ++channel) {
        if (mQueueLost[channel].count > 0) {
            mLost[channel].add(mQueueLost[channel]);
            mQueueLost[channel] = {};
        }
    }
}

void SampleWriter::collectDescriptions() {
    std::lock_guard const registry(mRegistryMutex);
    for (auto& [index, info] : mDescribed) {
        mStore.describe(index, std::move(info));
    }
    mDescribed.clear();
}

void SampleWriter::noteLosses() {
    std::uint64_t const lost = lostSamples();
    if (lost == mLostSeen) {
        return;
    }
    if (!mInBurst) {
        mInBurst = true;
        mBurstBegan = mLostSeen;
        keplaDoLog(Severity::Warning, "There is no room for more samples: the oldest are lost", {});
    }
    mLostSeen = lost;
}

void SampleWriter::flush() {
    std::uint64_t const lostBefore = mLostSeen;
    if (!write()) {
        return;
    }
    mBacklog.removeOldest(mBacklog.size());
    mLost.assign(mLost.size(), {});
    if (mOutageBegan) {
        auto const outage = std::chrono::floor<std::chrono::seconds>(mClock.now() - *mOutageBegan);
        keplaDoLog(Severity::Info, "Samples are written again after %d s", {}, outage.count());
        mOutageBegan.reset();
    }
    if (mInBurst && lostSamples() == lostBefore) {
        keplaDoLog(Severity::Info, "%u samples were lost", {}, mLostSeen - mBurstBegan);
        mInBurst = false;
    }
}

bool SampleWriter::write() {
    bool const nothingLost =
        std::all_of(mLost.begin(), mLost.end(), [](LostSamples const& aLost) { return aLost.count == 0; });
    if (mBacklog.empty() && nothingLost && !mStore.hasNews() && !mOutageBegan) {
        return true;
    }
    try {
        mStore.write(mBacklog, mLost);
        return true;
    } catch (std::exception const& error) {
        noteOutage(error.what());
        return false;
    }
}

void SampleWriter::noteOutage(std::string const& aReason) {
    if (!mOutageBegan) {
        mOutageBegan = mClock.now();
        keplaDoLog(Severity::Error, "Samples cannot be written and wait in memory: %s", {}, aReason);
    }
    mOutageReason = aReason;
}

void SampleWriter::forget() {
    try {
        mStore.forgetSurplus();
        if (mClock.now() >= mNextForgetting) {
            mNextForgetting = mClock.now() + mOptions.retentionInterval;
            mStore.forgetOld();
        }
    } catch (std::exception const& error) {
        keplaDoLog(mOutageBegan ? Severity::Debug : Severity::Warning, "Old samples cannot be removed: %s",
                   {}, error.what());
    }
}

void SampleWriter::reportEnd() {
    if (mOutageBegan && !mBacklog.empty()) {
        keplaDoLog(Severity::Error, "%u samples are lost with the end of the data logger: %s", {},
                   mBacklog.size(), mOutageReason);
    }
}

} // namespace velmor::kepla::datalogger
