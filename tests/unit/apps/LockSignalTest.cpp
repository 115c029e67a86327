// SPDX-License-Identifier: Apache-2.0
// Dumps of the lock's signal: reading them, every way in which a file is none, and the axes of the points.
#include "apps/fieldwarden/LockSignal.h"

#include "support/TemporaryDirectory.h"

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <initializer_list>
#include <stdexcept>
#include <string>
#include <vector>

#include <H5Cpp.h>
#include <gmock/gmock.h>

namespace {

using namespace libfieldwarden::app;
using libfieldwarden::test::readFile;
using libfieldwarden::test::TemporaryDirectory;
using libfieldwarden::test::writeFile;
using testing::DoubleNear;
using testing::ElementsAre;
using testing::ThrowsMessage;

using Part = std::vector<std::int32_t>;

class LockSignalTest : public testing::Test {
protected:
    H5::H5File make() const { return {mFile.c_str(), H5F_ACC_TRUNC}; }

    /// Writes a part as the library does: four chunks, deflated.
    static void write(H5::H5File const& aFile, char const* aName, Part const& aPoints) {
        hsize_t const count = aPoints.size();
        hsize_t const chunk = std::max<hsize_t>(count / 4, 1);
        H5::DSetCreatPropList list;
        list.setChunk(1, &chunk);
        list.setDeflate(6);
        aFile.createDataSet(aName, H5::PredType::NATIVE_INT32, H5::DataSpace(1, &count), list)
            .write(aPoints.data(), H5::PredType::NATIVE_INT32);
    }

    /// Makes a dataset of any type and shape, and nothing in it.
    static void shape(H5::H5File const& aFile,
                      char const* aName,
                      H5::DataType const& aType,
                      std::vector<hsize_t> const& aSizes) {
        aFile.createDataSet(aName, aType, H5::DataSpace(static_cast<int>(aSizes.size()), aSizes.data()));
    }

    void expectRefused(std::string const& aWhy) const {
        EXPECT_THAT([&] { readLockSignal(mFile); },
                    ThrowsMessage<std::runtime_error>("Cannot read a lock signal from '" + mFile.string() +
                                                      "': " + aWhy));
    }

    TemporaryDirectory mDirectory;
    std::filesystem::path const mFile = mDirectory.path() / "dump.h5";
};

TEST_F(LockSignalTest, ReadsBothParts) {
    {
        auto const file = make();
        write(file, "/Real", {1, -2, 2147483647, -2147483648, 5});
        write(file, "/Imag", {0, 7, -7, 1, 9});
    }
    LockSignal const signal = readLockSignal(mFile);
    EXPECT_THAT(signal.real, ElementsAre(1, -2, 2147483647, -2147483648, 5));
    EXPECT_THAT(signal.imaginary, ElementsAre(0, 7, -7, 1, 9));
}

TEST_F(LockSignalTest, ReadsIntegersOfTheOtherByteOrder) {
    {
        auto const file = make();
        hsize_t const count = 2;
        Part const points{1, -256};
        for (char const* const name : {"/Real", "/Imag"}) {
            file.createDataSet(name, H5::PredType::STD_I32BE, H5::DataSpace(1, &count))
                .write(points.data(), H5::PredType::NATIVE_INT32);
        }
    }
    EXPECT_THAT(readLockSignal(mFile).real, ElementsAre(1, -256));
}

TEST_F(LockSignalTest, RefusesWhatIsNoHdf5File) {
    expectRefused("No such file or directory");
    std::filesystem::create_directory(mFile);
    expectRefused("It is not a file");
    std::filesystem::remove(mFile);
    writeFile(mFile, "");
    expectRefused("It is not an HDF5 file");
    writeFile(mFile, std::string(10000, 'x'));
    expectRefused("It is not an HDF5 file");
}

TEST_F(LockSignalTest, RefusesAFileThatWasCutOff) {
    {
        auto const file = make();
        write(file, "/Real", Part(1000, 1));
        write(file, "/Imag", Part(1000, 1));
    }
    std::filesystem::resize_file(mFile, std::filesystem::file_size(mFile) / 2);
    expectRefused("It is damaged, or still being written");
}

TEST_F(LockSignalTest, RefusesDamagedPoints) {
    Part noisy(4000);
    std::uint32_t state = 1;
    for (auto& point : noisy) {
        state = state * 1664525U + 1013904223U; // Numerical Recipes' generator.
        point = static_cast<std::int32_t>(state);
    }
    {
        auto const file = make();
        write(file, "/Real", Part(4, 1));
        write(file, "/Imag", noisy);
    }
    std::string bytes = readFile(mFile);
    bytes.replace(bytes.size() / 2, 64, 64, '\xFF');
    writeFile(mFile, bytes);
    expectRefused("'/Imag' is damaged");
}

TEST_F(LockSignalTest, RefusesAFileWithoutTheDatasets) {
    make().createGroup("/Real");
    expectRefused("'/Real' is not a dataset");
    write(make(), "/Real", {1, 2, 3, 4});
    expectRefused("There is no dataset '/Imag'");
}

TEST_F(LockSignalTest, RefusesOtherTypes) {
    H5::StrType const text(0, 4);
    for (H5::DataType const* const type : std::initializer_list<H5::DataType const*>{
             &H5::PredType::NATIVE_FLOAT, &H5::PredType::STD_U32LE, &H5::PredType::STD_I16LE,
             &H5::PredType::STD_I64LE, &text}) {
        shape(make(), "/Real", *type, {4});
        expectRefused("'/Real' does not consist of signed 32-bit integers");
    }
}

TEST_F(LockSignalTest, RefusesOtherShapes) {
    shape(make(), "/Real", H5::PredType::STD_I32LE, {4, 4});
    expectRefused("'/Real' has 2 dimensions instead of 1");
    shape(make(), "/Real", H5::PredType::STD_I32LE, {});
    expectRefused("'/Real' has 0 dimensions instead of 1");
    shape(make(), "/Real", H5::PredType::STD_I32LE, {0});
    expectRefused("'/Real' is empty");
    {
        auto const file = make();
        shape(file, "/Real", H5::PredType::STD_I32LE, {8});
        shape(file, "/Imag", H5::PredType::STD_I32LE, {7});
    }
    expectRefused("'/Real' has 8 points, '/Imag' 7");
}

TEST_F(LockSignalTest, RefusesMorePointsThanAnyDumpHas) {
    hsize_t const huge = hsize_t{1} << 50U;
    hsize_t const chunk = 1024;
    H5::DSetCreatPropList list;
    list.setChunk(1, &chunk); // Without a chunk written, the file stays small.
    make().createDataSet("/Real", H5::PredType::STD_I32LE, H5::DataSpace(1, &huge), list);
    expectRefused("'/Real' has 1125899906842624 points, 4194304 are the most");
}

TEST(ZeroInTheMiddle, SwapsTheHalves) {
    LockSignal const even = zeroInTheMiddle({{0, 1, 2, -3, -2, -1}, {10, 11, 12, 7, 8, 9}});
    EXPECT_THAT(even.real, ElementsAre(-3, -2, -1, 0, 1, 2));
    EXPECT_THAT(even.imaginary, ElementsAre(7, 8, 9, 10, 11, 12));
    EXPECT_THAT(zeroInTheMiddle({{0, 1, 2, -2, -1}, Part(5)}).real, ElementsAre(-2, -1, 0, 1, 2));
    EXPECT_THAT(zeroInTheMiddle({{0}, {5}}).imaginary, ElementsAre(5));
}

TEST(FftFrequencies, FitThePointsWithZeroInTheMiddle) {
    // 68,571,428 / 2,048 = 33,482.14 points a second; 65,536 points are 0.51090 Hz apart.
    auto const frequencies = fftFrequencies(65536);
    EXPECT_THAT(frequencies[32768], 0.0);
    EXPECT_THAT(frequencies[32769], DoubleNear(0.51090, 5e-6));
    EXPECT_THAT(frequencies[0], DoubleNear(-16741.0713, 1e-4)); // Half of 33,482.14.
    auto const odd = fftFrequencies(3);                         // 33,482.1426 / 3 = 11,160.7142
    EXPECT_THAT(odd, ElementsAre(DoubleNear(-11160.7142, 1e-3), 0.0, DoubleNear(11160.7142, 1e-3)));
}

TEST(FidTimes, BeginAtZeroAndAreAPointApart) {
    auto const times = fidTimes(65536);
    EXPECT_EQ(times[0], 0.0);
    EXPECT_THAT(times[1], DoubleNear(29.8667e-6, 1e-10)); // 1 / 33,482.14
    EXPECT_THAT(times[65535], DoubleNear(1.957312, 1e-6));
}

TEST(Magnitudes, DoNotOverflow) {
    auto const result = magnitudes({{3, 0, -2147483647 - 1}, {-4, 0, -2147483647 - 1}});
    EXPECT_THAT(result, ElementsAre(5.0, 0.0, DoubleNear(3037000499.976, 1e-3))); // 2^31 times the root of 2.
}

} // namespace
