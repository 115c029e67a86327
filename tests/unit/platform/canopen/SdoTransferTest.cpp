// SPDX-License-Identifier: Apache-2.0
// The SDO client against the SDO server: every way of transfer, every size.
#include "support/AllocationCount.h"
#include "support/SdoLoopback.h"

#include <velmor/kepla/canopen/SdoError.h>

#include <gtest/gtest.h>
#include <rapidcheck.h>
#include <rapidcheck/gtest.h>

#include <memory>
#include <numeric>

using namespace velmor::kepla::canopen;
using libfieldwarden::test::allocationsOfThisThread;
using libfieldwarden::test::ByteDictionary;
using libfieldwarden::test::SdoLoopback;

namespace {

using Bytes = std::vector<std::uint8_t>;

constexpr SdoObject kObject{0x3001, 0x01};
constexpr std::size_t kLimit = 1'000'000;

Bytes pattern(std::size_t aSize, unsigned aSeed = 1) {
    Bytes bytes(aSize);
    unsigned state = aSeed;
    for (std::uint8_t& byte : bytes) {
        state = state * 1664525U + 1013904223U;
        byte = static_cast<std::uint8_t>(state >> 24U);
    }
    return bytes;
}

Bytes read(SdoLoopback& aLoop, SdoMode aMode, SdoObject aObject = kObject) {
    aLoop.client.startUpload(aObject, kLimit, aLoop.now, aMode);
    aLoop.run();
    aLoop.client.throwUnlessDone();
    return {aLoop.client.data().begin(), aLoop.client.data().end()};
}

void write(SdoLoopback& aLoop, Bytes const& aData, SdoMode aMode) {
    aLoop.client.startDownload(kObject, aData, aMode, aLoop.now);
    aLoop.run();
    aLoop.client.throwUnlessDone();
}

struct Variant {
    char const* name;
    SdoServerSettings server;
    SdoClientSettings client;
};

std::vector<Variant> variants() {
    SdoServerSettings noSizes;
    noSizes.announceSizes = false;
    SdoServerSettings noCheckSums;
    noCheckSums.checkSums = false;
    SdoServerSettings singleSegments;
    singleSegments.blockSize = 1;
    SdoClientSettings smallBlocks;
    smallBlocks.uploadBlockSize = 2;
    SdoClientSettings largeBlocks;
    largeBlocks.uploadBlockSize = 127;
    return {{"Everything", {}, {}},
            {"SizesNotIndicated", noSizes, {}},
            {"NoCheckSums", noCheckSums, {}},
            {"SmallestBlocks", singleSegments, smallBlocks},
            {"LargestBlocks", {}, largeBlocks}};
}

class SdoTransfer : public testing::TestWithParam<Variant> {
protected:
    SdoTransfer() { mDictionary.at(kObject); }

    ByteDictionary mDictionary;
    SdoLoopback mLoop{mDictionary, GetParam().server, GetParam().client};
};

std::vector<std::size_t> sizes() {
    std::vector<std::size_t> all(601);
    std::iota(all.begin(), all.end(), 0U);
    all.insert(all.end(), {888, 889, 890, 1778, 4096, 16383, 65535, 65536});
    return all;
}

TEST_P(SdoTransfer, CarriesEverySizeBothWays) {
    for (std::size_t const size : sizes()) {
        for (SdoMode const mode : {SdoMode::Segmented, SdoMode::Block}) {
            SCOPED_TRACE(testing::Message() << size << (mode == SdoMode::Block ? " block" : " segmented"));
            Bytes const data = pattern(size, static_cast<unsigned>(size + 1));
            mDictionary.at(kObject).clear();
            ASSERT_NO_THROW(write(mLoop, data, mode));
            ASSERT_EQ(mDictionary.at(kObject), data);
            Bytes back;
            ASSERT_NO_THROW(back = read(mLoop, mode));
            ASSERT_EQ(back, data);
        }
    }
    EXPECT_EQ(mLoop.client.dropCounts().total(), 0U);
}

INSTANTIATE_TEST_SUITE_P(Variants, SdoTransfer, testing::ValuesIn(variants()), [](auto const& aInfo) {
    return std::string(aInfo.param.name);
});

TEST(SdoTransfer, TakesTheFramesThatTheProtocolNeedsAndNoMore) {
    ByteDictionary dictionary;
    SdoLoopback loop(dictionary);
    auto const frames = [&](std::size_t aSize, SdoMode aMode) {
        dictionary.at(kObject) = pattern(aSize);
        loop.now += std::chrono::seconds(1);
        loop.requests = loop.answers = 0;
        read(loop, aMode);
        return std::pair(loop.requests, loop.answers);
    };
    // Expedited: a question, an answer.
    EXPECT_EQ(frames(4, SdoMode::Segmented), std::pair(std::size_t{1}, std::size_t{1}));
    // 15 bytes are 3 segments, each asked for, behind the answer that opens the transfer.
    EXPECT_EQ(frames(15, SdoMode::Segmented), std::pair(std::size_t{4}, std::size_t{4}));
    // 15 bytes as one block of 3: request, start, confirmation, end; opening, 3 segments, end.
    EXPECT_EQ(frames(15, SdoMode::Block), std::pair(std::size_t{4}, std::size_t{5}));
    // 889 bytes are 127 segments, in blocks of 63 that is 63 + 63 + 1: one confirmation each.
    EXPECT_EQ(frames(889, SdoMode::Block), std::pair(std::size_t{6}, std::size_t{129}));
}

TEST(SdoTransfer, AnExpeditedRoundTripAllocatesNothing) {
    ByteDictionary dictionary;
    dictionary.at({0x3000, 1}) = {1, 2, 3, 4};
    dictionary.at({0x3000, 2}) = {5};
    SdoLoopback loop(dictionary);
    libfieldwarden::test::FrameRecorder requests;
    libfieldwarden::test::FrameRecorder answers;
    requests.frames().reserve(4);
    answers.frames().reserve(4);
    SdoClientCore client(8, requests);
    SdoServerCore server(8, dictionary, answers);
    Bytes const value{9, 8, 7, 6};
    std::size_t const before = allocationsOfThisThread();
    for (int i = 0; i < 100; ++i) {
        for (std::uint8_t const subindex : {std::uint8_t{1}, std::uint8_t{2}}) {
            client.startUpload({0x3000, subindex}, 4, loop.now);
            server.onFrame(requests.frames().back(), loop.now);
            ASSERT_TRUE(client.onFrame(answers.frames().back(), loop.now));
            requests.frames().clear();
            answers.frames().clear();
        }
        client.startDownload({0x3000, 1}, value, SdoMode::Segmented, loop.now);
        server.onFrame(requests.frames().back(), loop.now);
        ASSERT_TRUE(client.onFrame(answers.frames().back(), loop.now));
        requests.frames().clear();
        answers.frames().clear();
    }
    EXPECT_EQ(allocationsOfThisThread(), before);
}

TEST(SdoTransfer, GivesTheMemoryOfALargeUploadBackWithTheNextTransfer) {
    ByteDictionary dictionary;
    dictionary.at(kObject) = pattern(200'000);
    dictionary.at({0x3000, 1}) = {1};
    SdoLoopback loop(dictionary);
    read(loop, SdoMode::Block);
    EXPECT_GE(loop.client.bufferCapacity(), 200'000U);
    read(loop, SdoMode::Segmented, {0x3000, 1});
    EXPECT_LE(loop.client.bufferCapacity(), 64U);
}

TEST(SdoTransfer, PassesTheNodesRefusalOnWithItsWords) {
    ByteDictionary dictionary;
    SdoLoopback loop(dictionary);
    try {
        read(loop, SdoMode::Segmented, {0x3000, 0x01});
        FAIL() << "no exception";
    } catch (SdoAbortError const& error) {
        EXPECT_STREQ(error.what(),
                     "node 8, object 0x3000:01: SDO abort 0x06020000: "
                     "Object does not exist in the object dictionary");
        EXPECT_EQ(error.code(), 0x06020000U);
        EXPECT_EQ(error.node(), 8);
        EXPECT_EQ(error.index(), 0x3000);
        EXPECT_EQ(error.subindex(), 1);
    }
}

TEST(SdoTransfer, ANodeWithoutBlockTransfersRefusesThemAndTakesSegments) {
    ByteDictionary dictionary;
    dictionary.at(kObject);
    SdoServerSettings settings;
    settings.blockTransfers = false;
    SdoLoopback loop(dictionary, settings);
    Bytes const data = pattern(20);
    for (bool const up : {false, true}) {
        try {
            up ? static_cast<void>(read(loop, SdoMode::Block)) : write(loop, data, SdoMode::Block);
            FAIL() << "no exception";
        } catch (SdoAbortError const& error) {
            EXPECT_EQ(error.code(), sdoabort::kCommandSpecifier);
        }
    }
    write(loop, data, SdoMode::Segmented);
    EXPECT_EQ(read(loop, SdoMode::Segmented), data);
}

/// Notes what it gets piece by piece.
class StreamDictionary final : public ObjectDictionaryIfc {
public:
    struct Stream final : ObjectWriteStream {
        explicit Stream(StreamDictionary& aOwner)
            : owner(aOwner) {}
        ~Stream() override { owner.open = false; }
        Stream(Stream const&) = delete;
        Stream& operator=(Stream const&) = delete;
        std::uint32_t write(std::span<std::uint8_t const> aData) override {
            owner.largest = std::max(owner.largest, aData.size());
            owner.data.insert(owner.data.end(), aData.begin(), aData.end());
            return owner.writeAnswer;
        }
        std::uint32_t finish() override {
            owner.finished = true;
            return owner.finishAnswer;
        }
        StreamDictionary& owner;
    };

    std::uint32_t read(SdoObject, Bytes&) override { return sdoabort::kWriteOnly; }
    std::uint32_t write(SdoObject, std::span<std::uint8_t const>) override { return sdoabort::kGeneral; }
    std::unique_ptr<ObjectWriteStream> openStream(SdoObject, std::optional<std::uint32_t> aSize) override {
        announced = aSize;
        open = true;
        return std::make_unique<Stream>(*this);
    }

    Bytes data;
    std::optional<std::uint32_t> announced;
    std::size_t largest = 0;
    bool open = false;
    bool finished = false;
    std::uint32_t writeAnswer = 0;
    std::uint32_t finishAnswer = 0;
};

TEST(SdoServerCore, HandsALargeWriteOnPieceByPiece) {
    for (SdoMode const mode : {SdoMode::Segmented, SdoMode::Block}) {
        for (std::size_t const size : {5U, 4096U, 4097U, 60'000U}) {
            StreamDictionary dictionary;
            SdoLoopback loop(dictionary);
            Bytes const data = pattern(size);
            write(loop, data, mode);
            EXPECT_EQ(dictionary.data, data);
            EXPECT_EQ(dictionary.announced, size);
            EXPECT_LT(dictionary.largest, 4200U); // never more than about 4 KiB at a time
            EXPECT_TRUE(dictionary.finished);
            EXPECT_FALSE(dictionary.open);
        }
    }
}

TEST(SdoServerCore, EndsTheTransferWithWhatTheStreamAnswers) {
    for (SdoMode const mode : {SdoMode::Segmented, SdoMode::Block}) {
        for (bool const atTheEnd : {false, true}) {
            StreamDictionary dictionary;
            (atTheEnd ? dictionary.finishAnswer : dictionary.writeAnswer) = sdoabort::kDeviceState;
            SdoLoopback loop(dictionary);
            try {
                write(loop, pattern(9000), mode);
                FAIL() << "no exception";
            } catch (SdoAbortError const& error) {
                EXPECT_EQ(error.code(), sdoabort::kDeviceState);
            }
            EXPECT_EQ(dictionary.finished, atTheEnd);
            EXPECT_FALSE(dictionary.open);
        }
    }
}

TEST(SdoServerCore, GivesUpWhenTheClientIsSilentInTheMiddle) {
    ByteDictionary dictionary;
    dictionary.at(kObject);
    libfieldwarden::test::FrameRecorder answers;
    SdoServerCore server(8, dictionary, answers);
    velmor::platform::Clock::TimePoint const start{};
    server.onFrame({0x608, 8, {0x21, 0x01, 0x30, 0x01, 20, 0, 0, 0}}, start);
    ASSERT_TRUE(server.busy());
    server.onTime(start + std::chrono::milliseconds(999));
    EXPECT_TRUE(server.busy());
    answers.take();
    server.onTime(start + std::chrono::seconds(1));
    EXPECT_FALSE(server.busy());
    ASSERT_EQ(answers.frames().size(), 1U);
    EXPECT_EQ(answers.frames()[0], (CanFrame{0x588, 8, {0x80, 0x01, 0x30, 0x01, 0x00, 0x00, 0x04, 0x05}}));
}

/// What a server answers to a few frames, all written out from CiA 301.
TEST(SdoServerCore, RefusesWhatBreaksTheProtocol) {
    using Data = std::array<std::uint8_t, 8>;
    struct Case {
        char const* name;
        std::vector<Data> requests;
        Data lastAnswer;
    };
    Data const openSegments{0x21, 0x01, 0x30, 0x01, 10, 0, 0, 0};
    Data const openBlock{0xC6, 0x01, 0x30, 0x01, 10, 0, 0, 0};
    std::vector<Case> const cases{
        {"wrong toggle bit of a download",
         {openSegments, {0x10, 1, 2, 3, 4, 5, 6, 7}},
         {0x80, 0x01, 0x30, 0x01, 0x00, 0x00, 0x03, 0x05}},
        {"more than announced",
         {openSegments, {0x00, 1, 2, 3, 4, 5, 6, 7}, {0x11, 1, 2, 3, 4, 5, 6, 7}},
         {0x80, 0x01, 0x30, 0x01, 0x12, 0x00, 0x07, 0x06}},
        {"less than announced",
         {openSegments, {0x01, 1, 2, 3, 4, 5, 6, 7}},
         {0x80, 0x01, 0x30, 0x01, 0x13, 0x00, 0x07, 0x06}},
        {"wrong toggle bit of an upload",
         {{0x40, 0x02, 0x30, 0x01}, {0x70}},
         {0x80, 0x02, 0x30, 0x01, 0x00, 0x00, 0x03, 0x05}},
        {"unknown command",
         {{0x40, 0x02, 0x30, 0x01}, {0xE0}},
         {0x80, 0x02, 0x30, 0x01, 0x01, 0x00, 0x04, 0x05}},
        {"impossible block size",
         {{0xA4, 0x02, 0x30, 0x01, 128}},
         {0x80, 0x02, 0x30, 0x01, 0x02, 0x00, 0x04, 0x05}},
        {"confirmation of a segment never sent",
         {{0xA4, 0x02, 0x30, 0x01, 2}, {0xA3}, {0xA2, 3, 2}},
         {0x80, 0x02, 0x30, 0x01, 0x03, 0x00, 0x04, 0x05}},
        {"wrong check sum",
         {openBlock, {0x01, 1, 2, 3, 4, 5, 6, 7}, {0x82, 8, 9, 10}, {0xD1, 0x00, 0x00}},
         {0x80, 0x01, 0x30, 0x01, 0x04, 0x00, 0x04, 0x05}},
        {"object that does not exist",
         {{0x40, 0x00, 0x40, 0x00}},
         {0x80, 0x00, 0x40, 0x00, 0x00, 0x00, 0x02, 0x06}},
        {"more than there is memory for",
         {{0x21, 0x01, 0x30, 0x01, 0xFF, 0xFF, 0xFF, 0xFF}},
         {0x80, 0x01, 0x30, 0x01, 0x05, 0x00, 0x04, 0x05}},
    };
    for (Case const& testCase : cases) {
        SCOPED_TRACE(testCase.name);
        ByteDictionary dictionary;
        dictionary.at({0x3001, 1});
        dictionary.at({0x3002, 1}) = pattern(10);
        libfieldwarden::test::FrameRecorder answers;
        SdoServerCore server(8, dictionary, answers);
        for (Data const& request : testCase.requests) {
            server.onFrame({0x608, 8, request}, {});
        }
        ASSERT_FALSE(answers.frames().empty());
        EXPECT_EQ(answers.frames().back(), (CanFrame{0x588, 8, testCase.lastAnswer}));
        EXPECT_FALSE(server.busy());
        EXPECT_TRUE(dictionary.at({0x3001, 1}).empty()) << "an aborted write must not reach the object";
    }
}

TEST(SdoServerCore, IgnoresWhatIsNotForItAndStraysWhileItIsIdle) {
    ByteDictionary dictionary;
    libfieldwarden::test::FrameRecorder answers;
    SdoServerCore server(8, dictionary, answers);
    server.onFrame({0x609, 8, {0x40, 0x00, 0x10, 0x00}}, {}); // another node's
    server.onFrame({0x608, 7, {0x40, 0x00, 0x10, 0x00}}, {}); // too short
    server.onFrame({0x608, 8, {0x60}}, {});                   // segment of nothing
    server.onFrame({0x608, 8, {0x80, 0x00, 0x10, 0x00}}, {}); // abort of nothing
    EXPECT_TRUE(answers.frames().empty());
}

TEST(SdoCrc, IsTheOneOfCia301) {
    // The check value of CRC-16-CCITT with start value 0 over the digits 1 to 9.
    Bytes const digits{'1', '2', '3', '4', '5', '6', '7', '8', '9'};
    EXPECT_EQ(sdoCrc(0, digits), 0x31C3);
    EXPECT_EQ(sdoCrc(sdoCrc(0, std::span(digits).first(4)), std::span(digits).subspan(4)), 0x31C3);
}

TEST(SdoAborts, StandInRisingOrderWithWords) {
    for (std::size_t i = 0; i < kSdoAborts.size(); ++i) {
        EXPECT_FALSE(kSdoAborts[i].words.empty());
        EXPECT_TRUE(i == 0 || kSdoAborts[i - 1].code < kSdoAborts[i].code);
        EXPECT_EQ(sdoAbortWords(kSdoAborts[i].code), kSdoAborts[i].words);
    }
    EXPECT_EQ(describeSdoAbort(0x05030000), "SDO abort 0x05030000: Toggle bit not alternated");
    EXPECT_EQ(describeSdoAbort(0x06099999), "SDO abort 0x06099999: Unknown abort code");
}

RC_GTEST_PROP(SdoTransferProperty, AnyDataInAnyModeAndBlockSizeComeBack, ()) {
    auto const data = *rc::gen::scale(8.0, rc::gen::arbitrary<Bytes>());
    SdoServerSettings server;
    server.blockSize = *rc::gen::inRange<std::uint8_t>(1, 128);
    server.announceSizes = *rc::gen::arbitrary<bool>();
    server.checkSums = *rc::gen::arbitrary<bool>();
    SdoClientSettings settings;
    settings.uploadBlockSize = *rc::gen::inRange<std::uint8_t>(2, 128);
    SdoMode const mode = *rc::gen::element(SdoMode::Segmented, SdoMode::Block);
    ByteDictionary dictionary;
    dictionary.at(kObject);
    SdoLoopback loop(dictionary, server, settings);
    write(loop, data, mode);
    RC_ASSERT(dictionary.at(kObject) == data);
    RC_ASSERT(read(loop, mode) == data);
}

/// A block transfer heals lost segments. The end of a block is kept, since only the time-out heals its loss,
/// and so is the segment before it: when nothing else of a repeated block arrives, its end looks like a
/// second copy.
RC_GTEST_PROP(SdoTransferProperty, LostAndRepeatedBlockSegmentsAreHealed, ()) {
    auto const size = *rc::gen::inRange<std::size_t>(1, 2000);
    Bytes const data = pattern(size, static_cast<unsigned>(size));
    auto const up = *rc::gen::arbitrary<bool>();
    auto const seed = *rc::gen::arbitrary<std::uint32_t>();
    ByteDictionary dictionary;
    dictionary.at(kObject) = up ? data : Bytes{};
    libfieldwarden::test::FrameRecorder requests;
    libfieldwarden::test::FrameRecorder answers;
    SdoClientCore client(8, requests);
    SdoServerCore server(8, dictionary, answers);
    velmor::platform::Clock::TimePoint const now{};
    std::uint32_t state = seed;
    auto const chance = [&state](unsigned aOneIn) {
        state = state * 1664525U + 1013904223U;
        return (state >> 16U) % aOneIn == 0;
    };
    // The frames are the segments of one block, or a single frame.
    auto const disturb = [&](std::vector<CanFrame> const& aFrames, bool aSegments) {
        std::vector<CanFrame> left;
        for (std::size_t i = 0; i < aFrames.size(); ++i) {
            CanFrame const& frame = aFrames[i];
            bool const open = aSegments && i + 2 < aFrames.size();
            if (open && chance(10)) {
                continue;
            }
            left.push_back(frame);
            if (aSegments && aFrames.size() > 1 && chance(10)) {
                left.push_back(frame);
            }
        }
        return left;
    };
    if (up) {
        client.startUpload(kObject, kLimit, now, SdoMode::Block);
    } else {
        client.startDownload(kObject, data, SdoMode::Block, now);
    }
    while (!requests.frames().empty() || !answers.frames().empty()) {
        for (CanFrame const& frame : disturb(requests.take(), !up)) {
            server.onFrame(frame, now);
        }
        for (CanFrame const& frame : disturb(answers.take(), up)) {
            client.onFrame(frame, now);
        }
    }
    RC_ASSERT(client.result().outcome == SdoOutcome::Done);
    Bytes const arrived = up ? Bytes(client.data().begin(), client.data().end()) : dictionary.at(kObject);
    RC_ASSERT(arrived == data);
}

} // namespace
