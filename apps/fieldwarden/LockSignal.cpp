// SPDX-License-Identifier: Apache-2.0
// Reading a dump with every way in which a file can be none, and the axes of its points.
#include "apps/fieldwarden/LockSignal.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <fstream>
#include <stdexcept>
#include <string>
#include <system_error>

#include <H5Cpp.h>
#include <fmt/format.h>

namespace libfieldwarden::app {

namespace {

[[noreturn]] void refuse(std::string const& aWhy) {
    throw std::runtime_error(aWhy);
}

/// HDF5 itself would wait at a pipe, and its words for a file that cannot be opened tell little.
void checkFile(std::filesystem::path const& aPath) {
    std::error_code error;
    auto const status = std::filesystem::status(aPath, error);
    if (!std::filesystem::exists(status)) {
        refuse(std::generic_category().message(error ? error.value() : ENOENT));
    }
    if (!std::filesystem::is_regular_file(status)) {
        refuse("It is not a file");
    }
    errno = 0;
    if (!std::ifstream(aPath).is_open()) {
        refuse(std::generic_category().message(errno));
    }
    if (!H5::H5File::isHdf5(aPath.c_str())) {
        refuse("It is not an HDF5 file");
    }
}

H5::DataSet openDataset(H5::H5File const& aFile, std::string const& aName) {
    if (!aFile.nameExists(aName)) {
        refuse("There is no dataset '" + aName + "'");
    }
    if (aFile.childObjType(aName) != H5O_TYPE_DATASET) {
        refuse("'" + aName + "' is not a dataset");
    }
    return aFile.openDataSet(aName);
}

/// @return The number of points.
std::size_t checkLayout(H5::DataSet const& aDataset, std::string const& aName) {
    if (aDataset.getTypeClass() != H5T_INTEGER || aDataset.getIntType().getSize() != sizeof(std::int32_t) ||
        aDataset.getIntType().getSign() != H5T_SGN_2) {
        refuse("'" + aName + "' does not consist of signed 32-bit integers");
    }
    H5::DataSpace const space = aDataset.getSpace();
    int const rank = space.getSimpleExtentNdims();
    if (rank != 1) {
        refuse(fmt::format("'{}' has {} dimensions instead of 1", aName, rank));
    }
    hsize_t count = 0;
    space.getSimpleExtentDims(&count);
    if (count == 0) {
        refuse("'" + aName + "' is empty");
    }
    if (count > kMostLockPoints) {
        refuse(fmt::format("'{}' has {} points, {} are the most", aName, count, kMostLockPoints));
    }
    return static_cast<std::size_t>(count);
}

std::vector<std::int32_t> readPart(H5::H5File const& aFile, std::string const& aName) {
    H5::DataSet const dataset = openDataset(aFile, aName);
    std::vector<std::int32_t> points(checkLayout(dataset, aName));
    try {
        dataset.read(points.data(), H5::PredType::NATIVE_INT32);
    } catch (H5::Exception const&) {
        refuse("'" + aName + "' is damaged");
    }
    return points;
}

H5::H5File openFile(std::filesystem::path const& aPath) {
    checkFile(aPath);
    try {
        return H5::H5File(aPath.c_str(), H5F_ACC_RDONLY);
    } catch (H5::FileIException const&) {
        refuse("It is damaged, or still being written");
    }
}

LockSignal read(std::filesystem::path const& aPath) {
    H5::H5File const file = openFile(aPath);
    LockSignal signal{readPart(file, "/Real"), readPart(file, "/Imag")};
    if (signal.real.size() != signal.imaginary.size()) {
        refuse(fmt::format("'/Real' has {} points, '/Imag' {}", signal.real.size(), signal.imaginary.size()));
    }
    return signal;
}

} // namespace

LockSignal readLockSignal(std::filesystem::path const& aPath) {
    H5::Exception::dontPrint();
    std::string const cannot = "Cannot read a lock signal from '" + aPath.string() + "': ";
    try {
        return read(aPath);
    } catch (H5::Exception const& error) {
        throw std::runtime_error(cannot + "HDF5 says '" + error.getDetailMsg() + "'");
    } catch (std::runtime_error const& error) {
        throw std::runtime_error(cannot + error.what());
    }
}

std::vector<double> magnitudes(LockSignal const& aSignal) {
    std::vector<double> result(aSignal.real.size());
    for (std::size_t i = 0; i < result.size(); ++i) {
        result[i] = std::hypot(aSignal.real[i], aSignal.imaginary[i]);
    }
    return result;
}

std::vector<double> fidTimes(std::size_t aCount) {
    std::vector<double> result(aCount);
    for (std::size_t i = 0; i < aCount; ++i) {
        result[i] = static_cast<double>(i) / kLockPointsPerSecond;
    }
    return result;
}

std::vector<double> fftFrequencies(std::size_t aCount) {
    double const width = kLockPointsPerSecond / static_cast<double>(aCount);
    std::size_t const below = aCount / 2; // Points of negative frequency.
    std::vector<double> result(aCount);
    for (std::size_t i = 0; i < aCount; ++i) {
        result[i] = (static_cast<double>(i) - static_cast<double>(below)) * width;
    }
    return result;
}

LockSignal zeroInTheMiddle(LockSignal aSignal) {
    for (auto* const part : {&aSignal.real, &aSignal.imaginary}) {
        std::rotate(part->begin(), part->end() - static_cast<std::ptrdiff_t>(part->size() / 2), part->end());
    }
    return aSignal;
}

} // namespace libfieldwarden::app
