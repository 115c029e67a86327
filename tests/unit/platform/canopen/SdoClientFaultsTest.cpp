// SPDX-License-Identifier: Apache-2.0
// Everything that a node can do wrong towards the SDO client, frame by frame. Frames are written out as they
// stand in CiA 301; short ones are as long as they are written.
#include "support/SdoLoopback.h"

#include <velmor/kepla/canopen/SdoError.h>

#include <gtest/gtest.h>

#include <charconv>
#include <limits>
#include <sstream>
#include <string>

using namespace velmor::kepla::canopen;
using libfieldwarden::test::FrameRecorder;

namespace {

using Bytes = std::vector<std::uint8_t>;
using std::chrono::milliseconds;

constexpr SdoObject kObject{0x3000, 0x01};
constexpr std::size_t kUnlimited = std::numeric_limits<std::size_t>::max();

Bytes hex(std::string const& aText) {
    Bytes bytes;
    std::istringstream words(aText);
    for (std::string word; words >> word;) {
        unsigned value = 256;
        std::from_chars(word.data(), word.data() + word.size(), value, 16);
        EXPECT_LT(value, 256U) << aText;
        bytes.push_back(static_cast<std::uint8_t>(value));
    }
    return bytes;
}

CanFrame frameOf(std::uint32_t aId, std::string const& aText) {
    Bytes const bytes = hex(aText);
    EXPECT_LE(bytes.size(), 8U) << aText;
    CanFrame frame{aId, static_cast<std::uint8_t>(bytes.size()), {}};
    std::copy(bytes.begin(), bytes.end(), frame.data.begin());
    return frame;
}

std::string toText(CanFrame const& aFrame) {
    std::ostringstream text;
    text << std::hex << aFrame.id << " [" << int{aFrame.length} << "]";
    for (std::size_t i = 0; i < aFrame.length; ++i) {
        text << ' ' << int{aFrame.data[i]};
    }
    return text.str();
}

/// A client of node 8 with a scripted node.
struct Bench {
    explicit Bench(SdoClientSettings const& aSettings)
        : client(8, sink, aSettings) {}

    void expectSilence() {
        for (CanFrame const& frame : sink.take()) {
            ADD_FAILURE() << "not expected: " << toText(frame);
        }
    }

    FrameRecorder sink;
    SdoClientCore client;
    Bytes source; ///< What is being written.
    velmor::platform::Clock::TimePoint now{std::chrono::hours(1)};
};

/// One line of a script: plain data, so that the long tables below compile fast.
struct Step {
    void (*run)(Bench&, Step const&);
    char const* text = "";                          ///< Bytes of a frame or of data, in hexadecimal digits.
    std::uint64_t number = 0;                       ///< Identifier, limit, count, time or abort code.
    SdoObject object = kObject;                     ///< Of a read.
    SdoMode mode = SdoMode::Segmented;              ///< Of a transfer.
    SdoOutcome outcome = SdoOutcome::Done;          ///< Of a transfer.
    std::uint64_t SdoDropCounts::*reason = nullptr; ///< For which a frame is dropped.
};

void runUp(Bench& aBench, Step const& aStep) {
    aBench.expectSilence();
    aBench.client.startUpload(aStep.object, aStep.number, aBench.now, aStep.mode);
}

void runDown(Bench& aBench, Step const& aStep) {
    aBench.expectSilence();
    aBench.source = hex(aStep.text);
    aBench.client.startDownload(kObject, aBench.source, aStep.mode, aBench.now);
}

void runFrom(Bench& aBench, Step const& aStep) {
    SCOPED_TRACE(testing::Message() << "in " << aStep.text);
    aBench.expectSilence();
    aBench.client.onFrame(frameOf(static_cast<std::uint32_t>(aStep.number), aStep.text), aBench.now);
}

void runOut(Bench& aBench, Step const& aStep) {
    std::vector<CanFrame>& frames = aBench.sink.frames();
    if (frames.empty()) {
        ADD_FAILURE() << "did not come out: " << aStep.text;
        return;
    }
    EXPECT_EQ(toText(frames.front()), toText(frameOf(0x608, aStep.text)));
    frames.erase(frames.begin());
}

void runWait(Bench& aBench, Step const& aStep) {
    aBench.expectSilence();
    aBench.now += milliseconds(aStep.number);
    aBench.client.onTime(aBench.now);
}

void runEnds(Bench& aBench, Step const& aStep) {
    SdoResult const& result = aBench.client.result();
    EXPECT_FALSE(aBench.client.busy());
    EXPECT_EQ(static_cast<int>(result.outcome), static_cast<int>(aStep.outcome)) << result.words;
    EXPECT_EQ(result.abortCode, aStep.number) << std::hex << result.abortCode;
}

void runBrings(Bench& aBench, Step const& aStep) {
    runEnds(aBench, aStep);
    EXPECT_FALSE(aBench.client.result().sizeIsOpen);
    EXPECT_EQ(Bytes(aBench.client.data().begin(), aBench.client.data().end()), hex(aStep.text));
}

void runRefused(Bench& aBench, Step const& aStep) {
    runEnds(aBench, aStep);
    EXPECT_TRUE(aBench.client.result().refused);
}

void runAborted(Bench& aBench, Step const& aStep) {
    runEnds(aBench, aStep);
    EXPECT_FALSE(aBench.client.result().refused);
}

void runTimedOutUnsent(Bench& aBench, Step const& aStep) {
    runEnds(aBench, aStep);
    EXPECT_FALSE(aBench.client.result().requestSent);
}

void runTimedOut(Bench& aBench, Step const& aStep) {
    runEnds(aBench, aStep);
    EXPECT_TRUE(aBench.client.result().requestSent);
}

void runBringsOfOpenSize(Bench& aBench, Step const& aStep) {
    EXPECT_TRUE(aBench.client.result().sizeIsOpen);
    EXPECT_EQ(Bytes(aBench.client.data().begin(), aBench.client.data().end()), hex(aStep.text));
}

void runDropped(Bench& aBench, Step const& aStep) {
    EXPECT_EQ(aBench.client.dropCounts().*aStep.reason, aStep.number);
}

/// Reads the object, or another one.
consteval Step up(SdoObject aObject = kObject, std::size_t aLimit = 100) {
    return {.run = runUp, .number = aLimit, .object = aObject};
}

consteval Step blockUp(std::size_t aLimit = 100) {
    return {.run = runUp, .number = aLimit, .mode = SdoMode::Block};
}

consteval Step down(char const* aData, SdoMode aMode = SdoMode::Segmented) {
    return {.run = runDown, .text = aData, .mode = aMode};
}

consteval Step blockDown(char const* aData) {
    return down(aData, SdoMode::Block);
}

/// A frame comes.
consteval Step from(std::uint32_t aId, char const* aFrame) {
    return {.run = runFrom, .text = aFrame, .number = aId};
}

/// A frame of the node comes.
consteval Step in(char const* aFrame) {
    return from(0x588, aFrame);
}

/// A frame goes out.
consteval Step out(char const* aFrame) {
    return {.run = runOut, .text = aFrame};
}

consteval Step wait(milliseconds aTime) {
    return {.run = runWait, .number = static_cast<std::uint64_t>(aTime.count())};
}

consteval Step cancel() {
    return {.run = [](Bench& aBench, Step const&) { aBench.client.cancel(); }};
}

consteval Step restart() {
    return {.run = [](Bench& aBench, Step const&) { aBench.client.nodeRestarted(); }};
}

/// The transfer is over.
consteval Step ends(SdoOutcome aOutcome, std::uint32_t aCode) {
    return {.run = runEnds, .number = aCode, .outcome = aOutcome};
}

consteval Step done() {
    return ends(SdoOutcome::Done, 0);
}

/// The transfer is over and brought this.
consteval Step brings(char const* aData) {
    return {.run = runBrings, .text = aData};
}

/// The transfer is over and brought this without saying how much of it counts.
consteval Step bringsOfOpenSize(char const* aData) {
    return {.run = runBringsOfOpenSize, .text = aData};
}

/// The node has given the transfer up in answer to the request.
consteval Step refused(std::uint32_t aCode) {
    return {.run = runRefused, .number = aCode, .outcome = SdoOutcome::Aborted};
}

/// The node has given the transfer up in its middle.
consteval Step aborted(std::uint32_t aCode) {
    return {.run = runAborted, .number = aCode, .outcome = SdoOutcome::Aborted};
}

consteval Step broken(std::uint32_t aCode) {
    return ends(SdoOutcome::ProtocolError, aCode);
}

/// The transfer is over for want of an answer.
consteval Step timedOut(bool aRequestSent = true) {
    return {.run = aRequestSent ? runTimedOut : runTimedOutUnsent,
            .number = 0x05040000,
            .outcome = SdoOutcome::TimedOut};
}

consteval Step stillBusy() {
    return {.run = [](Bench& aBench, Step const&) { EXPECT_TRUE(aBench.client.busy()); }};
}

/// So many frames were dropped for this reason.
consteval Step dropped(std::uint64_t SdoDropCounts::*aReason, std::uint64_t aCount = 1) {
    return {.run = runDropped, .number = aCount, .reason = aReason};
}

consteval Step noneDropped() {
    return {.run = [](Bench& aBench, Step const&) { EXPECT_EQ(aBench.client.dropCounts().total(), 0U); }};
}

consteval Step memoryBelow(std::size_t aBytes) {
    return {.run = [](Bench& aBench,
                      Step const& aStep) { EXPECT_LT(aBench.client.bufferCapacity(), aStep.number); },
            .number = aBytes};
}

struct Case {
    char const* name;
    std::vector<Step> steps;
};

// What comes again and again.
constexpr char const* kRead = "40 00 30 01 00 00 00 00";        // read 0x3000:01
constexpr char const* kTimeout = "80 00 30 01 00 00 04 05";     // give 0x3000:01 up: time-out
constexpr char const* kSync = "40 00 10 00 00 00 00 00";        // read 0x1000:00
constexpr char const* kSyncAnswer = "43 00 10 00 91 01 0F 00";  // device type 0x000F0191
constexpr char const* kSync2 = "40 01 10 00 00 00 00 00";       // read 0x1001:00
constexpr char const* kSync2Answer = "4F 01 10 00 00 00 00 00"; // no error
constexpr char const* kTen = "01 02 03 04 05 06 07 08 09 0A";   // check sum 0xCD4B
constexpr char const* kTwentyEight =                            // check sum 0x2F09
    "01 02 03 04 05 06 07 08 09 0A 0B 0C 0D 0E 0F 10 11 12 13 14 15 16 17 18 19 1A 1B 1C";
// Its four segments in blocks of three.
constexpr char const* kS1 = "01 01 02 03 04 05 06 07";
constexpr char const* kS2 = "02 08 09 0A 0B 0C 0D 0E";
constexpr char const* kS3 = "03 0F 10 11 12 13 14 15";
constexpr char const* kS4 = "81 16 17 18 19 1A 1B 1C"; // the last, first of its block
constexpr char const* kBlockRead = "A4 00 30 01 03 00 00 00";
constexpr char const* kBlockOpen = "C6 00 30 01 1C 00 00 00"; // 28 bytes, with check sum
constexpr char const* kBlockStart = "A3 00 00 00 00 00 00 00";
constexpr char const* kBlockWrite = "C6 00 30 01 0A 00 00 00"; // 10 bytes
constexpr char const* kW1 = "01 01 02 03 04 05 06 07";
constexpr char const* kW2 = "82 08 09 0A 00 00 00 00";
constexpr char const* kWriteEnd = "D1 4B CD 00 00 00 00 00"; // 4 bytes of the last segment are no data

using Drop = SdoDropCounts;

std::vector<Case> readCases() {
    return {
        {"four bytes",
         {up(), out(kRead), in("43 00 30 01 78 56 34 12"), brings("78 56 34 12"), noneDropped()}},
        {"three bytes", {up(), out(kRead), in("47 00 30 01 78 56 34 00"), brings("78 56 34")}},
        {"two bytes", {up(), out(kRead), in("4B 00 30 01 78 56 00 00"), brings("78 56")}},
        {"one byte", {up(), out(kRead), in("4F 00 30 01 78 00 00 00"), brings("78")}},
        {"size of expedited data not told",
         {up(), out(kRead), in("42 00 30 01 78 56 34 12"), bringsOfOpenSize("78 56 34 12"),
          up({0x3000, 0x02}), out("40 00 30 02 00 00 00 00"), in("43 00 30 02 78 56 34 12"),
          brings("78 56 34 12")}},
        {"more expedited data than accepted",
         {up(kObject, 2), out(kRead), in("43 00 30 01 78 56 34 12"), out("80 00 30 01 05 00 04 05"),
          broken(0x05040005)}},
        {"refused", {up(), out(kRead), in("80 00 30 01 00 00 02 06"), refused(0x06020000)}},
        {"refused with a code of the device's own",
         {up(), out(kRead), in("80 00 30 01 EF BE AD DE"), refused(0xDEADBEEF)}},
        {"no answer",
         {up(), out(kRead), wait(milliseconds(999)), stillBusy(), wait(milliseconds(1)), out(kTimeout),
          timedOut()}},
        {"short frame",
         {up(), out(kRead), in("43 00 30 01 78 56 34"), dropped(&Drop::malformed), wait(milliseconds(1000)),
          out(kTimeout), timedOut()}},
        {"empty frame before the answer",
         {up(), out(kRead), in(""), dropped(&Drop::malformed), in("43 00 30 01 01 00 00 00"),
          brings("01 00 00 00")}},
        {"answer of another node",
         {up(), out(kRead), from(0x589, "43 00 30 01 BA D0 00 00"), dropped(&Drop::foreign),
          in("43 00 30 01 01 00 00 00"), brings("01 00 00 00")}},
        {"refusal of another node",
         {up(), out(kRead), from(0x587, "80 00 30 01 00 00 02 06"), dropped(&Drop::foreign),
          in("43 00 30 01 01 00 00 00"), brings("01 00 00 00")}},
        {"own request heard back",
         {up(), out(kRead), from(0x608, kRead), dropped(&Drop::foreign), in("43 00 30 01 01 00 00 00"),
          brings("01 00 00 00")}},
        {"answer for another index",
         {up(), out(kRead), in("43 01 30 01 BA D0 00 00"), dropped(&Drop::otherObject),
          in("43 00 30 01 01 00 00 00"), brings("01 00 00 00")}},
        {"answer for another subindex",
         {up(), out(kRead), in("43 00 30 02 BA D0 00 00"), dropped(&Drop::otherObject),
          in("43 00 30 01 01 00 00 00"), brings("01 00 00 00")}},
        {"abort for another object",
         {up(), out(kRead), in("80 00 30 02 00 00 02 06"), dropped(&Drop::otherObject),
          in("43 00 30 01 01 00 00 00"), brings("01 00 00 00")}},
        {"acknowledgement of a write instead of an answer",
         {up(), out(kRead), in("60 00 30 01 00 00 00 00"), dropped(&Drop::misfit), wait(milliseconds(1000)),
          out(kTimeout), timedOut()}},
        {"unknown command",
         {up(), out(kRead), in("E0 00 30 01 00 00 00 00"), dropped(&Drop::misfit),
          in("43 00 30 01 01 00 00 00"), brings("01 00 00 00")}},
        {"opening of a block instead of an answer",
         {up(), out(kRead), in("C6 00 30 01 04 00 00 00"), dropped(&Drop::misfit),
          in("43 00 30 01 01 00 00 00"), brings("01 00 00 00")}},
        {"segment instead of an answer",
         {up(), out(kRead), in("01 01 02 03 04 05 06 07"), dropped(&Drop::misfit),
          in("43 00 30 01 01 00 00 00"), brings("01 00 00 00")}},
        {"answer that nobody asked for",
         {in("43 00 30 01 BA D0 00 00"), dropped(&Drop::unsolicited), up(), out(kSync), in(kSyncAnswer),
          out(kRead), in("43 00 30 01 01 00 00 00"), brings("01 00 00 00")}},
        {"cancelled",
         {up(), out(kRead), cancel(), out("80 00 30 01 00 00 00 08"),
          ends(SdoOutcome::Cancelled, 0x08000000)}},
    };
}

std::vector<Case> lateCases() {
    return {
        {"late answer while nothing is asked",
         {up(), out(kRead), wait(milliseconds(1000)), out(kTimeout), timedOut(),
          in("43 00 30 01 BA D0 00 00"), dropped(&Drop::unsolicited)}},
        {"late answer during the next request for the same object",
         {up(), out(kRead), wait(milliseconds(1000)), out(kTimeout), timedOut(), up(), out(kSync),
          in("43 00 30 01 BA D0 00 00"), dropped(&Drop::stale), in(kSyncAnswer), out(kRead),
          in("43 00 30 01 01 00 00 00"), brings("01 00 00 00")}},
        {"late answer during the next request for another object",
         {up(), out(kRead), wait(milliseconds(1000)), out(kTimeout), timedOut(), up({0x3000, 2}), out(kSync),
          in("43 00 30 01 BA D0 00 00"), dropped(&Drop::stale), in(kSyncAnswer),
          out("40 00 30 02 00 00 00 00"), in("43 00 30 02 01 00 00 00"), brings("01 00 00 00")}},
        {"late refusal during the next request",
         {up(), out(kRead), wait(milliseconds(1000)), out(kTimeout), timedOut(), up(), out(kSync),
          in("80 00 30 01 00 00 02 06"), dropped(&Drop::stale), in(kSyncAnswer), out(kRead),
          in("43 00 30 01 01 00 00 00"), brings("01 00 00 00")}},
        {"late opening of segments during the next request",
         {up(), out(kRead), wait(milliseconds(1000)), out(kTimeout), timedOut(), up(), out(kSync),
          in("41 00 30 01 0A 00 00 00"), dropped(&Drop::stale), in(kSyncAnswer), out(kRead),
          in("43 00 30 01 01 00 00 00"), brings("01 00 00 00")}},
        {"late acknowledgement during the next write of the same object",
         {down("01 00 00 00"), out("23 00 30 01 01 00 00 00"), wait(milliseconds(1000)), out(kTimeout),
          timedOut(), down("02 00 00 00"), out(kSync), in("60 00 30 01 00 00 00 00"), dropped(&Drop::stale),
          in(kSyncAnswer), out("23 00 30 01 02 00 00 00"), in("80 00 30 01 30 00 09 06"),
          refused(0x06090030)}},
        {"synchronising read unanswered too",
         {up(), out(kRead), wait(milliseconds(1000)), out(kTimeout), timedOut(), up(), out(kSync),
          wait(milliseconds(1000)), out("80 00 10 00 00 00 04 05"), timedOut(false), up(), out(kSync2),
          in("43 00 30 01 BA D0 00 00"), in(kSyncAnswer), dropped(&Drop::stale, 2), in(kSync2Answer),
          out(kRead), in("43 00 30 01 01 00 00 00"), brings("01 00 00 00")}},
        {"a write behind an unanswered synchronising read was never sent",
         {up(), out(kRead), wait(milliseconds(1000)), out(kTimeout), down("01"), out(kSync),
          wait(milliseconds(1000)), out("80 00 10 00 00 00 04 05"), timedOut(false)}},
        {"node silent for long, late answers to everything",
         {up(),
          out(kRead),
          wait(milliseconds(1000)),
          out(kTimeout),
          up(),
          out(kSync),
          wait(milliseconds(1000)),
          out("80 00 10 00 00 00 04 05"),
          up(),
          out(kSync2),
          wait(milliseconds(1000)),
          out("80 01 10 00 00 00 04 05"),
          up(),
          out("40 18 10 00 00 00 00 00"),
          wait(milliseconds(1000)),
          out("80 18 10 00 00 00 04 05"),
          up(),
          out("40 18 10 01 00 00 00 00"),
          wait(milliseconds(1000)),
          out("80 18 10 01 00 00 04 05"),
          up(),
          out("40 00 10 01 00 00 00 00"),
          in("43 00 30 01 BA D0 00 00"),
          in(kSyncAnswer),
          in(kSync2Answer),
          in("4F 18 10 00 04 00 00 00"),
          in("43 18 10 01 01 00 00 00"),
          dropped(&Drop::stale, 5),
          in("80 00 10 01 11 00 09 06"),
          out(kRead),
          in("43 00 30 01 01 00 00 00"),
          brings("01 00 00 00")}},
        {"late answer when the next request is for the synchronising object",
         {up({0x1000, 0}), out(kSync), wait(milliseconds(1000)), out("80 00 10 00 00 00 04 05"),
          up({0x1000, 0}), out(kSync2), in("43 00 10 00 BA D0 00 00"), in(kSync2Answer), out(kSync),
          in(kSyncAnswer), brings("91 01 0F 00")}},
        {"synchronising read refused",
         {up(), out(kRead), wait(milliseconds(1000)), out(kTimeout), up(), out(kSync),
          in("80 00 10 00 00 00 02 06"), out(kRead), in("43 00 30 01 01 00 00 00"), brings("01 00 00 00")}},
        {"synchronising read answered in segments",
         {up(), out(kRead), wait(milliseconds(1000)), out(kTimeout), up(), out(kSync),
          in("41 00 10 00 09 00 00 00"), out("80 00 10 00 00 00 00 08"), out(kRead),
          in("43 00 30 01 01 00 00 00"), brings("01 00 00 00")}},
        {"second copy while nothing is asked",
         {up(), out(kRead), in("43 00 30 01 01 00 00 00"), brings("01 00 00 00"),
          in("43 00 30 01 01 00 00 00"), dropped(&Drop::duplicate), brings("01 00 00 00")}},
        {"second copy during the next request for the same object",
         {up(), out(kRead), in("43 00 30 01 01 00 00 00"), brings("01 00 00 00"), wait(milliseconds(4)), up(),
          out(kSync), in("43 00 30 01 01 00 00 00"), dropped(&Drop::stale), in(kSyncAnswer), out(kRead),
          in("43 00 30 01 02 00 00 00"), brings("02 00 00 00")}},
        {"second copy during the next request for another object",
         {up(), out(kRead), in("43 00 30 01 01 00 00 00"), brings("01 00 00 00"), up({0x3000, 2}),
          out("40 00 30 02 00 00 00 00"), in("43 00 30 01 01 00 00 00"), dropped(&Drop::duplicate),
          in("43 00 30 02 02 00 00 00"), brings("02 00 00 00")}},
        {"second copy of a refusal",
         {up(), out(kRead), in("80 00 30 01 24 00 00 08"), refused(0x08000024), up(), out(kSync),
          in("80 00 30 01 24 00 00 08"), dropped(&Drop::stale), in(kSyncAnswer), out(kRead),
          in("43 00 30 01 02 00 00 00"), brings("02 00 00 00")}},
        {"second copy of an acknowledgement during the next write",
         {down("01"), out("2F 00 30 01 01 00 00 00"), in("60 00 30 01 00 00 00 00"), done(), down("02"),
          out(kSync), in("60 00 30 01 00 00 00 00"), dropped(&Drop::stale), in(kSyncAnswer),
          out("2F 00 30 01 02 00 00 00"), in("80 00 30 01 30 00 09 06"), refused(0x06090030)}},
        {"no synchronising read between a write and a read",
         {down("01"), out("2F 00 30 01 01 00 00 00"), in("60 00 30 01 00 00 00 00"), done(), up(), out(kRead),
          in("4F 00 30 01 01 00 00 00"), brings("01")}},
        {"no synchronising read when the last answer is old",
         {up(), out(kRead), in("4F 00 30 01 01 00 00 00"), brings("01"), wait(milliseconds(5)), up(),
          out(kRead), in("4F 00 30 01 02 00 00 00"), brings("02")}},
        {"no synchronising read after the node's restart",
         {up(), out(kRead), wait(milliseconds(1000)), out(kTimeout), restart(), up(), out(kRead),
          in("4F 00 30 01 02 00 00 00"), brings("02")}},
    };
}

std::vector<Case> segmentCases() {
    constexpr char const* open10 = "41 00 30 01 0A 00 00 00";
    constexpr char const* open = "40 00 30 01 00 00 00 00"; // size not told
    constexpr char const* first = "00 01 02 03 04 05 06 07";
    constexpr char const* last = "19 08 09 0A 00 00 00 00"; // three bytes, toggled, the last
    constexpr char const* ask0 = "60 00 00 00 00 00 00 00";
    constexpr char const* ask1 = "70 00 00 00 00 00 00 00";
    return {
        {"segments",
         {up(), out(kRead), in(open10), out(ask0), in(first), out(ask1), in(last), brings(kTen),
          noneDropped()}},
        {"segments without a told size",
         {up(), out(kRead), in(open), out(ask0), in(first), out(ask1), in(last), brings(kTen)}},
        {"segments of nothing",
         {up(), out(kRead), in("41 00 30 01 00 00 00 00"), out(ask0), in("0F 00 00 00 00 00 00 00"),
          brings("")}},
        {"half empty segment in the middle",
         {up(), out(kRead), in("41 00 30 01 04 00 00 00"), out(ask0), in("0A 01 02 00 00 00 00 00"),
          out(ask1), in("1B 03 04 00 00 00 00 00"), brings("01 02 03 04")}},
        {"first segment with the wrong toggle bit",
         {up(), out(kRead), in(open10), out(ask0), in("10 01 02 03 04 05 06 07"),
          out("80 00 30 01 00 00 03 05"), broken(0x05030000)}},
        {"second segment with the wrong toggle bit",
         {up(), out(kRead), in(open10), out(ask0), in(first), out(ask1), in("09 08 09 0A 00 00 00 00"),
          out("80 00 30 01 00 00 03 05"), broken(0x05030000)}},
        {"segment twice",
         {up(), out(kRead), in(open10), out(ask0), in(first), out(ask1), in(first), dropped(&Drop::duplicate),
          in(last), brings(kTen)}},
        {"opening twice",
         {up(), out(kRead), in(open10), out(ask0), in(open10), dropped(&Drop::duplicate), in(first),
          out(ask1), in(last), brings(kTen)}},
        {"last segment twice",
         {up(), out(kRead), in(open10), out(ask0), in(first), out(ask1), in(last), in(last),
          dropped(&Drop::duplicate), brings(kTen)}},
        {"last segment twice, read by the next request",
         {up(), out(kRead), in(open10), out(ask0), in(first), out(ask1), in(last), brings(kTen), up(),
          out(kRead), in(last), dropped(&Drop::duplicate), in(open10), out(ask0), in(first), out(ask1),
          in(last), brings(kTen)}},
        {"ends before its told size",
         {up(), out(kRead), in("41 00 30 01 0B 00 00 00"), out(ask0), in(first), out(ask1), in(last),
          out("80 00 30 01 13 00 07 06"), broken(0x06070013)}},
        {"runs past its told size",
         {up(), out(kRead), in("41 00 30 01 09 00 00 00"), out(ask0), in(first), out(ask1), in(last),
          out("80 00 30 01 12 00 07 06"), broken(0x06070012)}},
        {"goes on behind its told size",
         {up(), out(kRead), in("41 00 30 01 07 00 00 00"), out(ask0), in(first), out(ask1),
          in("10 08 09 0A 0B 0C 0D 0E"), out("80 00 30 01 12 00 07 06"), broken(0x06070012)}},
        {"4 GiB announced",
         {up(), out(kRead), in("41 00 30 01 FF FF FF FF"), out("80 00 30 01 05 00 04 05"), broken(0x05040005),
          memoryBelow(65)}},
        {"4 GiB announced where any size is accepted",
         {up(kObject, kUnlimited), out(kRead), in("41 00 30 01 FF FF FF FF"), out(ask0), in(first), out(ask1),
          in("11 08 09 0A 0B 0C 0D 0E"), out("80 00 30 01 13 00 07 06"), broken(0x06070013),
          memoryBelow(65)}},
        {"never ending",
         {up(kObject, 13), out(kRead), in(open), out(ask0), in(first), out(ask1),
          in("10 08 09 0A 0B 0C 0D 0E"), out("80 00 30 01 05 00 04 05"), broken(0x05040005)}},
        {"empty segment that is not the last",
         {up(), out(kRead), in(open), out(ask0), in("0E 00 00 00 00 00 00 00"),
          out("80 00 30 01 10 00 07 06"), broken(0x06070010)}},
        {"abort after the opening",
         {up(), out(kRead), in(open10), out(ask0), in("80 00 30 01 00 00 06 06"), aborted(0x06060000)}},
        {"abort after a segment",
         {up(), out(kRead), in(open10), out(ask0), in(first), out(ask1), in("80 00 30 01 00 00 00 08"),
          aborted(0x08000000)}},
        {"abort for another object among segments",
         {up(), out(kRead), in(open10), out(ask0), in("80 00 30 02 00 00 00 08"), dropped(&Drop::otherObject),
          in(first), out(ask1), in(last), brings(kTen)}},
        {"silence after the opening",
         {up(), out(kRead), in(open10), out(ask0), wait(milliseconds(1000)), out(kTimeout), timedOut()}},
        {"silence after a segment",
         {up(), out(kRead), in(open10), out(ask0), wait(milliseconds(900)), in(first), out(ask1),
          wait(milliseconds(999)), stillBusy(), wait(milliseconds(1)), out(kTimeout), timedOut()}},
        {"late segment during the next request",
         {up(),
          out(kRead),
          in(open10),
          out(ask0),
          in(first),
          out(ask1),
          wait(milliseconds(1000)),
          out(kTimeout),
          up(),
          out(kSync),
          in(last),
          dropped(&Drop::stale),
          in(kSyncAnswer),
          out(kRead),
          in(open10),
          out(ask0),
          in(first),
          out(ask1),
          in(last),
          brings(kTen)}},
        {"short segment",
         {up(), out(kRead), in(open10), out(ask0), in("00 01 02 03 04 05 06"), dropped(&Drop::malformed),
          wait(milliseconds(1000)), out(kTimeout), timedOut()}},
        {"acknowledgement of a write among segments",
         {up(), out(kRead), in(open10), out(ask0), in("20 00 00 00 00 00 00 00"), dropped(&Drop::misfit),
          in(first), out(ask1), in(last), brings(kTen)}},
        {"answer for another object among segments",
         {up(), out(kRead), in(open10), out(ask0), in("43 00 30 02 BA D0 00 00"), dropped(&Drop::otherObject),
          in(first), out(ask1), in(last), brings(kTen)}},
        {"segment of another node",
         {up(), out(kRead), in(open10), out(ask0), from(0x589, "01 BA D0 BA D0 BA D0 BA"),
          dropped(&Drop::foreign), in(first), out(ask1), in(last), brings(kTen)}},
    };
}

std::vector<Case> writeCases() {
    constexpr char const* ack = "60 00 30 01 00 00 00 00";
    constexpr char const* open10 = "21 00 30 01 0A 00 00 00";
    constexpr char const* first = "00 01 02 03 04 05 06 07";
    constexpr char const* last = "19 08 09 0A 00 00 00 00";
    constexpr char const* ack0 = "20 00 00 00 00 00 00 00";
    constexpr char const* ack1 = "30 00 00 00 00 00 00 00";
    return {
        {"write four bytes",
         {down("78 56 34 12"), out("23 00 30 01 78 56 34 12"), in(ack), done(), noneDropped()}},
        {"write three bytes", {down("78 56 34"), out("27 00 30 01 78 56 34 00"), in(ack), done()}},
        {"write two bytes", {down("78 56"), out("2B 00 30 01 78 56 00 00"), in(ack), done()}},
        {"write one byte", {down("78"), out("2F 00 30 01 78 00 00 00"), in(ack), done()}},
        {"write refused",
         {down("78"), out("2F 00 30 01 78 00 00 00"), in("80 00 30 01 02 00 01 06"), refused(0x06010002)}},
        {"write unanswered is not repeated",
         {down("78"), out("2F 00 30 01 78 00 00 00"), wait(milliseconds(1000)), out(kTimeout), timedOut(),
          wait(milliseconds(5000))}},
        {"wrong index in the acknowledgement",
         {down("78"), out("2F 00 30 01 78 00 00 00"), in("60 01 30 01 00 00 00 00"),
          dropped(&Drop::otherObject), wait(milliseconds(1000)), out(kTimeout), timedOut()}},
        {"wrong subindex in the acknowledgement",
         {down("78"), out("2F 00 30 01 78 00 00 00"), in("60 00 30 02 00 00 00 00"),
          dropped(&Drop::otherObject), in(ack), done()}},
        {"data instead of an acknowledgement",
         {down("78"), out("2F 00 30 01 78 00 00 00"), in("4F 00 30 01 78 00 00 00"), dropped(&Drop::misfit),
          wait(milliseconds(1000)), out(kTimeout), timedOut()}},
        {"short acknowledgement",
         {down("78"), out("2F 00 30 01 78 00 00 00"), in("60 00 30 01"), dropped(&Drop::malformed),
          wait(milliseconds(1000)), out(kTimeout), timedOut()}},
        {"acknowledgement of another node",
         {down("78"), out("2F 00 30 01 78 00 00 00"), from(0x58A, ack), dropped(&Drop::foreign),
          wait(milliseconds(1000)), out(kTimeout), timedOut()}},
        {"write segments",
         {down(kTen), out(open10), in(ack), out(first), in(ack0), out(last), in(ack1), done(),
          noneDropped()}},
        {"write nothing",
         {down(""), out("21 00 30 01 00 00 00 00"), in(ack), out("0F 00 00 00 00 00 00 00"), in(ack0),
          done()}},
        {"wrong index in the acknowledgement of the opening",
         {down(kTen), out(open10), in("60 00 31 01 00 00 00 00"), dropped(&Drop::otherObject),
          wait(milliseconds(1000)), out(kTimeout), timedOut()}},
        {"opening refused", {down(kTen), out(open10), in("80 00 30 01 10 00 07 06"), refused(0x06070010)}},
        {"segment refused",
         {down(kTen), out(open10), in(ack), out(first), in("80 00 30 01 22 00 00 08"), aborted(0x08000022)}},
        {"last segment refused",
         {down(kTen), out(open10), in(ack), out(first), in(ack0), out(last), in("80 00 30 01 20 00 00 08"),
          aborted(0x08000020)}},
        {"first acknowledgement with the wrong toggle bit",
         {down(kTen), out(open10), in(ack), out(first), in(ack1), out("80 00 30 01 00 00 03 05"),
          broken(0x05030000)}},
        {"acknowledgement of a segment twice",
         {down(kTen), out(open10), in(ack), out(first), in(ack0), out(last), in(ack0),
          dropped(&Drop::duplicate), in(ack1), done()}},
        {"acknowledgement of the opening twice",
         {down(kTen), out(open10), in(ack), out(first), in(ack), dropped(&Drop::duplicate), in(ack0),
          out(last), in(ack1), done()}},
        {"last acknowledgement twice",
         {down(kTen), out(open10), in(ack), out(first), in(ack0), out(last), in(ack1), done(), in(ack1),
          dropped(&Drop::duplicate)}},
        {"abort for another object among written segments",
         {down(kTen), out(open10), in(ack), out(first), in("80 00 31 01 00 00 00 08"),
          dropped(&Drop::otherObject), in(ack0), out(last), in(ack1), done()}},
        {"silence after the opening of a write",
         {down(kTen), out(open10), wait(milliseconds(1000)), out(kTimeout), timedOut()}},
        {"silence after a written segment",
         {down(kTen), out(open10), in(ack), out(first), wait(milliseconds(1000)), out(kTimeout), timedOut()}},
        {"silence after the last written segment",
         {down(kTen), out(open10), in(ack), out(first), in(ack0), out(last), wait(milliseconds(1000)),
          out(kTimeout), timedOut()}},
        {"late acknowledgement of a segment during the next write",
         {down(kTen), out(open10), in(ack), out(first), wait(milliseconds(1000)), out(kTimeout), down(kTen),
          out(kSync), in(ack0), dropped(&Drop::stale), in(kSyncAnswer), out(open10), in(ack), out(first),
          in(ack0), out(last), in(ack1), done()}},
    };
}

/// The client takes blocks of three segments.
std::vector<Case> blockReadCases() {
    constexpr char const* took3 = "A2 03 03 00 00 00 00 00";
    constexpr char const* took1 = "A2 01 03 00 00 00 00 00";
    constexpr char const* took0 = "A2 00 03 00 00 00 00 00";
    constexpr char const* end = "C1 09 2F 00 00 00 00 00"; // all bytes of the last segment are data
    constexpr char const* ended = "A1 00 00 00 00 00 00 00";
    std::vector<Case> cases{
        {"block",
         {blockUp(), out(kBlockRead), in(kBlockOpen), out(kBlockStart), in(kS1), in(kS2), in(kS3), out(took3),
          in(kS4), out(took1), in(end), out(ended), brings(kTwentyEight), noneDropped()}},
        {"block of a node without check sums",
         {blockUp(), out(kBlockRead), in("C2 00 30 01 1C 00 00 00"), out(kBlockStart), in(kS1), in(kS2),
          in(kS3), out(took3), in(kS4), out(took1), in("C1 00 00 00 00 00 00 00"), out(ended),
          brings(kTwentyEight)}},
        {"block without a told size",
         {blockUp(), out(kBlockRead), in("C4 00 30 01 00 00 00 00"), out(kBlockStart), in(kS1), in(kS2),
          in(kS3), out(took3), in(kS4), out(took1), in(end), out(ended), brings(kTwentyEight)}},
        {"wrong check sum",
         {blockUp(), out(kBlockRead), in(kBlockOpen), out(kBlockStart), in(kS1), in(kS2), in(kS3), out(took3),
          in(kS4), out(took1), in("C1 08 2F 00 00 00 00 00"), out("80 00 30 01 04 00 04 05"),
          broken(0x05040004)}},
        {"block ends before its told size",
         {blockUp(), out(kBlockRead), in("C6 00 30 01 1D 00 00 00"), out(kBlockStart), in(kS1), in(kS2),
          in(kS3), out(took3), in(kS4), out(took1), in(end), out("80 00 30 01 13 00 07 06"),
          broken(0x06070013)}},
        {"block ends behind its told size",
         {blockUp(), out(kBlockRead), in("C6 00 30 01 1B 00 00 00"), out(kBlockStart), in(kS1), in(kS2),
          in(kS3), out(took3), in(kS4), out(took1), in(end), out("80 00 30 01 12 00 07 06"),
          broken(0x06070012)}},
        {"block runs past its told size",
         {blockUp(), out(kBlockRead), in("C6 00 30 01 0E 00 00 00"), out(kBlockStart), in(kS1), in(kS2),
          in(kS3), out("80 00 30 01 12 00 07 06"), broken(0x06070012)}},
        {"block runs past what is accepted",
         {blockUp(14), out(kBlockRead), in("C4 00 30 01 00 00 00 00"), out(kBlockStart), in(kS1), in(kS2),
          in(kS3), out("80 00 30 01 05 00 04 05"), broken(0x05040005)}},
        {"block with one byte more than accepted",
         {blockUp(27), out(kBlockRead), in("C4 00 30 01 00 00 00 00"), out(kBlockStart), in(kS1), in(kS2),
          in(kS3), out(took3), in(kS4), out(took1), in(end), out("80 00 30 01 05 00 04 05"),
          broken(0x05040005)}},
        {"4 GiB announced for a block",
         {blockUp(), out(kBlockRead), in("C6 00 30 01 FF FF FF FF"), out("80 00 30 01 05 00 04 05"),
          broken(0x05040005), memoryBelow(65)}},
        {"segment lost in a block",
         {blockUp(), out(kBlockRead), in(kBlockOpen), out(kBlockStart), in(kS1), in(kS3), out(took1),
          in("01 08 09 0A 0B 0C 0D 0E"), in("02 0F 10 11 12 13 14 15"), in("83 16 17 18 19 1A 1B 1C"),
          out(took3), in(end), out(ended), brings(kTwentyEight)}},
        {"first segment lost in a block",
         {blockUp(), out(kBlockRead), in(kBlockOpen), out(kBlockStart), in(kS2), in(kS3), out(took0), in(kS1),
          in(kS2), in(kS3), out(took3), in(kS4), out(took1), in(end), out(ended), brings(kTwentyEight)}},
        {"segments behind a gap win no time",
         {blockUp(), out(kBlockRead), in(kBlockOpen), out(kBlockStart), wait(milliseconds(600)), in(kS2),
          wait(milliseconds(399)), stillBusy(), in("02 00 00 00 00 00 00 00"), wait(milliseconds(1)),
          out(kTimeout), timedOut()}},
        {"first segment lost again and again",
         {blockUp(),
          out(kBlockRead),
          in(kBlockOpen),
          out(kBlockStart),
          in(kS2),
          in(kS3),
          out(took0),
          in(kS2),
          in(kS3),
          out(took0),
          in(kS2),
          in(kS3),
          out(took0),
          in(kS2),
          in(kS3),
          out(took0),
          in(kS2),
          in(kS3),
          out(took0),
          in(kS2),
          in(kS3),
          out(took0),
          in(kS2),
          in(kS3),
          out(took0),
          in(kS2),
          in(kS3),
          out(took0),
          in(kS2),
          in(kS3),
          out("80 00 30 01 03 00 04 05"),
          broken(0x05040003)}},
        {"segment of a block twice",
         {blockUp(), out(kBlockRead), in(kBlockOpen), out(kBlockStart), in(kS1), in(kS1),
          dropped(&Drop::duplicate), in(kS2), in(kS3), out(took3), in(kS4), out(took1), in(end), out(ended),
          brings(kTwentyEight)}},
        {"end of a block twice",
         {blockUp(), out(kBlockRead), in(kBlockOpen), out(kBlockStart), in(kS1), in(kS2), in(kS3), out(took3),
          in(kS3), dropped(&Drop::duplicate), in(kS4), out(took1), in(kS4), dropped(&Drop::duplicate, 2),
          in(end), out(ended), brings(kTwentyEight)}},
        {"opening of a block twice",
         {blockUp(), out(kBlockRead), in(kBlockOpen), out(kBlockStart), in(kBlockOpen),
          dropped(&Drop::duplicate), in(kS1), in(kS2), in(kS3), out(took3), in(kS4), out(took1), in(end),
          out(ended), brings(kTwentyEight)}},
        {"segment number 0",
         {blockUp(), out(kBlockRead), in(kBlockOpen), out(kBlockStart), in("00 01 02 03 04 05 06 07"),
          dropped(&Drop::misfit), in(kS1), in(kS2), in(kS3), out(took3), in(kS4), out(took1), in(end),
          out(ended), brings(kTwentyEight)}},
        {"segment number beyond the block",
         {blockUp(), out(kBlockRead), in(kBlockOpen), out(kBlockStart), in("04 01 02 03 04 05 06 07"),
          dropped(&Drop::misfit), wait(milliseconds(1000)), out(kTimeout), timedOut()}},
        {"node stops in the middle of a block",
         {blockUp(), out(kBlockRead), in(kBlockOpen), out(kBlockStart), in(kS1), wait(milliseconds(900)),
          in(kS2), wait(milliseconds(999)), stillBusy(), wait(milliseconds(1)), out(kTimeout), timedOut()}},
        {"node never starts the block",
         {blockUp(), out(kBlockRead), in(kBlockOpen), out(kBlockStart), wait(milliseconds(1000)),
          out(kTimeout), timedOut()}},
        {"node never ends the block",
         {blockUp(), out(kBlockRead), in(kBlockOpen), out(kBlockStart), in(kS1), in(kS2), in(kS3), out(took3),
          in(kS4), out(took1), wait(milliseconds(1000)), out(kTimeout), timedOut()}},
        {"rest of a block during the next request",
         {blockUp(), out(kBlockRead), in(kBlockOpen), out(kBlockStart), in(kS1), wait(milliseconds(1000)),
          out(kTimeout), up(), out(kSync), in(kS2), in(kS3), dropped(&Drop::stale, 2), in(kSyncAnswer),
          out(kRead), in("4F 00 30 01 02 00 00 00"), brings("02")}},
        {"block refused", {blockUp(), out(kBlockRead), in("80 00 30 01 01 00 04 05"), refused(0x05040001)}},
        {"block aborted in the middle",
         {blockUp(), out(kBlockRead), in(kBlockOpen), out(kBlockStart), in(kS1),
          in("80 00 30 01 00 00 06 06"), aborted(0x06060000)}},
        {"block aborted at its end",
         {blockUp(), out(kBlockRead), in(kBlockOpen), out(kBlockStart), in(kS1), in(kS2), in(kS3), out(took3),
          in(kS4), out(took1), in("80 00 30 01 00 00 00 08"), aborted(0x08000000)}},
        {"abort for another object in a block",
         {blockUp(), out(kBlockRead), in(kBlockOpen), out(kBlockStart), in(kS1),
          in("80 00 30 02 00 00 00 08"), dropped(&Drop::otherObject), in(kS2), in(kS3), out(took3), in(kS4),
          out(took1), in(end), out(ended), brings(kTwentyEight)}},
        {"wrong index in the opening of a block",
         {blockUp(), out(kBlockRead), in("C6 00 31 01 1C 00 00 00"), dropped(&Drop::otherObject),
          wait(milliseconds(1000)), out(kTimeout), timedOut()}},
        {"end of the block too early",
         {blockUp(), out(kBlockRead), in(kBlockOpen), out(kBlockStart), in(kS1), in(end),
          dropped(&Drop::misfit), in(kS2), in(kS3), out(took3), in(kS4), out(took1), in(end), out(ended),
          brings(kTwentyEight)}},
        {"something else instead of the end",
         {blockUp(), out(kBlockRead), in(kBlockOpen), out(kBlockStart), in(kS1), in(kS2), in(kS3), out(took3),
          in(kS4), out(took1), in("43 00 30 01 00 00 00 00"), dropped(&Drop::misfit), in(end), out(ended),
          brings(kTwentyEight)}},
    };
    return cases;
}

std::vector<Case> blockWriteCases() {
    constexpr char const* open = "A4 00 30 01 7F 00 00 00"; // blocks of 127, with check sum
    constexpr char const* took2 = "A2 02 7F 00 00 00 00 00";
    constexpr char const* ended = "A1 00 00 00 00 00 00 00";
    return {
        {"write a block",
         {blockDown(kTen), out(kBlockWrite), in(open), out(kW1), out(kW2), in(took2), out(kWriteEnd),
          in(ended), done(), noneDropped()}},
        {"write a block to a node without check sums",
         {blockDown(kTen), out(kBlockWrite), in("A0 00 30 01 7F 00 00 00"), out(kW1), out(kW2), in(took2),
          out("D1 00 00 00 00 00 00 00"), in(ended), done()}},
        {"block of no segments asked for",
         {blockDown(kTen), out(kBlockWrite), in("A4 00 30 01 00 00 00 00"), out("80 00 30 01 02 00 04 05"),
          broken(0x05040002)}},
        {"block of 128 segments asked for",
         {blockDown(kTen), out(kBlockWrite), in("A4 00 30 01 80 00 00 00"), out("80 00 30 01 02 00 04 05"),
          broken(0x05040002)}},
        {"block confirmed in part",
         {blockDown(kTen), out(kBlockWrite), in(open), out(kW1), out(kW2), in("A2 01 7F 00 00 00 00 00"),
          out("81 08 09 0A 00 00 00 00"), in("A2 01 7F 00 00 00 00 00"), out(kWriteEnd), in(ended), done()}},
        {"block not confirmed at all",
         {blockDown(kTen), out(kBlockWrite), in(open), out(kW1), out(kW2), in("A2 00 7F 00 00 00 00 00"),
          out(kW1), out(kW2), in(took2), out(kWriteEnd), in(ended), done()}},
        {"more confirmed than sent",
         {blockDown(kTen), out(kBlockWrite), in(open), out(kW1), out(kW2), in("A2 03 7F 00 00 00 00 00"),
          out("80 00 30 01 03 00 04 05"), broken(0x05040003)}},
        {"block never confirmed",
         {blockDown("01"),
          out("C6 00 30 01 01 00 00 00"),
          in(open),
          out("81 01 00 00 00 00 00 00"),
          in("A2 00 7F 00 00 00 00 00"),
          out("81 01 00 00 00 00 00 00"),
          in("A2 00 7F 00 00 00 00 00"),
          out("81 01 00 00 00 00 00 00"),
          in("A2 00 7F 00 00 00 00 00"),
          out("81 01 00 00 00 00 00 00"),
          in("A2 00 7F 00 00 00 00 00"),
          out("81 01 00 00 00 00 00 00"),
          in("A2 00 7F 00 00 00 00 00"),
          out("81 01 00 00 00 00 00 00"),
          in("A2 00 7F 00 00 00 00 00"),
          out("81 01 00 00 00 00 00 00"),
          in("A2 00 7F 00 00 00 00 00"),
          out("81 01 00 00 00 00 00 00"),
          in("A2 00 7F 00 00 00 00 00"),
          out("81 01 00 00 00 00 00 00"),
          in("A2 00 7F 00 00 00 00 00"),
          out("80 00 30 01 03 00 04 05"),
          broken(0x05040003)}},
        {"block size changes on the way",
         {blockDown(kTen), out(kBlockWrite), in("A4 00 30 01 01 00 00 00"), out(kW1),
          in("A2 01 02 00 00 00 00 00"), out("81 08 09 0A 00 00 00 00"), in("A2 01 02 00 00 00 00 00"),
          out(kWriteEnd), in(ended), done()}},
        {"block size becomes 0 on the way",
         {blockDown(kTen), out(kBlockWrite), in("A4 00 30 01 01 00 00 00"), out(kW1),
          in("A2 01 00 00 00 00 00 00"), out("80 00 30 01 02 00 04 05"), broken(0x05040002)}},
        {"node silent after the block",
         {blockDown(kTen), out(kBlockWrite), in(open), out(kW1), out(kW2), wait(milliseconds(1000)),
          out(kTimeout), timedOut()}},
        {"node silent after the opening of the block",
         {blockDown(kTen), out(kBlockWrite), wait(milliseconds(1000)), out(kTimeout), timedOut()}},
        {"node silent at the end of the block",
         {blockDown(kTen), out(kBlockWrite), in(open), out(kW1), out(kW2), in(took2), out(kWriteEnd),
          wait(milliseconds(1000)), out(kTimeout), timedOut()}},
        {"block write refused",
         {blockDown(kTen), out(kBlockWrite), in("80 00 30 01 01 00 04 05"), refused(0x05040001)}},
        {"block write aborted in the middle",
         {blockDown(kTen), out(kBlockWrite), in(open), out(kW1), out(kW2), in("80 00 30 01 00 00 06 06"),
          aborted(0x06060000)}},
        {"node finds the check sum wrong",
         {blockDown(kTen), out(kBlockWrite), in(open), out(kW1), out(kW2), in(took2), out(kWriteEnd),
          in("80 00 30 01 04 00 04 05"), aborted(0x05040004)}},
        {"confirmation twice at the end",
         {blockDown(kTen), out(kBlockWrite), in(open), out(kW1), out(kW2), in(took2), out(kWriteEnd),
          in(took2), dropped(&Drop::duplicate), in(ended), done()}},
        {"end confirmed twice",
         {blockDown(kTen), out(kBlockWrite), in(open), out(kW1), out(kW2), in(took2), out(kWriteEnd),
          in(ended), done(), in(ended), dropped(&Drop::duplicate)}},
        {"wrong index in the opening of a block write",
         {blockDown(kTen), out(kBlockWrite), in("A4 00 31 01 7F 00 00 00"), dropped(&Drop::otherObject),
          wait(milliseconds(1000)), out(kTimeout), timedOut()}},
        {"abort for another object in a block write",
         {blockDown(kTen), out(kBlockWrite), in(open), out(kW1), out(kW2), in("80 00 31 01 00 00 06 06"),
          dropped(&Drop::otherObject), in(took2), out(kWriteEnd), in(ended), done()}},
        {"acknowledgement of segments in a block write",
         {blockDown(kTen), out(kBlockWrite), in(open), out(kW1), out(kW2), in("20 00 00 00 00 00 00 00"),
          dropped(&Drop::misfit), in(took2), out(kWriteEnd), in(ended), done()}},
        {"end confirmed before the block",
         {blockDown(kTen), out(kBlockWrite), in(open), out(kW1), out(kW2), in(ended), dropped(&Drop::misfit),
          in(took2), out(kWriteEnd), in(ended), done()}},
        {"second block opened at once",
         {blockDown(kTen), out(kBlockWrite), in("80 00 30 01 20 00 00 08"), refused(0x08000020),
          blockDown(kTen), out(kSync), in("80 00 30 01 20 00 00 08"), dropped(&Drop::stale), in(kSyncAnswer),
          out(kBlockWrite), in(open), out(kW1), out(kW2), in(took2), out(kWriteEnd), in(ended), done()}},
    };
}

/// Whatever happened, the next request succeeds, with at most a synchronising read before it.
void expectNextRequestSucceeds(Bench& aBench) {
    aBench.expectSilence();
    aBench.client.startUpload({0x3002, 0x01}, 4, aBench.now);
    for (int i = 0; i < 2 && aBench.client.busy(); ++i) {
        std::vector<CanFrame> const requests = aBench.sink.take();
        ASSERT_EQ(requests.size(), 1U);
        CanFrame answer = requests[0];
        ASSERT_EQ(answer.data[0], 0x40);
        answer.id = 0x588;
        answer.data[0] = 0x4F;
        answer.data[4] = 0x2A;
        aBench.client.onFrame(answer, aBench.now);
    }
    runBrings(aBench, brings("2A"));
    aBench.expectSilence();
}

class SdoClientFaults : public testing::TestWithParam<Case> {};

TEST_P(SdoClientFaults, EndsAsTheProtocolSaysAndLeavesTheNextRequestAlone) {
    SdoClientSettings settings;
    settings.uploadBlockSize = 3;
    Bench bench(settings);
    std::size_t number = 0;
    for (Step const& step : GetParam().steps) {
        SCOPED_TRACE(testing::Message() << "step " << ++number);
        step.run(bench, step);
    }
    bench.expectSilence();
    expectNextRequestSucceeds(bench);
}

std::string nameOf(testing::TestParamInfo<Case> const& aInfo) {
    std::string name(aInfo.param.name);
    for (char& letter : name) {
        letter = std::isalnum(static_cast<unsigned char>(letter)) != 0 ? letter : '_';
    }
    return name;
}

INSTANTIATE_TEST_SUITE_P(Reading, SdoClientFaults, testing::ValuesIn(readCases()), nameOf);
INSTANTIATE_TEST_SUITE_P(LateAnswers, SdoClientFaults, testing::ValuesIn(lateCases()), nameOf);
INSTANTIATE_TEST_SUITE_P(ReadingSegments, SdoClientFaults, testing::ValuesIn(segmentCases()), nameOf);
INSTANTIATE_TEST_SUITE_P(Writing, SdoClientFaults, testing::ValuesIn(writeCases()), nameOf);
INSTANTIATE_TEST_SUITE_P(ReadingBlocks, SdoClientFaults, testing::ValuesIn(blockReadCases()), nameOf);
INSTANTIATE_TEST_SUITE_P(WritingBlocks, SdoClientFaults, testing::ValuesIn(blockWriteCases()), nameOf);

TEST(SdoClientCore, RefusesASecondTransferAtATime) {
    FrameRecorder sink;
    SdoClientCore client(8, sink);
    client.startUpload(kObject, 4, {});
    EXPECT_THROW(client.startUpload(kObject, 4, {}), std::logic_error);
    EXPECT_THROW(client.startDownload(kObject, {}, SdoMode::Segmented, {}), std::logic_error);
}

TEST(SdoClientCore, RefusesNodesAndBlockSizesThatDoNotExist) {
    FrameRecorder sink;
    EXPECT_THROW(SdoClientCore(0, sink), std::invalid_argument);
    EXPECT_THROW(SdoClientCore(128, sink), std::invalid_argument);
    SdoClientSettings settings;
    settings.uploadBlockSize = 1;
    EXPECT_THROW(SdoClientCore(8, sink, settings), std::invalid_argument);
    settings.uploadBlockSize = 128;
    EXPECT_THROW(SdoClientCore(8, sink, settings), std::invalid_argument);
}

/// A sink whose link is down.
class BrokenSink final : public SdoFrameSink {
public:
    void sendFrame(CanFrame const& aFrame) override {
        if (broken) {
            throw std::runtime_error("link down");
        }
        sent.push_back(aFrame);
    }
    bool broken = false;
    std::vector<CanFrame> sent;
};

TEST(SdoClientCore, IsFreeForTheNextRequestWhenTheLinkBreaksInATransfer) {
    BrokenSink sink;
    SdoClientCore client(8, sink);
    sink.broken = true;
    EXPECT_THROW(client.startUpload(kObject, 4, {}), std::runtime_error);
    EXPECT_FALSE(client.busy());
    EXPECT_EQ(client.result().outcome, SdoOutcome::Cancelled);
    sink.broken = false;
    client.startUpload(kObject, 4, {});
    ASSERT_EQ(sink.sent.size(), 1U);
    EXPECT_EQ(sink.sent[0], frameOf(0x608, kSync)); // an answer may be under way all the same
}

TEST(SdoClientCore, StaysTimedOutWhenTheAbortCannotBeSent) {
    BrokenSink sink;
    SdoClientCore client(8, sink);
    client.startUpload(kObject, 4, {});
    sink.broken = true;
    EXPECT_THROW(client.onTime(velmor::platform::Clock::TimePoint(std::chrono::seconds(1))),
                 std::runtime_error);
    EXPECT_FALSE(client.busy());
    EXPECT_EQ(client.result().outcome, SdoOutcome::TimedOut);
}

TEST(SdoClientCore, TellsItsFailuresInWords) {
    Bench bench({});
    auto const words = [&](std::vector<Step> const& aSteps) {
        bench.now += std::chrono::seconds(10);
        for (Step const& step : aSteps) {
            step.run(bench, step);
        }
        bench.sink.take();
        try {
            bench.client.throwUnlessDone();
        } catch (SdoError const& error) {
            return std::string(error.what());
        }
        return std::string();
    };
    EXPECT_EQ(words({up(), out(kRead), in("4F 00 30 01 00 00 00 00")}), "");
    EXPECT_EQ(words({up(), out(kRead), in("80 00 30 01 11 00 09 06")}),
              "node 8, object 0x3000:01: SDO abort 0x06090011: Sub-index does not exist");
    EXPECT_EQ(words({up(kObject, 1), out(kRead), in("43 00 30 01 00 00 00 00")}),
              "node 8, object 0x3000:01: the node sent more than this object may have "
              "(SDO abort 0x05040005: Out of memory)");
    EXPECT_EQ(words({up(), out(kSync), wait(milliseconds(1000))}),
              "node 8, object 0x3000:01: no answer to the synchronising read, the request was not sent");
    EXPECT_EQ(words({up(), out(kSync2), in(kSync2Answer), out(kRead), wait(milliseconds(1000))}),
              "node 8, object 0x3000:01: no answer in time");
}

} // namespace
