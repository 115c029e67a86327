// SPDX-License-Identifier: Apache-2.0
// The sequencer's driver on real files, FIFOs and pseudo-terminals.
#include "support/AllocationCount.h"
#include "support/ProcessResources.h"
#include "support/SeqlockDriverContract.h"
#include "support/TemporaryDirectory.h"
#include "support/WithoutPrivilege.h"

#include <velmor/q47/seqlock/PosixSeqlockDriver.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

namespace libfieldwarden::test {

namespace {

namespace fs = std::filesystem;
using std::chrono::microseconds;
using std::chrono::seconds;
using velmor::q47::seqlock::PosixSeqlockDriver;

/// Owner of a descriptor that the test has opened.
class Open {
public:
    explicit Open(int aNumber)
        : number(aNumber) {
        EXPECT_GE(aNumber, 0) << errno;
    }
    ~Open() {
        if (number >= 0) {
            ::close(number);
        }
    }
    Open(Open const&) = delete;
    Open& operator=(Open const&) = delete;

    int const number;
};

/// A FIFO that the test holds open at both ends.
std::unique_ptr<Open> makeFifo(fs::path const& aPath) {
    fs::create_directories(aPath.parent_path());
    EXPECT_EQ(::mkfifo(aPath.c_str(), 0644), 0);
    return std::make_unique<Open>(::open(aPath.c_str(), O_RDWR | O_NONBLOCK));
}

void send(Open const& aWhere, std::string const& aBytes) {
    EXPECT_EQ(::write(aWhere.number, aBytes.data(), aBytes.size()), static_cast<ssize_t>(aBytes.size()));
}

/// A tree of plain files and FIFOs, seen as a user whom permissions bind.
class PosixDriverRig final : public SeqlockDriverRig {
public:
    PosixDriverRig() {
        fs::path const registers = mTree.path() / "sys/class/misc/seqlock";
        writeFile(registers / "pid/p_term", "0\n");
        writeFile(registers / "data/fid_max_slice", "17\n");
        writeFile(mTree.path() / "dev/seqlock", "");
        mEvents = makeFifo(registers / "irq/irq_notification");
        interrupt(); // as in sysfs, a file that was never read is ready
        mRecords = makeFifo(mTree.path() / "dev/lock_dma_pid");
        fs::permissions(mTree.path(), fs::perms(0755));
        fs::permissions(registers / "pid/p_term", fs::perms(0666));
        fs::permissions(registers / "data/fid_max_slice", fs::perms(0444));
        fs::permissions(mTree.path() / "dev/seqlock", fs::perms(0666));
        mUser = std::make_unique<WithoutPrivilege>();
    }

    PosixSeqlockDriver& driver() override { return mDriver; }
    void interrupt() override { send(*mEvents, "!"); }
    void packet() override { send(*mRecords, "sixteen bytes..."); }
    bool programCame() override { return !readFile(mTree.path() / "dev/seqlock").empty(); }
    bool obeysPermissions() const override { return mUser->works(); }

private:
    TemporaryDirectory mTree;
    std::unique_ptr<Open> mEvents;
    std::unique_ptr<Open> mRecords;
    PosixSeqlockDriver mDriver{mTree.path()};
    std::unique_ptr<WithoutPrivilege> mUser; ///< Ends ahead of the tree, which it could not remove.
};

/// A driver on a tree of its own.
class PosixSeqlockDriverTest : public testing::Test {
protected:
    TemporaryDirectory mTree;
    PosixSeqlockDriver mDriver{mTree.path()};
};

/// A pseudo-terminal that hands bytes on as they are: a character device with ioctl requests.
class Terminal {
public:
    Terminal()
        : mMaster(::posix_openpt(O_RDWR | O_NOCTTY)) {
        EXPECT_EQ(::grantpt(mMaster.number), 0);
        EXPECT_EQ(::unlockpt(mMaster.number), 0);
        std::array<char, 128> name{};
        EXPECT_EQ(::ptsname_r(mMaster.number, name.data(), name.size()), 0);
        path = name.data();
        termios raw{};
        EXPECT_EQ(::tcgetattr(mMaster.number, &raw), 0);
        ::cfmakeraw(&raw);
        EXPECT_EQ(::tcsetattr(mMaster.number, TCSANOW, &raw), 0);
    }

    void feed(std::string const& aBytes) { send(mMaster, aBytes); }

    std::string path;

private:
    Open mMaster;
};

} // namespace

INSTANTIATE_TYPED_TEST_SUITE_P(Posix, SeqlockDriverContract, PosixDriverRig);

TEST_F(PosixSeqlockDriverTest, LooksForPathsBelowItsRoot) {
    writeFile(mTree.path() / "sys/a", "1\n");
    EXPECT_EQ(PosixSeqlockDriver(mTree.path()).readRegister("/sys/a"), "1\n");
    EXPECT_EQ(PosixSeqlockDriver(mTree.path() / "").readRegister("/sys/a"), "1\n"); // with a slash behind it
    EXPECT_EQ(PosixSeqlockDriver().readRegister((mTree.path() / "sys/a").string()), "1\n");
}

TEST_F(PosixSeqlockDriverTest, ReadsAFileWholeAndAsItIs) {
    for (std::size_t const size : {0U, 1U, 4095U, 4096U, 4097U, 100'000U}) {
        std::string const text = std::string(size, 'x') + "\n\n";
        writeFile(mTree.path() / "a", text);
        EXPECT_EQ(mDriver.readRegister("/a"), text);
    }
}

TEST_F(PosixSeqlockDriverTest, ReadsAFreshValueEachTime) {
    writeFile(mTree.path() / "a", "1\n");
    EXPECT_EQ(mDriver.readRegister("/a"), "1\n");
    writeFile(mTree.path() / "a", "2\n");
    EXPECT_EQ(mDriver.readRegister("/a"), "2\n");
    fs::remove(mTree.path() / "a");
    EXPECT_EQ(mDriver.readRegister("/a"), "");
}

TEST_F(PosixSeqlockDriverTest, WritesTheTextAndNothingBehindIt) {
    writeFile(mTree.path() / "a", "a longer text\n");
    mDriver.writeRegister("/a", "4294967295");
    EXPECT_EQ(readFile(mTree.path() / "a"), "4294967295");
}

TEST_F(PosixSeqlockDriverTest, WritesToADeviceToo) {
    auto const fifo = makeFifo(mTree.path() / "a");
    mDriver.writeRegister("/a", "123");
    std::array<char, 10> bytes{};
    EXPECT_EQ(::read(fifo->number, bytes.data(), bytes.size()), 3);
}

TEST_F(PosixSeqlockDriverTest, CannotReadWhatItMayNotRead) {
    writeFile(mTree.path() / "a", "1\n");
    fs::permissions(mTree.path(), fs::perms(0755));
    fs::permissions(mTree.path() / "a", fs::perms(0200));
    WithoutPrivilege const user;
    if (!user.works()) {
        GTEST_SKIP() << "permissions mean nothing here";
    }
    EXPECT_FALSE(mDriver.canRead("/a"));
    EXPECT_EQ(mDriver.readRegister("/a"), "");
    errno = 0;
    EXPECT_FALSE(mDriver.openNotification("/a"));
    EXPECT_EQ(errno, EACCES);
    EXPECT_FALSE(mDriver.openStream("/a"));
    EXPECT_EQ(errno, EACCES);
}

TEST_F(PosixSeqlockDriverTest, CanNeitherWriteAFolderNorReadATextFromIt) {
    fs::create_directory(mTree.path() / "a");
    EXPECT_FALSE(mDriver.canWrite("/a"));
    EXPECT_EQ(mDriver.readRegister("/a"), "");
    EXPECT_NO_THROW(mDriver.writeRegister("/a", "1"));
    EXPECT_TRUE(mDriver.openMemory("/a")->fail());
}

TEST_F(PosixSeqlockDriverTest, BringsAMemoryWholeAndBinary) {
    writeFile(mTree.path() / "a", "");
    std::string image;
    for (int i = 0; i < 100'000; ++i) {
        image += static_cast<char>(i);
    }
    auto const memory = mDriver.openMemory("/a");
    *memory << image;
    memory->flush();
    EXPECT_TRUE(memory->good());
    EXPECT_EQ(readFile(mTree.path() / "a"), image);
}

TEST_F(PosixSeqlockDriverTest, AMemoryThatTakesNothingFails) {
    auto const memory = PosixSeqlockDriver().openMemory("/dev/full");
    ASSERT_TRUE(memory->good());
    *memory << "a program";
    memory->flush();
    EXPECT_TRUE(memory->fail());
}

TEST_F(PosixSeqlockDriverTest, AWaitForAnInterruptEndsWithItsTime) {
    auto const fifo = makeFifo(mTree.path() / "a");
    auto const events = mDriver.openNotification("/a");
    ASSERT_TRUE(events);
    auto const begin = std::chrono::steady_clock::now();
    EXPECT_EQ(events->wait(seconds(0), microseconds(2000)), 0);
    EXPECT_GE(std::chrono::steady_clock::now() - begin, microseconds(2000));
    EXPECT_EQ(events->wait(seconds(0), microseconds(0)), 0);
}

TEST_F(PosixSeqlockDriverTest, ATimeThatIsNoneFails) {
    auto const fifo = makeFifo(mTree.path() / "a");
    auto const events = mDriver.openNotification("/a");
    ASSERT_TRUE(events);
    errno = 0;
    EXPECT_EQ(events->wait(seconds(-1), microseconds(0)), -1);
    EXPECT_EQ(errno, EINVAL);
}

TEST_F(PosixSeqlockDriverTest, RefusesDescriptorsThatSelectDoesNotKnow) {
    rlimit former{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &former), 0);
    constexpr rlim_t kWanted = FD_SETSIZE + 100;
    if (former.rlim_max < kWanted) {
        GTEST_SKIP() << "this process may not have so many files";
    }
    rlimit raised = former;
    raised.rlim_cur = std::max(former.rlim_cur, kWanted);
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &raised), 0);
    {
        std::vector<std::unique_ptr<Open>> many;
        do {
            many.push_back(std::make_unique<Open>(::open("/dev/null", O_RDONLY | O_CLOEXEC)));
        } while (many.back()->number >= 0 && many.back()->number < FD_SETSIZE);
        writeFile(mTree.path() / "a", "1\n");
        auto const events = mDriver.openNotification("/a");
        auto const device = mDriver.openStream("/a");
        ASSERT_TRUE(events && device);
        errno = 0;
        EXPECT_EQ(events->wait(seconds(0), microseconds(0)), -1);
        EXPECT_EQ(errno, EINVAL);
        errno = 0;
        EXPECT_EQ(device->waitReadable(seconds(0)), -1);
        EXPECT_EQ(errno, EINVAL);
        std::array<char, 10> text{};
        EXPECT_EQ(events->read(text.data(), text.size()), 2); // all else works
    }
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &former), 0);
}

TEST_F(PosixSeqlockDriverTest, StreamsTheBytesOfACharacterDevice) {
    Terminal terminal;
    auto const device = PosixSeqlockDriver().openStream(terminal.path);
    ASSERT_TRUE(device);
    EXPECT_EQ(device->waitReadable(seconds(0)), 0);
    std::string const sent("\0\x01\xFF\n\x04", 5); // nothing of it means anything to the device
    terminal.feed(sent);
    EXPECT_GT(device->waitReadable(seconds(1)), 0);
    std::array<unsigned char, 16> bytes{};
    ASSERT_EQ(device->read(bytes.data(), bytes.size()), 5);
    EXPECT_EQ(std::string(bytes.begin(), bytes.begin() + 5), sent);
    errno = 0;
    EXPECT_EQ(device->read(bytes.data(), bytes.size()), -1);
    EXPECT_EQ(errno, EAGAIN);
}

TEST_F(PosixSeqlockDriverTest, PassesTheArgumentOfARequestByValue) {
    Terminal terminal;
    auto const device = PosixSeqlockDriver().openStream(terminal.path);
    ASSERT_TRUE(device);
    terminal.feed("dropped");
    ASSERT_GT(device->waitReadable(seconds(1)), 0);
    EXPECT_EQ(device->ioctl(TCFLSH, TCIFLUSH), 0); // takes a number, not a pointer
    EXPECT_EQ(device->waitReadable(seconds(0)), 0);
    errno = 0;
    EXPECT_EQ(device->ioctl(TCFLSH, 99), -1);
    EXPECT_EQ(errno, EINVAL);
}

TEST_F(PosixSeqlockDriverTest, TellsOfADeviceThatIsGone) {
    auto terminal = std::make_unique<Terminal>();
    auto const device = PosixSeqlockDriver().openStream(terminal->path);
    ASSERT_TRUE(device);
    terminal.reset();
    EXPECT_GT(device->waitReadable(seconds(1)), 0);
    std::array<unsigned char, 16> bytes{};
    EXPECT_LE(device->read(bytes.data(), bytes.size()), 0);
}

TEST_F(PosixSeqlockDriverTest, KeepsNothingOpen) {
    writeFile(mTree.path() / "a", "1\n");
    auto const before = ProcessResources::now().descriptors;
    for (int i = 0; i < 100; ++i) {
        mDriver.canRead("/a");
        mDriver.canWrite("/a");
        mDriver.readRegister("/a");
        mDriver.writeRegister("/a", "1");
        mDriver.openNotification("/a");
        mDriver.openMemory("/a");
        mDriver.openStream("/a");
    }
    EXPECT_EQ(ProcessResources::now().descriptors, before);
}

TEST_F(PosixSeqlockDriverTest, AllocatesNothingForARegisterOfTheInstrument) {
    std::string const path = (mTree.path() / "a").string();
    writeFile(path, "4294967295\n");
    PosixSeqlockDriver driver;
    std::string const text = "4294967295";
    std::size_t const before = allocationsOfThisThread();
    driver.writeRegister(path, text);
    std::string const read = driver.readRegister(path);
    EXPECT_EQ(allocationsOfThisThread(), before);
    EXPECT_EQ(read, text);
}

} // namespace libfieldwarden::test
