// SPDX-License-Identifier: Apache-2.0
// The dumps as h5dump and h5py read them, value by value.
#include "lock/hardware/LockFFTDump.h"
#include "support/FakeLockHardware.h"
#include "support/FakeStreamDevice.h"
#include "support/TemporaryDirectory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

using libfieldwarden::test::FakeLockHardware;
using libfieldwarden::test::FakeSeqlockDriver;
using libfieldwarden::test::TemporaryDirectory;
using testing::HasSubstr;

namespace {

/// @return What a command prints.
std::string outputOf(std::string const& aCommand) {
    std::FILE* const pipe = popen(aCommand.c_str(), "r");
    std::string output;
    std::array<char, 65536> piece{};
    while (std::size_t const count = std::fread(piece.data(), 1, piece.size(), pipe)) {
        output.append(piece.data(), count);
    }
    EXPECT_EQ(pclose(pipe), 0) << aCommand;
    return output;
}

/// Values of every size and sign, the extremes among them.
int valueAt(std::size_t aPoint, int aPart) {
    auto const scrambled =
        static_cast<std::uint32_t>(aPoint * 2654435761U + static_cast<std::uint32_t>(aPart));
    switch (aPoint) {
        case 0:
            return INT32_MIN;
        case 1:
            return INT32_MAX;
        default:
            return static_cast<int>(scrambled) >> (aPoint % 31);
    }
}

void append(std::vector<unsigned char>& aBytes, int aValue) {
    for (unsigned int const shift : {24U, 16U, 8U, 0U}) {
        aBytes.push_back(static_cast<unsigned char>(static_cast<std::uint32_t>(aValue) >> shift));
    }
}

class Hdf5Readers : public testing::TestWithParam<std::size_t> {
protected:
    Hdf5Readers() {
        auto const driver = std::make_shared<FakeSeqlockDriver>();
        auto const hardware = std::make_shared<FakeLockHardware>();
        auto const stream = driver->stream("/dev/lock_dma_fd");
        hardware->registers.singleFdTransfer->onWrite([&](bool /*aOn*/) {
            std::vector<unsigned char> packet;
            for (std::size_t point = 0; point < GetParam(); ++point) {
                append(packet, valueAt(point, 1));
                append(packet, valueAt(point, 0));
            }
            stream->add(std::move(packet));
        });
        LockFFTDump(hardware, driver).acquireAndDump(mFile);
    }

    static std::vector<int> wanted(int aPart) {
        std::vector<int> values;
        for (std::size_t point = 0; point < GetParam(); ++point) {
            values.push_back(valueAt(point, aPart));
        }
        return values;
    }
    static std::vector<int> numbers(std::istream& aText) {
        std::vector<int> values;
        for (int value = 0; aText >> value;) {
            values.push_back(value);
        }
        return values;
    }

    TemporaryDirectory mFolder;
    std::string mFile = (mFolder.path() / "dump.h5").string();
};

TEST_P(Hdf5Readers, PythonReadsBothParts) {
    std::istringstream text(outputOf(PYTHON_PROGRAM " " READER_SCRIPT " " + mFile));
    std::string const size = std::to_string(GetParam());
    std::string const chunk = std::to_string(GetParam() / 4);
    std::string line;
    std::getline(text, line);
    EXPECT_EQ(line, "datasets Imag Real");
    for (int part = 0; part < 2; ++part) {
        std::getline(text, line);
        EXPECT_EQ(line, std::string(part == 0 ? "Real " : "Imag ") + size + " int32 " + chunk + " gzip 6");
        std::getline(text, line);
        std::istringstream values(line);
        EXPECT_EQ(numbers(values), wanted(part));
    }
}

TEST_P(Hdf5Readers, H5dumpReadsBothParts) {
    std::string const layout = outputOf(H5DUMP_PROGRAM " -p -H " + mFile);
    EXPECT_THAT(layout, HasSubstr("CHUNKED ( " + std::to_string(GetParam() / 4) + " )"));
    EXPECT_THAT(layout, HasSubstr("COMPRESSION DEFLATE { LEVEL 6 }"));
    EXPECT_THAT(layout, HasSubstr("H5T_STD_I32LE"));
    for (int part = 0; part < 2; ++part) {
        std::string const values = (mFolder.path() / "values.txt").string();
        outputOf(H5DUMP_PROGRAM " -d " + std::string(part == 0 ? "/Real" : "/Imag") + " -y -w 1 -o " +
                 values + " " + mFile);
        std::string text = libfieldwarden::test::readFile(values);
        std::replace(text.begin(), text.end(), ',', ' ');
        std::istringstream stream(text);
        EXPECT_EQ(numbers(stream), wanted(part));
    }
}

// A whole block, one whose quarters leave something over, and the least one.
INSTANTIATE_TEST_SUITE_P(Sizes, Hdf5Readers, testing::Values(65536U, 1003U, 4U));

} // namespace
