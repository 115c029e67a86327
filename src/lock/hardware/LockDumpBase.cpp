// SPDX-License-Identifier: Apache-2.0
// How a block of lock data is fetched, decoded and written to an HDF5 file.
#include "lock/hardware/LockDumpBase.h"

#include "lock/hardware/Hdf5Library.h"

#include <algorithm>
#include <bit>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstring>
#include <exception>
#include <filesystem>
#include <fstream>
#include <new>
#include <span>
#include <stdexcept>
#include <system_error>
#include <utility>

#include <H5Cpp.h>
#include <libdeflate.h>

using velmor::kepla::log::Severity;

namespace {

constexpr std::chrono::seconds kReadLimit{30};
constexpr std::size_t kPointSize = 8; ///< In bytes: the imaginary part, then the real one.
constexpr std::size_t kChunksPerDataset = 4;
constexpr int kDeflateLevel = 6;

/// The file's size in memory grows in such steps.
constexpr std::size_t kImageStep = std::size_t{256} * 1024;

static_assert(H5_VERS_MAJOR == 1 && H5_VERS_MINOR >= 10);

int bigEndianAt(unsigned char const* aBytes) noexcept {
    static_assert(std::endian::native == std::endian::little);
    unsigned int word = 0;
    std::memcpy(&word, aBytes, sizeof(word));
    return static_cast<int>(__builtin_bswap32(word));
}

/// Makes of a chunk what HDF5's own deflate filter makes of it, in a fraction of its time.
class Deflater {
public:
    explicit Deflater(std::size_t aChunkBytes)
        : mCompressor(libdeflate_alloc_compressor(kDeflateLevel))
        , mOutput(mCompressor ? libdeflate_zlib_compress_bound(mCompressor.get(), aChunkBytes) : 0) {
        if (!mCompressor) {
            throw std::bad_alloc();
        }
    }

    /// @return The compressed chunk; good until the next call.
    std::span<unsigned char const> compress(std::span<int const> aChunk) {
        std::size_t const bytes = libdeflate_zlib_compress(
            mCompressor.get(), aChunk.data(), aChunk.size_bytes(), mOutput.data(), mOutput.size());
        return std::span(mOutput).first(bytes); // The bound is always enough.
    }

private:
    struct Free {
        void operator()(libdeflate_compressor* aCompressor) const noexcept {
            libdeflate_free_compressor(aCompressor);
        }
    };

    std::unique_ptr<libdeflate_compressor, Free> mCompressor;
    std::vector<unsigned char> mOutput;
};

/// Writes a file under another name first, so that nobody ever reads half of it.
void replaceFile(std::filesystem::path const& aPath, std::span<char const> aBytes) {
    std::filesystem::path temporary(aPath);
    temporary += ".part";
    errno = 0;
    std::ofstream file(temporary, std::ios::binary | std::ios::trunc);
    file.write(aBytes.data(), static_cast<std::streamsize>(aBytes.size()));
    file.close();
    std::error_code error(errno != 0 ? errno : EIO, std::generic_category());
    if (file) {
        std::filesystem::rename(temporary, aPath, error);
        if (!error) {
            return;
        }
    }
    std::error_code ignored;
    std::filesystem::remove(temporary, ignored);
    throw std::filesystem::filesystem_error("cannot write the dump", aPath, error);
}

/// @return The file as it is to stand on the disk.
std::vector<char> imageOf(H5::H5File const& aFile) {
    aFile.flush(H5F_SCOPE_GLOBAL);
    ssize_t const size = H5Fget_file_image(aFile.getId(), nullptr, 0);
    if (size < 0) {
        throw H5::FileIException("imageOf", "H5Fget_file_image failed");
    }
    std::vector<char> image(static_cast<std::size_t>(size));
    if (H5Fget_file_image(aFile.getId(), image.data(), image.size()) != size) {
        throw H5::FileIException("imageOf", "H5Fget_file_image failed");
    }
    return image;
}

} // namespace

LockDumpBase::LockDumpBase(std::shared_ptr<LockHardwareInterface> aHardware,
                           std::string aPath,
                           std::string const& aLabel,
                           unsigned int aPacketSize,
                           std::shared_ptr<SeqlockDriver> const& aDriver)
    : Logger("LockDumpBase", "Lock")
    , mHardware(std::move(aHardware))
    , mPath(std::move(aPath))
    , mLabel(aLabel)
    , mPacketSize(aPacketSize)
    , mRealDatasetName("/" + std::string("Real"))
    , mImagDatasetName("/" + std::string("Imag")) {
    try {
        auto reader = std::make_unique<LockStreamPacketReader>(mPath, mPacketSize, aDriver);
        keplaDoLog(Severity::Debug, "flushing the %s to ensure no wrong/old data in the pipe", {}, mLabel);
        reader->flush();
        keplaDoLog(Severity::Debug, "flushed the %s", {}, mLabel);
        mReader = std::move(reader);
    } catch (std::exception const& failure) {
        keplaDoLog(Severity::Error,
                   "Failed to create packet reader, won't dump any data from %s. Error was %s", {}, mLabel,
                   failure.what());
    }
}

LockDumpBase::~LockDumpBase() = default;

std::shared_ptr<LockHardwareInterface> const& LockDumpBase::hardware() const {
    return mHardware;
}

void LockDumpBase::requestStop() noexcept {
    if (mReader) {
        mReader->requestStop();
    }
}

// ----------------------------------------------------------------------------------------------- acquiring

ComplextInt32Vector LockDumpBase::acquireAndGet() {
    keplaDoLog(Severity::Info, "+acquireAndGet", {});
    if (!mReader) {
        keplaDoLog(Severity::Error, "no valid stream packet reader available on %s, cannot do acquisition",
                   {}, mLabel);
        throw std::runtime_error("Cannot read data from hardware");
    }
    return decode(*triggerAndRead());
}

void LockDumpBase::acquireAndDump(std::string const& aFile) {
    if (!mReader) {
        keplaDoLog(Severity::Warning, "won't do data dump from %s: no valid stream packet reader", {},
                   mLabel);
        return;
    }
    keplaDoLog(Severity::Debug, "+acquireAndDump(%s)", {}, aFile);
    try {
        dumpToH5(decode(*triggerAndRead()), aFile);
    } catch (std::exception const& failure) {
        keplaDoLog(Severity::Error, "-acquireAndDump(%s) failed with %s", {}, aFile, failure.what());
    } catch (...) { // What HDF5 throws is no std::exception.
        keplaDoLog(Severity::Error, "-acquireAndDump(%s) failed with unspecified error", {}, aFile);
    }
}

std::unique_ptr<LockDumpBase::Packet> LockDumpBase::triggerAndRead() {
    mReader->flush(); // so that nothing older can pass for the answer
    trigger();
    return mReader->readSingle(kReadLimit);
}

ComplextInt32Vector LockDumpBase::decode(Packet const& aPacket) const {
    std::size_t const points = aPacket.size() / kPointSize;
    ComplextInt32Vector data{.real = std::make_shared<std::vector<int>>(points),
                             .imag = std::make_shared<std::vector<int>>(points)};
    keplaDoLog(Severity::Trace, "Got a packet of %u bytes", {}, aPacket.size());
    int* const real = data.real->data();
    int* const imag = data.imag->data();
    unsigned char const* const bytes = aPacket.data();
    for (std::size_t point = 0; point < points; ++point) {
        imag[point] = bigEndianAt(bytes + kPointSize * point);
        real[point] = bigEndianAt(bytes + kPointSize * point + 4);
    }
    return data;
}

// ------------------------------------------------------------------------------------------------- the file

// The file is made in memory and written as a whole. HDF5 keeps the handle of a file that it cannot write to
// the end, on a full disk for example: in memory that cannot happen.
void LockDumpBase::dumpToH5(ComplextInt32Vector const& aData, std::string const& aFile) const {
    keplaDoLog(Severity::Debug, "+dumpToH5 to %s", {}, aFile);
    auto const lock = Hdf5Library::instance().lock();
    H5check_version(H5_VERS_MAJOR, H5_VERS_MINOR, H5_VERS_RELEASE);
    H5open();
    H5::FileAccPropList inMemory;
    inMemory.setCore(kImageStep, false);
    H5::H5File file(aFile, H5F_ACC_TRUNC, H5::FileCreatPropList::DEFAULT, inMemory);
    makeH5Dataset(file, *aData.real, mRealDatasetName);
    makeH5Dataset(file, *aData.imag, mImagDatasetName);
    replaceFile(aFile, imageOf(file));
    keplaDoLog(Severity::Debug, "-dumpToH5 to %s", {}, aFile);
}

void LockDumpBase::makeH5Dataset(H5::H5File& aFile,
                                 std::vector<int> const& aVector,
                                 std::string const& aName) {
    hsize_t const points = aVector.size();
    hsize_t const chunk = points / kChunksPerDataset; // 0 below four points: refused by setChunk()
    H5::DataSpace const space(1, &points);
    H5::DSetCreatPropList properties;
    properties.setChunk(1, &chunk);
    properties.setDeflate(kDeflateLevel);
    H5::DataSet const dataset = aFile.createDataSet(aName, H5::PredType::NATIVE_INT32, space, properties);

    Deflater deflater(chunk * sizeof(int));
    for (hsize_t begin = 0; begin < points; begin += chunk) {
        std::span<int const> values = std::span(aVector).subspan(begin, std::min(chunk, points - begin));
        std::vector<int> padded;
        if (values.size() < chunk) { // A chunk is stored whole, whatever of it lies in the dataset.
            padded.assign(values.begin(), values.end());
            padded.resize(chunk);
            values = padded;
        }
        auto const compressed = deflater.compress(values);
        if (H5Dwrite_chunk(dataset.getId(), H5P_DEFAULT, 0, &begin, compressed.size(), compressed.data()) <
            0) {
            throw H5::DataSetIException("makeH5Dataset", "H5Dwrite_chunk failed");
        }
    }
}
