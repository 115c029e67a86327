// SPDX-License-Identifier: Apache-2.0
// The sequencer's driver on the system calls.
#include <velmor/q47/seqlock/PosixSeqlockDriver.h>

#include <fstream>
#include <iterator>
#include <utility>

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <unistd.h>

namespace velmor::q47::seqlock {

namespace {

/// Owner of a file descriptor.
class Descriptor {
public:
    Descriptor(std::string const& aPath, int aFlags)
        : mNumber(::open(aPath.c_str(), aFlags | O_CLOEXEC)) {}
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

    /// select(2) for reading on this descriptor alone.
    int waitReadable(timeval aTimeout) const {
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

PosixSeqlockDriver::PosixSeqlockDriver(std::filesystem::path aRoot)
    : mRoot(std::move(aRoot)) {}

std::string PosixSeqlockDriver::located(std::string const& aPath) const {
    return (mRoot / std::filesystem::path(aPath).relative_path()).string();
}

bool PosixSeqlockDriver::canRead(std::string const& aPath) {
    return std::ifstream(located(aPath)).is_open();
}

bool PosixSeqlockDriver::canWrite(std::string const& aPath) {
    // Opened to read as well, so that the test leaves the text of a plain file as it is.
    return std::fstream(located(aPath), std::ios::in | std::ios::out).is_open();
}

std::string PosixSeqlockDriver::readRegister(std::string const& aPath) {
    std::ifstream file(located(aPath));
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

void PosixSeqlockDriver::writeRegister(std::string const& aPath, std::string const& aText) {
    std::ofstream file(located(aPath));
    file << aText;
}

std::unique_ptr<Notification> PosixSeqlockDriver::openNotification(std::string const& aPath) {
    Descriptor file(located(aPath), O_RDONLY);
    return file.open() ? std::make_unique<PosixNotification>(std::move(file)) : nullptr;
}

std::unique_ptr<std::ostream> PosixSeqlockDriver::openMemory(std::string const& aPath) {
    return std::make_unique<std::ofstream>(located(aPath), std::ios::binary);
}

std::unique_ptr<StreamDevice> PosixSeqlockDriver::openStream(std::string const& aPath) {
    Descriptor device(located(aPath), O_RDONLY | O_NONBLOCK);
    return device.open() ? std::make_unique<PosixStreamDevice>(std::move(device)) : nullptr;
}

} // namespace velmor::q47::seqlock
