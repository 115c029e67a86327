// SPDX-License-Identifier: Apache-2.0
// Any bytes as packets of the lock's three streams: PID records and blocks of FID and FFT come out or are
// refused with one of the told exceptions, and nothing that was not in the packet.
#include "lock/hardware/LockFFTDump.h"
#include "lock/hardware/LockFIDDump.h"
#include "lock/hardware/LockHardwareInterface.h"
#include "lock/hardware/LockPIDDataStream.h"
#include "support/FakeStreamDevice.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <istream>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace {

using libfieldwarden::test::FakeSeqlockDriver;
using Bytes = std::vector<unsigned char>;

/// A register that does something when it is written.
template <typename T>
class Register final : public LockHardwareRegisterClearable<T> {
public:
    explicit Register(std::function<void()> aOnWrite)
        : LockHardwareRegisterReadOnly<T>("register")
        , mOnWrite(std::move(aOnWrite)) {}

    T get() const override { return T{}; }
    void set(T /*aValue*/) override { mOnWrite(); }
    T value4clear() const override { return T{}; }

private:
    std::function<void()> mOnWrite;
};

/// As much of the sequencer as the streams use; the other registers do nothing.
class Hardware final : public LockHardwareInterface {
public:
    std::function<void()> onTd;
    std::function<void()> onFd;

    void setTx(double /*aFreqHz*/, unsigned int /*aMVpp*/) override {}
    double getTxFrequency() const override { return 0.0; }
    void loadProgram(std::string const& /*aPath*/) override {}
    void loadWindow(std::istream& /*aStream*/) override {}
    bool waitForIRQ(std::chrono::milliseconds const& /*aTimeout*/) override { return false; }

#define FUZZ_REGISTER(accessor, path, access, type)                                           \
    std::shared_ptr<libfieldwarden::lock::access##Register<type>> accessor() const override { \
        return std::make_shared<Register<type>>([this] { written(path); });                   \
    }
    LOCK_REGISTERS(FUZZ_REGISTER)
#undef FUZZ_REGISTER

private:
    void written(std::string_view aPath) const {
        if (aPath == "log/single_td_transfer") {
            onTd();
        } else if (aPath == "log/single_fd_transfer") {
            onFd();
        }
    }
};

/// A sequencer whose devices answer with the packet of this input. Kept for all inputs.
class Sequencer {
public:
    Sequencer() {
        for (auto const& stream : {mTd, mFd, mPid}) {
            stream->limitWaits(std::chrono::milliseconds(1));
        }
        mHardware->onTd = [this] { answer(*mTd); };
        mHardware->onFd = [this] { answer(*mFd); };
    }

    /// @param aLimit  Longest read of the device.
    void take(Bytes aPacket, std::size_t aLimit) {
        mPacket = std::move(aPacket);
        for (auto const& stream : {mTd, mFd, mPid}) {
            stream->limitReads(aLimit);
        }
        block(mFID);
        block(mFFT);
        records();
    }

private:
    void answer(libfieldwarden::test::FakeStream& aStream) const { aStream.add(mPacket); }

    /// A block has a point for every eight bytes.
    void block(LockDumpBase& aDump) const {
        auto const data = aDump.acquireAndGet();
        if (data.real->size() != mPacket.size() / 8 || data.imag->size() != data.real->size()) {
            std::abort();
        }
        for (std::size_t point = 0; point < data.real->size(); ++point) {
            unsigned char const* const at = &mPacket[8 * point];
            if (wordAt(at) != data.imag->at(point) || wordAt(at + 4) != data.real->at(point)) {
                std::abort();
            }
        }
    }
    static int wordAt(unsigned char const* aBytes) {
        return static_cast<int>(std::uint32_t{aBytes[0]} << 24U | std::uint32_t{aBytes[1]} << 16U |
                                std::uint32_t{aBytes[2]} << 8U | aBytes[3]);
    }

    /// The stream has a record for every 16 bytes; one that is known follows, so that the end is seen.
    void records() {
        mPid->add(mPacket);
        Bytes last(16, 0);
        last[1] = 0x5A;
        mPid->add(last);
        std::size_t const expected = mPacket.size() / 16 + 1;
        for (std::size_t record = 0; record < expected; ++record) {
            std::unique_ptr<LockStreamPIDData> data;
            if (!mRecords.dequeueWait(data, std::chrono::seconds(20))) {
                std::abort();
            }
            bool const inRange = data->phase() >= -4.0 && data->phase() < 4.0 &&
                                 data->pidDataOut() >= -8388608 && data->pidDataOut() <= 8388607;
            if (!inRange) {
                std::abort();
            }
        }
    }

    Bytes mPacket;
    std::shared_ptr<FakeSeqlockDriver> mDriver = std::make_shared<FakeSeqlockDriver>();
    std::shared_ptr<libfieldwarden::test::FakeStream> mTd = mDriver->stream("/dev/lock_dma_td");
    std::shared_ptr<libfieldwarden::test::FakeStream> mFd = mDriver->stream("/dev/lock_dma_fd");
    std::shared_ptr<libfieldwarden::test::FakeStream> mPid = mDriver->stream("/dev/lock_dma_pid");
    std::shared_ptr<Hardware> mHardware = std::make_shared<Hardware>();
    LockFIDDump mFID{mHardware, mDriver};
    LockFFTDump mFFT{mHardware, mDriver};
    LockPIDDataStream mRecords{mHardware, mDriver};
    struct Start {
        explicit Start(LockPIDDataStream& aStream) { aStream.start(); }
    } mStart{mRecords};
};

} // namespace

// The first byte bounds the device's reads, the others are the packet.
extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* aData, std::size_t aSize) {
    static Sequencer sequencer;
    if (aSize > 0) {
        sequencer.take(Bytes(aData + 1, aData + aSize), std::size_t{aData[0]} + 1);
    }
    return 0;
}
