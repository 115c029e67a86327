// SPDX-License-Identifier: Apache-2.0
// The dumps of FID and FFT: what they ask of the sequencer, what they make of its answer, and the file.
#include "lock/hardware/LockFFTDump.h"
#include "lock/hardware/LockFIDDump.h"

#include "lock/hardware/Hdf5Library.h"
#include "support/Eventually.h"
#include "support/FakeLockHardware.h"
#include "support/FakeStreamDevice.h"
#include "support/FullDisk.h"
#include "support/HandClockScope.h"
#include "support/LogCapture.h"
#include "support/ProcessResources.h"
#include "support/TemporaryDirectory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <fstream>
#include <memory>
#include <numeric>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <unistd.h>

#include <H5Cpp.h>
#include <malloc.h>

using libfieldwarden::test::CapturedLine;
using libfieldwarden::test::FakeLockHardware;
using libfieldwarden::test::FakeSeqlockDriver;
using libfieldwarden::test::FakeStream;
using libfieldwarden::test::FullDisk;
using libfieldwarden::test::HandClockScope;
using libfieldwarden::test::LogCapture;
using libfieldwarden::test::ProcessResources;
using libfieldwarden::test::readFile;
using libfieldwarden::test::Severity;
using libfieldwarden::test::TemporaryDirectory;
using libfieldwarden::test::writeFile;
using std::chrono::seconds;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::ThrowsMessage;

namespace {

CapturedLine line(Severity aSeverity, std::string aText) {
    return {aSeverity, std::move(aText), {}, {}};
}

void appendBigEndian(std::vector<unsigned char>& aBytes, int aValue) {
    auto const word = static_cast<std::uint32_t>(aValue);
    for (unsigned int const shift : {24U, 16U, 8U, 0U}) {
        aBytes.push_back(static_cast<unsigned char>(word >> shift));
    }
}

/// Point k is 3 k - 1000 + i (2000 - k).
std::vector<unsigned char> packetOf(int aPoints) {
    std::vector<unsigned char> packet;
    for (int point = 0; point < aPoints; ++point) {
        appendBigEndian(packet, 2000 - point);
        appendBigEndian(packet, 3 * point - 1000);
    }
    return packet;
}

class LockDumpTest : public testing::Test {
protected:
    LockDumpTest() {
        // A silent device lets the clock pass.
        mStream->onWait([this](seconds aTimeout) {
            mClock->advance(aTimeout);
            return 0;
        });
    }

    /// What the sequencer answers to each trigger.
    void answer(std::vector<unsigned char> aPacket) {
        mHardware->registers.singleTdTransfer->onWrite(
            [this, packet = std::move(aPacket)](bool /*aOn*/) { mStream->add(packet); });
    }

    LockFIDDump makeDump() { return LockFIDDump(mHardware, mDriver); }
    std::string file() const { return (mFolder.path() / "dump.h5").string(); }
    std::vector<std::string> filesInFolder() const {
        std::vector<std::string> names;
        for (auto const& entry : std::filesystem::directory_iterator(mFolder.path())) {
            names.push_back(entry.path().filename().string());
        }
        return names;
    }

    HandClockScope mClock;
    LogCapture mLog;
    TemporaryDirectory mFolder;
    std::shared_ptr<FakeSeqlockDriver> mDriver = std::make_shared<FakeSeqlockDriver>();
    std::shared_ptr<FakeStream> mStream = mDriver->stream("/dev/lock_dma_td");
    std::shared_ptr<FakeLockHardware> mHardware = std::make_shared<FakeLockHardware>();
};

// ------------------------------------------------------------------------------------------------- acquiring

TEST_F(LockDumpTest, FlushesTheDeviceWhenItIsMade) {
    mStream->add(packetOf(3));
    auto const dump = makeDump();
    EXPECT_EQ(mStream->waitingPackets(), 0U);
    EXPECT_THAT(mLog.linesOf("LockFIDDump"),
                ElementsAre(line(Severity::Debug, "flushing the fid to ensure no wrong/old data in the pipe"),
                            line(Severity::Debug, "flushed the fid")));
    EXPECT_EQ(dump.hardware(), mHardware);
}

TEST_F(LockDumpTest, ExpectsABlockOf512KiB) {
    auto dump = makeDump();
    answer(packetOf(65536));
    dump.acquireAndGet();
    EXPECT_THAT(mStream->journal(), testing::Contains("read 524289")); // 0x80000 and the byte for the end
}

TEST_F(LockDumpTest, TriggersBehindAFlushAndDecodesTheAnswer) {
    auto dump = makeDump();
    mStream->add(packetOf(7)); // stale
    answer({0, 0, 0, 1, 0xFF, 0xFF, 0xFF, 0xFF, 0x80, 0, 0, 0, 0x7F, 0xFF, 0xFF, 0xFF});
    mLog.clear();
    auto const data = dump.acquireAndGet();
    EXPECT_THAT(*data.imag, ElementsAre(1, -2147483648LL));
    EXPECT_THAT(*data.real, ElementsAre(-1, 2147483647));
    EXPECT_THAT(mHardware->takeJournal(), ElementsAre("set log/single_td_transfer = 1"));
    EXPECT_THAT(mLog.linesOf("LockFIDDump"), ElementsAre(line(Severity::Info, "+acquireAndGet"),
                                                         line(Severity::Trace, "Got a packet of 16 bytes")));
    EXPECT_EQ(mLog.linesOf("LockFIDDump").front().category, "Lock");
}

TEST_F(LockDumpTest, IgnoresWhatIsLessThanAPoint) {
    auto dump = makeDump();
    auto packet = packetOf(2);
    packet.push_back(99); // 17 bytes
    answer(packet);
    auto const data = dump.acquireAndGet();
    EXPECT_THAT(*data.real, ElementsAre(-1000, -997));
    EXPECT_THAT(*data.imag, ElementsAre(2000, 1999));
}

TEST_F(LockDumpTest, TakesTheFFTFromItsOwnDevice) {
    auto const stream = mDriver->stream("/dev/lock_dma_fd");
    LockFFTDump dump(mHardware, mDriver);
    mHardware->registers.singleFdTransfer->onWrite([&](bool /*aOn*/) { stream->add(packetOf(1)); });
    EXPECT_THAT(*dump.acquireAndGet().imag, ElementsAre(2000));
    EXPECT_THAT(mHardware->takeJournal(), ElementsAre("set log/single_fd_transfer = 1"));
    EXPECT_TRUE(mLog.has(Severity::Debug, "flushed the fft"));
    EXPECT_FALSE(mLog.linesOf("LockFFTDump").empty());
}

TEST_F(LockDumpTest, WorksQuietlyWithoutADevice) {
    LockFFTDump dump(mHardware, mDriver); // there is no such device
    EXPECT_THAT(mLog.linesOf("LockFFTDump"),
                ElementsAre(line(Severity::Error,
                                 "Failed to create packet reader, won't dump any data from fft. "
                                 "Error was Failed to open input file")));
    mLog.clear();
    dump.acquireAndDump(file());
    EXPECT_THAT(
        mLog.lines(),
        ElementsAre(line(Severity::Warning, "won't do data dump from fft: no valid stream packet reader")));
    mLog.clear();
    EXPECT_THAT([&] { dump.acquireAndGet(); },
                ThrowsMessage<std::runtime_error>("Cannot read data from hardware"));
    EXPECT_THAT(mLog.lines(),
                ElementsAre(line(Severity::Info, "+acquireAndGet"),
                            line(Severity::Error,
                                 "no valid stream packet reader available on fft, cannot do acquisition")));
    EXPECT_THAT(mHardware->takeJournal(), IsEmpty());
    EXPECT_THAT(filesInFolder(), IsEmpty());
}

TEST_F(LockDumpTest, DoesWithoutADeviceThatCannotBeFlushed) {
    mStream->deliverForEver([this] { mClock->advance(seconds(10)); });
    auto dump = makeDump();
    EXPECT_TRUE(mLog.has(Severity::Error,
                         "Failed to create packet reader, won't dump any data from fid. Error "
                         "was Could not flush data"));
    EXPECT_EQ(mStream->openDevices(), 0U);
}

TEST_F(LockDumpTest, GivesASilentSequencerUpAfter30Seconds) {
    auto dump = makeDump();
    auto const begin = mClock->now();
    EXPECT_THAT([&] { dump.acquireAndGet(); }, ThrowsMessage<std::runtime_error>("Failed to read data"));
    EXPECT_EQ(mClock->now() - begin, seconds(30));
    mLog.clear();
    dump.acquireAndDump(file());
    EXPECT_TRUE(mLog.has(Severity::Error, "-acquireAndDump(" + file() + ") failed with Failed to read data"));
    EXPECT_THAT(filesInFolder(), IsEmpty());
}

TEST_F(LockDumpTest, EndsWhenItIsAskedTo) {
    auto dump = makeDump();
    mStream->onWait([&](seconds /*aTimeout*/) {
        dump.requestStop();
        return 0;
    });
    auto const begin = mClock->now();
    EXPECT_THAT([&] { dump.acquireAndGet(); }, ThrowsMessage<std::runtime_error>("Failed to read data"));
    EXPECT_EQ(mClock->now(), begin);
}

// -------------------------------------------------------------------------------------------------- the file

struct Dataset {
    std::vector<int> values;
    hsize_t chunk = 0;
    int filters = 0;
    unsigned int level = 99;
    bool nativeInt = false;
};

Dataset readDataset(std::string const& aFile, std::string const& aName) {
    auto const lock = Hdf5Library::instance().lock();
    Dataset found;
    H5::H5File const file(aFile, H5F_ACC_RDONLY);
    H5::DataSet const dataset = file.openDataSet(aName);
    H5::DataSpace const space = dataset.getSpace();
    hsize_t points = 0;
    EXPECT_EQ(space.getSimpleExtentNdims(), 1);
    space.getSimpleExtentDims(&points);
    found.values.resize(points);
    dataset.read(found.values.data(), H5::PredType::NATIVE_INT32);
    found.nativeInt = dataset.getDataType() == H5::PredType::NATIVE_INT32;
    H5::DSetCreatPropList const properties = dataset.getCreatePlist();
    properties.getChunk(1, &found.chunk);
    found.filters = properties.getNfilters();
    unsigned int flags = 0;
    std::size_t count = 1;
    unsigned int configuration = 0;
    char name[32];
    EXPECT_EQ(properties.getFilter(0, flags, count, &found.level, sizeof(name), name, configuration),
              H5Z_FILTER_DEFLATE);
    return found;
}

TEST_F(LockDumpTest, WritesBothPartsInQuartersAtDeflateLevel6) {
    auto dump = makeDump();
    answer(packetOf(1000));
    mLog.clear();
    dump.acquireAndDump(file());
    EXPECT_THAT(mLog.linesOf("LockFIDDump"),
                ElementsAre(line(Severity::Debug, "+acquireAndDump(" + file() + ")"),
                            line(Severity::Trace, "Got a packet of 8000 bytes"),
                            line(Severity::Debug, "+dumpToH5 to " + file()),
                            line(Severity::Debug, "-dumpToH5 to " + file())));
    EXPECT_THAT(filesInFolder(), ElementsAre("dump.h5"));
    Dataset const real = readDataset(file(), "/Real");
    Dataset const imag = readDataset(file(), "/Imag");
    for (auto const* part : {&real, &imag}) {
        EXPECT_EQ(part->chunk, 250U);
        EXPECT_EQ(part->filters, 1);
        EXPECT_EQ(part->level, 6U);
        EXPECT_TRUE(part->nativeInt);
        ASSERT_EQ(part->values.size(), 1000U);
    }
    for (int point = 0; point < 1000; ++point) {
        ASSERT_EQ(real.values[static_cast<std::size_t>(point)], 3 * point - 1000);
        ASSERT_EQ(imag.values[static_cast<std::size_t>(point)], 2000 - point);
    }
}

TEST_F(LockDumpTest, WritesWhatQuartersLeaveOverAsAChunkOfItsOwn) {
    auto dump = makeDump();
    for (int const points :
         {4, 5, 7, 1003}) { // chunks of 1, 1, 1 and 250, the last 250 + 250 + 250 + 250 + 3
        answer(packetOf(points));
        dump.acquireAndDump(file());
        Dataset const real = readDataset(file(), "/Real");
        EXPECT_EQ(real.chunk, static_cast<hsize_t>(points / 4));
        ASSERT_EQ(real.values.size(), static_cast<std::size_t>(points));
        EXPECT_EQ(real.values.back(), 3 * (points - 1) - 1000);
        EXPECT_EQ(readDataset(file(), "/Imag").values.back(), 2000 - (points - 1));
    }
}

TEST_F(LockDumpTest, ReplacesAFileOfTheSameName) {
    writeFile(file(), "something else");
    auto dump = makeDump();
    answer(packetOf(8));
    dump.acquireAndDump(file());
    EXPECT_EQ(readDataset(file(), "/Real").values.size(), 8U);
    EXPECT_THAT(filesInFolder(), ElementsAre("dump.h5"));
}

TEST_F(LockDumpTest, OnlyLogsThatThreePointsAreTooFew) {
    writeFile(file(), "the former one");
    auto dump = makeDump();
    for (int const points : {0, 3}) {
        answer(packetOf(points));
        mLog.clear();
        dump.acquireAndDump(file());
        EXPECT_THAT(mLog.linesUpTo(Severity::Warning),
                    ElementsAre(line(Severity::Error,
                                     "-acquireAndDump(" + file() + ") failed with unspecified error")));
    }
    EXPECT_EQ(readFile(file()), "the former one");
    EXPECT_THAT(filesInFolder(), ElementsAre("dump.h5"));
}

TEST_F(LockDumpTest, PrintsNothingOnItsOwnWhateverTheThread) {
    Hdf5Library::instance(); // opened by this thread
    auto dump = makeDump();
    answer(packetOf(3)); // too few
    testing::internal::CaptureStderr();
    for (int thread = 0; thread < 2; ++thread) {
        std::thread([&] { dump.acquireAndDump(file()); }).join();
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(mLog.linesUpTo(Severity::Error).size(), 2U);
}

TEST_F(LockDumpTest, OnlyLogsAFolderThatIsNotThere) {
    auto dump = makeDump();
    answer(packetOf(100));
    std::string const nowhere = (mFolder.path() / "missing" / "dump.h5").string();
    dump.acquireAndDump(nowhere);
    EXPECT_TRUE(
        mLog.has(Severity::Error, "-acquireAndDump(" + nowhere +
                                      ") failed with filesystem error: cannot write the dump: No such "
                                      "file or directory [" +
                                      nowhere + "]"));
}

ssize_t openHandles() {
    auto const lock = Hdf5Library::instance().lock();
    ssize_t count = H5Fget_obj_count(static_cast<hid_t>(H5F_OBJ_ALL), H5F_OBJ_ALL);
    for (H5I_type_t const type : {H5I_FILE, H5I_DATATYPE, H5I_DATASPACE, H5I_DATASET, H5I_GENPROP_LST}) {
        hsize_t members = 0;
        H5Inmembers(type, &members);
        count += static_cast<ssize_t>(members);
    }
    return count;
}

TEST_F(LockDumpTest, LeavesTheFormerFileAndNoHandleOnAFullDisk) {
    auto dump = makeDump();
    answer(packetOf(1000));
    dump.acquireAndDump(file());
    std::string const former = readFile(file());
    auto const handles = openHandles();
    mLog.clear();
    {
        FullDisk const full(100);
        dump.acquireAndDump(file());
    }
    EXPECT_TRUE(
        mLog.has(Severity::Error, "-acquireAndDump(" + file() +
                                      ") failed with filesystem error: cannot write the dump: File too "
                                      "large [" +
                                      file() + "]"));
    EXPECT_EQ(openHandles(), handles);
    EXPECT_EQ(readFile(file()), former);
    EXPECT_THAT(filesInFolder(), ElementsAre("dump.h5"));
}

/// Many dumps, a few of each kind first, so that all that is made once has been made.
template <typename Dump>
void expectNothingLeft(int aDumps, Dump aDump) {
    for (int warm = 0; warm < 100; ++warm) {
        aDump();
    }
    auto const resources = ProcessResources::now();
    auto const handles = openHandles();
    std::size_t const bytes = mallinfo2().uordblks;
    for (int dump = 0; dump < aDumps; ++dump) {
        aDump();
    }
    EXPECT_EQ(openHandles(), handles);
    EXPECT_TRUE(ProcessResources::now().isNotAbove(resources));
    // A byte a dump would be a leak; HDF5 keeps free lists, and the captured log grows meanwhile.
    EXPECT_LT(mallinfo2().uordblks, bytes + 65536U);
}

TEST_F(LockDumpTest, LeavesNothingBehindAfterManyDumps) {
    auto dump = makeDump();
    answer(packetOf(16));
    expectNothingLeft(300, [&] {
        dump.acquireAndDump(file());
        mLog.clear();
        mHardware->takeJournal();
    });
    answer(packetOf(3));
    expectNothingLeft(2000, [&] {
        dump.acquireAndDump(file());
        mLog.clear();
        mHardware->takeJournal();
    });
}

TEST_F(LockDumpTest, DumpsFromTwoThreadsAtOnce) {
    auto const other = mDriver->stream("/dev/lock_dma_fd");
    LockFFTDump fft(mHardware, mDriver);
    auto fid = makeDump();
    answer(packetOf(64));
    mHardware->registers.singleFdTransfer->onWrite([&](bool /*aOn*/) { other->add(packetOf(32)); });
    std::string const second = (mFolder.path() / "second.h5").string();
    std::thread thread([&] {
        for (int round = 0; round < 50; ++round) {
            fft.acquireAndDump(second);
        }
    });
    for (int round = 0; round < 50; ++round) {
        fid.acquireAndDump(file());
    }
    thread.join();
    EXPECT_EQ(readDataset(file(), "/Imag").values.size(), 64U);
    EXPECT_EQ(readDataset(second, "/Imag").values.size(), 32U);
    EXPECT_THAT(mLog.linesUpTo(Severity::Warning), IsEmpty());
}

TEST(Hdf5Library, LetsInOneAtATime) {
    std::atomic<bool> inside{false};
    auto lock = Hdf5Library::instance().lock();
    std::thread other([&] {
        auto const second = Hdf5Library::instance().lock();
        inside = true;
    });
    EXPECT_FALSE(inside);
    lock.reset();
    other.join();
    EXPECT_TRUE(inside);
}

} // namespace
