// SPDX-License-Identifier: Apache-2.0
// The sequencer's driver on the system calls.
#include <velmor/q47/seqlock/PosixSeqlockDriver.h>

#include <array>
#include <cerrno>
#include <fstream>
#include <utility>

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <unistd.h>

namespace velmor::q47::seqlock {

namespace {

constexpr mode_t kNewFileMode = 0666; // less the process's mask, as with a stream

/// Repeats a system call that a signal interrupts.
template <typename Call>
auto uninterrupted(Call aCall) {
    auto result = aCall();
    while (result < 0 && errno == EINTR) {
        result = aCall();
    }
    return result;
}

/// Owner of a file descriptor.
class Descriptor {
public:
    Descriptor(char const* aPath, int aFlags)
        : mNumber(uninterrupted([&] { return ::open(aPath, aFlags | O_CLOEXEC, kNewFileMode); })) {}
    ~Descriptor() {
        if (mNumber >= 0) {
            ::close(mNumber);
        }
    }
    Descriptor(Descriptor&& aOther) noexcept
        : mNumber(std::exchange(aOther.mNumber, -1)) {}
    Descriptor& operator=(Descriptor&&) = delete;
    Descriptor(Descriptor const&) = delete;
    Descriptor& operator=(Descriptor const&) = delete;

    bool open() const noexcept { return mNumber >= 0; }
    int number() const noexcept { return mNumber; }

    /// select(2) for reading on this descriptor alone. It knows no descriptors from FD_SETSIZE on, which a
    /// process of many files can get: one of those fails with EINVAL.
    int waitReadable(timeval aTimeout) const {
        if (mNumber >= FD_SETSIZE) {
            errno = EINVAL;
            return -1;
        }
        fd_set readable;
        FD_ZERO(&readable);
        FD_SET(mNumber, &readable);
        int const result = ::select(mNumber + 1, &readable, nullptr, nullptr, &aTimeout);
        return result > 0 ? (FD_ISSET(mNumber, &readable) ? 1 : 0) : result;
    }

private:
    int mNumber;
};

class PosixStreamDevice final : public StreamDevice {
public:
    explicit PosixStreamDevice(Descriptor aDevice)
        : mDevice(std::move(aDevice)) {}

    int ioctl(unsigned long aRequest, unsigned long aArgument) override {
        return ::ioctl(mDevice.number(), aRequest, aArgument);
    }
    ssize_t read(unsigned char* aBuffer, std::size_t aSize) override {
        return ::read(mDevice.number(), aBuffer, aSize);
    }
    int waitReadable(std::chrono::seconds aTimeout) override {
        return mDevice.waitReadable({.tv_sec = aTimeout.count(), .tv_usec = 0});
    }

private:
    Descriptor mDevice;
};

class PosixNotification final : public Notification {
public:
    explicit PosixNotification(Descriptor aFile)
        : mFile(std::move(aFile)) {}

    ssize_t read(char* aBuffer, std::size_t aSize) override { return ::read(mFile.number(), aBuffer, aSize); }
    int wait(std::chrono::seconds aSeconds, std::chrono::microseconds aMicroseconds) override {
        return mFile.waitReadable({.tv_sec = aSeconds.count(), .tv_usec = aMicroseconds.count()});
    }

private:
    Descriptor mFile;
};

} // namespace

/// A path of the instrument as it is to be opened. On the instrument that is the path itself, uncopied.
class PosixSeqlockDriver::Located {
public:
    Located(std::string const& aPrefix, std::string const& aPath)
        : mPath(aPrefix.empty() ? aPath : mJoined.append(aPrefix).append(aPath)) {}

    char const* path() const noexcept { return mPath.c_str(); }

private:
    std::string mJoined;
    std::string const& mPath;
};

PosixSeqlockDriver::PosixSeqlockDriver(std::filesystem::path const& aRoot)
    : mPrefix(aRoot.string()) {
    while (mPrefix.ends_with('/')) { // the paths begin with one
        mPrefix.pop_back();
    }
}

bool PosixSeqlockDriver::canRead(std::string const& aPath) {
    return Descriptor(Located(mPrefix, aPath).path(), O_RDONLY).open();
}

bool PosixSeqlockDriver::canWrite(std::string const& aPath) {
    // Neither made nor cut, so that the test leaves the text of a plain file as it is.
    return Descriptor(Located(mPrefix, aPath).path(), O_WRONLY).open();
}

std::string PosixSeqlockDriver::readRegister(std::string const& aPath) {
    Descriptor const file(Located(mPrefix, aPath).path(), O_RDONLY);
    std::string text;
    if (!file.open()) {
        return text;
    }
    std::array<char, 4096> piece; // NOLINT(*-member-init): a page is what sysfs gives; filled before use
    while (true) {
        ssize_t const count =
            uninterrupted([&] { return ::read(file.number(), piece.data(), piece.size()); });
        if (count <= 0) {
            return text;
        }
        text.append(piece.data(), static_cast<std::size_t>(count));
    }
}

void PosixSeqlockDriver::writeRegister(std::string const& aPath, std::string const& aText) {
    Descriptor const file(Located(mPrefix, aPath).path(), O_WRONLY | O_CREAT | O_TRUNC);
    if (file.open()) {
        // Intended: what comes of it is not told.
        uninterrupted([&] { return ::write(file.number(), aText.data(), aText.size()); });
    }
}

std::unique_ptr<Notification> PosixSeqlockDriver::openNotification(std::string const& aPath) {
    Descriptor file(Located(mPrefix, aPath).path(), O_RDONLY);
    return file.open() ? std::make_unique<PosixNotification>(std::move(file)) : nullptr;
}

std::unique_ptr<std::ostream> PosixSeqlockDriver::openMemory(std::string const& aPath) {
    return std::make_unique<std::ofstream>(Located(mPrefix, aPath).path(), std::ios::binary);
}

std::unique_ptr<StreamDevice> PosixSeqlockDriver::openStream(std::string const& aPath) {
    Descriptor device(Located(mPrefix, aPath).path(), O_RDONLY | O_NONBLOCK);
    return device.open() ? std::make_unique<PosixStreamDevice>(std::move(device)) : nullptr;
}

} // namespace velmor::q47::seqlock
