// SPDX-License-Identifier: Apache-2.0
// A hundred thousand times: a request whose answers come late, twice, not at all, or among foreign ones, and
// one behind it that must succeed. Every value that a node gives out is unique, so that a wrong one is known.
#include "support/SdoLoopback.h"

#include <gtest/gtest.h>

#include <deque>
#include <random>

using namespace velmor::kepla::canopen;
using libfieldwarden::test::FrameRecorder;

namespace {

using Bytes = std::vector<std::uint8_t>;
using Duration = velmor::platform::Clock::Duration;
using TimePoint = velmor::platform::Clock::TimePoint;
using std::chrono::microseconds;
using std::chrono::milliseconds;

/// Gives out another value at every read, and notes what was asked since the last question of the test.
class UniqueDictionary final : public ObjectDictionaryIfc {
public:
    std::uint32_t read(SdoObject aObject, Bytes& aData) override {
        if (aObject.index < 0x3000) {
            aData.assign(aObject.subindex == 0 ? 4 : 1, 0xEE); // what synchronising reads ask for
            return 0;
        }
        return note(aObject, [&] {
            aData = unique();
            value = aData;
        });
    }

    std::uint32_t write(SdoObject aObject, std::span<std::uint8_t const> aData) override {
        return note(aObject, [&] { value.assign(aData.begin(), aData.end()); });
    }

    /// Bytes that were never seen before, except that one to three bytes cannot but repeat.
    Bytes unique() {
        Bytes bytes(size);
        ++mCounter;
        for (std::size_t i = 0; i < bytes.size(); ++i) {
            bytes[i] = static_cast<std::uint8_t>(i < 4 ? mCounter >> (8 * i) : i + mCounter);
        }
        return bytes;
    }

    void forget() {
        accesses = 0;
        refusal = 0;
        value.clear();
    }

    std::size_t size = 4;      ///< Of the values.
    bool refuses = false;      ///< With another abort code every time.
    unsigned accesses = 0;     ///< Of any object but those of synchronising reads.
    SdoObject object;          ///< Of the last access.
    Bytes value;               ///< Of the last access.
    std::uint32_t refusal = 0; ///< The abort code of the last access.

private:
    template <typename Access>
    std::uint32_t note(SdoObject aObject, Access aAccess) {
        ++accesses;
        object = aObject;
        if (refuses) {
            refusal = 0x08000000U + ++mCounter;
            return refusal;
        }
        aAccess();
        return 0;
    }

    std::uint32_t mCounter = 0;
};

/// What happens to the answers of a request.
struct Disturbance {
    bool late = false;       ///< From some answer on, all come after the time-out.
    bool lost = false;       ///< Some answer never comes.
    unsigned duplicates = 0; ///< One in so many answers comes twice; 0: none.
    unsigned foreign = 0;    ///< Before one in so many answers comes another one that fits nothing; 0: none.
};

class Trials {
public:
    explicit Trials(std::uint32_t aSeed)
        : mRandom(aSeed) {}

    void run(unsigned aCount) {
        for (unsigned i = 0; i < aCount && !testing::Test::HasFatalFailure(); ++i) {
            SCOPED_TRACE(testing::Message() << "trial " << i);
            request({below(2) == 0, below(3) == 0, below(2) * 3, below(2) * 3}, false);
            rest();
            if (below(8) == 0) { // twice in a row, with the synchronising read disturbed
                request({below(2) == 0, below(3) == 0, below(2) * 3, below(2) * 3}, false);
                rest();
            }
            request({}, true);
            rest();
        }
    }

    SdoDropCounts const& dropCounts() const { return mClient.dropCounts(); }
    unsigned outcomes[5] = {}; ///< Of the disturbed requests, by SdoOutcome.

private:
    struct Arrival {
        TimePoint time;
        CanFrame frame;
    };

    unsigned below(unsigned aLimit) { return static_cast<unsigned>(mRandom() % aLimit); }

    void request(Disturbance const& aDisturbance, bool aMustSucceed) {
        mDisturbance = aDisturbance;
        mUntilLate = below(6);
        mUntilLost = below(6);
        mDictionary.forget();
        mDictionary.refuses = !aMustSucceed && below(8) == 0;
        SdoMode const mode = below(3) == 0 ? SdoMode::Block : SdoMode::Segmented;
        mDictionary.size = below(2) == 0 ? 4 : 5 + below(mode == SdoMode::Block ? 900 : 40);
        SdoObject const object{0x3000, static_cast<std::uint8_t>(1 + below(2))};
        bool const reads = below(2) == 0;
        Bytes const written = mDictionary.unique();
        mDeadlineOfRequest = mNow + milliseconds(1000);
        if (reads) {
            mClient.startUpload(object, 10'000, mNow, mode);
        } else {
            mClient.startDownload(object, written, mode, mNow);
        }
        exchange();
        for (Arrival& arrival : mLine) { // nothing is later than the next request can wait for
            arrival.time = std::min(arrival.time, mNow + milliseconds(900));
        }
        check(object, reads, written, aMustSucceed);
    }

    /// Runs until the transfer has ended.
    void exchange() {
        serve();
        while (mClient.busy()) {
            if (!mLine.empty() && mLine.front().time < mClient.deadline()) {
                Arrival const arrival = mLine.front();
                mLine.pop_front();
                mNow = std::max(mNow, arrival.time);
                mClient.onFrame(arrival.frame, mNow);
            } else {
                mNow = std::max(mNow, mClient.deadline());
                mClient.onTime(mNow);
            }
            serve();
        }
    }

    /// The node answers what the client has sent, and gives up what takes too long.
    void serve() {
        for (CanFrame const& frame : mRequests.take()) {
            mServer.onFrame(frame, mNow);
        }
        mServer.onTime(mNow);
        for (CanFrame const& frame : mAnswers.take()) {
            put(frame);
        }
    }

    /// Puts an answer on the line, where it waits behind all before it: frames of one identifier never
    /// overtake each other.
    void put(CanFrame const& aFrame) {
        if (mDisturbance.lost && mUntilLost-- == 0) {
            return;
        }
        if (mDisturbance.foreign != 0 && below(mDisturbance.foreign) == 0) {
            arrive(foreign(), microseconds(below(200)));
        }
        Duration delay = microseconds(100 + below(200));
        if (mDisturbance.late && mUntilLate-- == 0) {
            // After the time-out, but so that the next request has time enough to get behind it.
            delay = mDeadlineOfRequest - mNow + milliseconds(below(900));
        }
        arrive(aFrame, delay);
        if (mDisturbance.duplicates != 0 && below(mDisturbance.duplicates) == 0) {
            arrive(aFrame, mLine.back().time - mNow + microseconds(below(4000)));
        }
    }

    void arrive(CanFrame const& aFrame, Duration aDelay) {
        TimePoint const behind = mLine.empty() ? mNow : mLine.back().time;
        mLine.push_back({std::max(behind, mNow + aDelay), aFrame});
    }

    /// A frame of another node, or of this node about an object that nobody asks for.
    CanFrame foreign() {
        static constexpr std::array<std::uint8_t, 9> kCommands{0x40, 0x41, 0x43, 0x4F, 0x60,
                                                               0x80, 0xC6, 0xC2, 0xE0};
        CanFrame frame{below(2) == 0 ? 0x588U : 0x589U, 8, {}};
        for (std::uint8_t& byte : frame.data) {
            byte = static_cast<std::uint8_t>(below(256));
        }
        frame.data[2] = 0x50; // index 0x50..
        if (frame.id == 0x588) {
            frame.data[0] = kCommands[below(kCommands.size())];
        }
        if (below(8) == 0) {
            frame.length = static_cast<std::uint8_t>(below(8));
        }
        return frame;
    }

    /// Between requests: mostly nothing, at times a while, in which frames come while nothing is asked.
    void rest() {
        mDisturbance = {};
        if (below(3) == 0) {
            mNow += microseconds(below(4000)); // what comes meanwhile is only looked at with the next request
            return;
        }
        if (below(3) == 0) {
            mNow += milliseconds(below(1500));
        }
        while (!mLine.empty() && mLine.front().time <= mNow) {
            mClient.onFrame(mLine.front().frame, mNow);
            mLine.pop_front();
        }
        serve();
    }

    void check(SdoObject aObject, bool aReads, Bytes const& aWritten, bool aMustSucceed) {
        SdoResult const& result = mClient.result();
        if (result.outcome == SdoOutcome::Done) {
            ASSERT_EQ(mDictionary.accesses, 1U) << "done without the node's doing";
            ASSERT_TRUE(mDictionary.object == aObject);
            ASSERT_EQ(mDictionary.refusal, 0U);
            if (aReads) {
                ASSERT_EQ(Bytes(mClient.data().begin(), mClient.data().end()), mDictionary.value);
            } else {
                ASSERT_EQ(mDictionary.value, aWritten);
            }
        } else if (result.outcome == SdoOutcome::Aborted && result.abortCode != sdoabort::kTimeout) {
            ASSERT_EQ(result.abortCode, mDictionary.refusal) << "somebody else's refusal";
        }
        if (aMustSucceed) {
            ASSERT_EQ(static_cast<int>(result.outcome), static_cast<int>(SdoOutcome::Done)) << result.words;
        } else {
            ++outcomes[static_cast<std::size_t>(result.outcome)];
        }
    }

    std::mt19937 mRandom;
    UniqueDictionary mDictionary;
    FrameRecorder mRequests;
    FrameRecorder mAnswers;
    SdoClientCore mClient{8, mRequests};
    SdoServerCore mServer{8, mDictionary, mAnswers};
    std::deque<Arrival> mLine;
    TimePoint mNow{std::chrono::hours(1)};
    TimePoint mDeadlineOfRequest;
    Disturbance mDisturbance;
    unsigned mUntilLate = 0;
    unsigned mUntilLost = 0;
};

class SdoLateAnswers : public testing::TestWithParam<std::uint32_t> {};

TEST_P(SdoLateAnswers, NeverPassForTheAnswerToTheNextRequestWhichSucceeds) {
    Trials trials(GetParam());
    trials.run(10'000);
    // The trials have really met what they are about.
    SdoDropCounts const& dropped = trials.dropCounts();
    for (std::uint64_t const count : {dropped.foreign, dropped.malformed, dropped.unsolicited, dropped.stale,
                                      dropped.otherObject, dropped.misfit, dropped.duplicate}) {
        EXPECT_GT(count, 200U);
    }
    EXPECT_GT(trials.outcomes[static_cast<std::size_t>(SdoOutcome::Done)], 2000U);
    EXPECT_GT(trials.outcomes[static_cast<std::size_t>(SdoOutcome::Aborted)], 200U);
    EXPECT_GT(trials.outcomes[static_cast<std::size_t>(SdoOutcome::TimedOut)], 2000U);
}

// Ten times 10,000 are the hundred thousand.
INSTANTIATE_TEST_SUITE_P(Seeds, SdoLateAnswers, testing::Range(1U, 11U));

} // namespace
