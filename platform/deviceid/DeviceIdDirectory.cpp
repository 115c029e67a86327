// SPDX-License-Identifier: Apache-2.0
// Reading and writing of record files.
#include <velmor/kepla/deviceid/DeviceIdDirectory.h>

#include <cerrno>
#include <fstream>
#include <optional>
#include <stdexcept>
#include <string_view>
#include <system_error>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cstdlib>

namespace velmor::kepla::deviceid {

namespace {

namespace fs = std::filesystem;

constexpr std::string_view kExtension = ".mds";
constexpr std::string_view kDeviceCharacters =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789._-";
constexpr mode_t kRecordMode = S_IRUSR | S_IWUSR | S_IRGRP | S_IROTH;

[[noreturn]] void fail(std::string const& aDoing, fs::path const& aFile, int aError) {
    throw std::runtime_error("Cannot " + aDoing + " the device record '" + aFile.string() +
                             "': " + std::generic_category().message(aError));
}

/// A file descriptor that is closed with its owner.
class Descriptor {
public:
    explicit Descriptor(int aValue) noexcept
        : mValue(aValue) {}
    ~Descriptor() {
        if (mValue >= 0) {
            ::close(mValue);
        }
    }
    Descriptor(Descriptor const&) = delete;
    Descriptor& operator=(Descriptor const&) = delete;

    int value() const noexcept { return mValue; }

    /// @return 0 or the error that the file system kept back until now.
    int close() noexcept { return ::close(std::exchange(mValue, -1)) == 0 ? 0 : errno; }

private:
    int mValue;
};

/// A file under a name of its own beside the final one, removed unless it took the final name.
class NewFile {
public:
    explicit NewFile(fs::path aFinal)
        : mFinal(std::move(aFinal))
        , mName((mFinal.parent_path() / ("." + mFinal.filename().string() + ".XXXXXX")).string())
        , mFile(::mkostemp(mName.data(), O_CLOEXEC)) {
        if (mFile.value() < 0) {
            fail("write", mFinal, errno);
        }
    }
    ~NewFile() {
        if (!mTaken) {
            ::unlink(mName.c_str());
        }
    }
    NewFile(NewFile const&) = delete;
    NewFile& operator=(NewFile const&) = delete;

    void write(std::string_view aText) {
        while (!aText.empty()) {
            ssize_t const count = ::write(mFile.value(), aText.data(), aText.size());
            if (count >= 0) {
                aText.remove_prefix(static_cast<std::size_t>(count));
            } else if (errno != EINTR) {
                fail("write", mFinal, errno);
            }
        }
    }

    /// Brings the contents to the disk before the name, so that a power cut cannot leave an empty record.
    void takeName() {
        if (::fchmod(mFile.value(), kRecordMode) != 0 || ::fsync(mFile.value()) != 0) {
            fail("write", mFinal, errno);
        }
        if (int const error = mFile.close(); error != 0) {
            fail("write", mFinal, error);
        }
        if (::rename(mName.c_str(), mFinal.c_str()) != 0) {
            fail("write", mFinal, errno);
        }
        mTaken = true;
        Descriptor const directory(::open(mFinal.parent_path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        if (directory.value() < 0 || ::fsync(directory.value()) != 0) {
            fail("write", mFinal, errno);
        }
    }

private:
    fs::path mFinal;
    std::string mName;
    Descriptor mFile;
    bool mTaken = false;
};

/// @return The contents; none when there is no such file.
/// @throws std::runtime_error  when it is too long or cannot be read.
std::optional<std::string> read(fs::path const& aFile) {
    std::error_code error;
    fs::file_status const status = fs::status(aFile, error);
    if (status.type() == fs::file_type::not_found) {
        return std::nullopt;
    }
    if (error) {
        fail("read", aFile, error.value());
    }
    if (!fs::is_regular_file(status)) {
        throw std::runtime_error("Cannot read the device record '" + aFile.string() +
                                 "': not a regular file");
    }
    errno = 0;
    std::ifstream stream(aFile, std::ios::binary);
    if (!stream) {
        fail("read", aFile, errno);
    }
    // One more than allowed tells too long a file, whatever its size was a moment ago.
    std::string text(DeviceIdDirectory::kMaxRecordBytes + 1, '\0');
    stream.read(text.data(), static_cast<std::streamsize>(text.size()));
    if (stream.bad()) {
        fail("read", aFile, errno);
    }
    text.resize(static_cast<std::size_t>(stream.gcount()));
    if (text.size() > DeviceIdDirectory::kMaxRecordBytes) {
        throw std::runtime_error("Cannot read the device record '" + aFile.string() +
                                 "': it is longer than 1 MiB");
    }
    return text;
}

bool has(fs::path const& aFile, std::string const& aText) {
    try {
        return read(aFile) == aText;
    } catch (std::runtime_error const&) {
        // What cannot be read is not what is to be there; the writing tells what is wrong, if anything.
        return false;
    }
}

} // namespace

DeviceIdDirectory::DeviceIdDirectory(std::filesystem::path aDirectory)
    : mDirectory(std::move(aDirectory)) {}

std::string DeviceIdDirectory::mainMds() {
    fs::path const file = fileOf("main");
    if (std::optional<std::string> text = read(file)) {
        return *std::move(text);
    }
    fail("read", file, ENOENT);
}

void DeviceIdDirectory::contribute(std::string const& aDevice, std::string const& aRecordText) {
    if (aDevice.empty() || aDevice.find_first_not_of(kDeviceCharacters) != std::string::npos) {
        throw std::invalid_argument("'" + aDevice + "' is no device name: A-Z a-z 0-9 . _ - are allowed");
    }
    if (aRecordText.size() > kMaxRecordBytes) {
        throw std::invalid_argument("The record of device '" + aDevice + "' is longer than 1 MiB");
    }
    fs::path const file = fileOf(aDevice);
    if (has(file, aRecordText)) {
        return;
    }
    std::error_code error;
    fs::create_directories(mDirectory, error);
    if (error) {
        fail("write", file, error.value());
    }
    NewFile newFile(file);
    newFile.write(aRecordText);
    newFile.takeName();
}

std::filesystem::path DeviceIdDirectory::fileOf(std::string const& aDevice) const {
    return mDirectory / (aDevice + std::string(kExtension));
}

} // namespace velmor::kepla::deviceid
