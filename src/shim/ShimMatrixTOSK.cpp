// SPDX-License-Identifier: Apache-2.0
// Loads TOSK matrix files and computes with them.
#include "shim/ShimMatrixTOSK.h"

#include "shim/SaturatedToInt32.h"
#include "shim/ShimGradientsTOSK.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <limits>
#include <locale>
#include <span>
#include <stdexcept>
#include <utility>

namespace ublas = boost::numeric::ublas;
using libfieldwarden::saturatedToInt32;
using shim::FileEntry;
using velmor::kepla::log::Severity;

namespace {

constexpr std::size_t kSize = 40;
/// A file of more bytes is none of ours: a matrix with every entry has some hundred kilobytes.
constexpr std::uintmax_t kMostBytes = std::uintmax_t{64} * 1024 * 1024;
constexpr double kSmallest = std::numeric_limits<double>::epsilon();

/// A number of the file as an index: 1 is 0. Anything else than 1 to 40 gives an index that uBLAS refuses.
std::size_t indexOf(int aNumber) {
    return static_cast<std::size_t>(aNumber) - 1U;
}

/// One row of a matrix. Its two ends pass the index check of uBLAS, and so all that lies between them.
std::span<double const, kSize> rowOf(ublas::matrix<double> const& aMatrix, std::size_t aRow) {
    double const* const first = &aMatrix(aRow, 0);
    double const* const last = &aMatrix(aRow, kSize - 1);
    return std::span<double const, kSize>(first, last + 1);
}

/// Row vector times matrix. Each sum runs over the rows in ascending order from 0.0; row by row, because the
/// matrix lies in memory so.
template <typename Element>
ublas::vector<double> product(ublas::vector<Element> const& aVector, ublas::matrix<double> const& aMatrix) {
    std::array<double, kSize> sums{};
    for (std::size_t i = 0; i < kSize; ++i) {
        auto const factor = static_cast<double>(aVector(i));
        auto const row = rowOf(aMatrix, i);
        for (std::size_t j = 0; j < kSize; ++j) {
            sums[j] += factor * row[j];
        }
    }
    ublas::vector<double> result(kSize);
    std::copy(sums.begin(), sums.end(), result.begin());
    return result;
}

} // namespace

ShimMatrixTOSK::ShimMatrixTOSK(std::string const& aPath)
    : Logger("ShimMatrixTOSK", "Shim")
    , mForward(kSize, kSize)
    , mInverse(kSize, kSize)
    , mSensitivity(kSize, 0.0) {
    loadFromFile(aPath);
}

ublas::vector<double> ShimMatrixTOSK::gradientsToCoils(ShimGradientsTOSK* aGradients) {
    keplaDoLog(Severity::Trace, "+gradientsToCoils", {});
    ublas::vector<int> weighted = aGradients->getVector();
    applySensitivity(&weighted);
    return product(weighted, mForward);
}

void ShimMatrixTOSK::coilsToGradients(ublas::vector<double>* aCoils, ShimGradientsTOSK* aGradients) {
    keplaDoLog(Severity::Trace, "+coilsToGradients", {});
    ublas::vector<double> result = product(*aCoils, mInverse);
    applyReverseSensitivity(&result);
    ublas::vector<int>& gradients = aGradients->getVector();
    for (std::size_t j = 0; j < kSize; ++j) {
        int value = 0; // intended: a gradient without a weight comes back as 0, not as an error
        if (std::isfinite(result(j))) {
            keplaDoLog(Severity::Trace, "DEBUG toskCurreints(%d) = %f", {}, j, result(j));
            value = saturatedToInt32(std::round(result(j)));
        }
        gradients(j) = value;
        keplaDoLog(Severity::Trace, "gradVector[%u] = %d", {}, j, value);
    }
}

std::string ShimMatrixTOSK::getNamesOfActiveShimGradients() {
    keplaDoLog(Severity::Trace, "+getNamesOfActiveShimGradients", {});
    return mActiveGradientNames;
}

std::string ShimMatrixTOSK::exportForwardAndInverse() {
    std::stringstream stream;
    Matrix forward = mForward;
    for (std::size_t i = 0; i < kSize; ++i) {
        for (std::size_t j = 0; j < kSize; ++j) {
            forward(i, j) *= mSensitivity[i];
        }
    }
    exportMatrix(forward, "F ", stream);

    Matrix inverse = mInverse;
    for (std::size_t j = 0; j < kSize; ++j) {
        double const factor = std::abs(mSensitivity[j]) > kSmallest ? 1.0 / mSensitivity[j] : 0.0;
        for (std::size_t i = 0; i < kSize; ++i) {
            inverse(i, j) *= factor;
        }
    }
    exportMatrix(inverse, "I ", stream);
    return stream.str();
}

std::string ShimMatrixTOSK::loadTextFile(std::string const& aPath) const {
    keplaDoLog(Severity::Debug, "+loadTextFile(toskFilePath='%s')", {}, aPath);
    std::ifstream file;
    std::string text;
    try {
        if (std::filesystem::exists(aPath)) {
            auto const size = std::filesystem::file_size(aPath); // Throws for what is no file.
            if (size > kMostBytes) {
                throw std::length_error("it has " + std::to_string(size) + " bytes");
            }
            text.resize(size);
        }
        file.open(aPath, std::ios::binary);
        if (file.is_open()) {
            file.exceptions(std::ios::badbit);
            file.read(text.data(), static_cast<std::streamsize>(text.size()));
            text.resize(static_cast<std::size_t>(file.gcount()));
        }
    } catch (std::exception const& error) {
        keplaDoLog(Severity::Error, "~loadTextFile(toskFilePath='%s': failed to open file, exception = %s",
                   {}, aPath, error.what());
        throw std::invalid_argument("Could not open TOSK file '" + aPath + "'");
    }
    if (!file.is_open()) {
        throw std::invalid_argument("Could not open TOSK file #2 '" + aPath + "'");
    }
    keplaDoLog(Severity::Trace, "-loadTextFile(toskFilePath='%s')", {}, aPath);
    return text;
}

void ShimMatrixTOSK::loadFromFile(std::string const& aPath) {
    keplaDoLog(Severity::Debug, "+loadFromFile(path='%s')", {}, aPath);
    std::string const text = loadTextFile(aPath);
    Relations forward;
    Relations inverse;
    Weights weights;
    parseToskFile(text, forward, inverse, weights);
    setMatrix(mForward, forward);
    logMatrix("forward matrix", mForward);
    setMatrix(mInverse, inverse);
    logMatrix("inverse matrix", mInverse);
    setSensitivity(weights);
    mActiveGradientNames = computeActiveShimGradientsString(weights);
    keplaDoLog(Severity::Debug, "-loadFromFile(path='%s')", {}, aPath);
}

void ShimMatrixTOSK::parseToskFile(std::string const& aText,
                                   Relations& aForward,
                                   Relations& aInverse,
                                   Weights& aWeights) {
    int line = 1;
    bool modeSeen = false;
    char const* text = aText.c_str();
    while (*text != '\0') {
        char const tag = FileEntry::ReadTag(text, line);
        if (tag == '\0') {
            break;
        }
        keplaDoLog(Severity::Trace, "Line %d: got tag %c", {}, line, tag);
        switch (tag) {
            case 'E':
                keplaDoLog(Severity::Trace, "Line %d: got end of file entry", {}, line);
                return;
            case 'F':
                keplaDoLog(Severity::Trace, "Line %d: got forward relation entry", {}, line);
                if (!readRelation(aForward, text, line)) {
                    keplaDoLog(Severity::Error, "Line %d: forward relation entry is not valid", {}, line);
                    throw std::runtime_error("TOSK file: forward relation entry is not valid");
                }
                break;
            case 'I':
                keplaDoLog(Severity::Trace, "Line %d: got inverse relation entry", {}, line);
                if (!readRelation(aInverse, text, line)) {
                    keplaDoLog(Severity::Error, "Line %d: inverse relation entry is not valid", {}, line);
                    throw std::runtime_error("TOSK file: inverse relation entry is not valid");
                }
                break;
            case 'M':
                keplaDoLog(Severity::Trace, "Line %d: got mode entry", {}, line);
                if (modeSeen) {
                    keplaDoLog(Severity::Error, "Line %d: got a further mode entry, only one is allowed", {},
                               line);
                    throw std::runtime_error("TOSK file: further mode entry found, only one is allowed");
                }
                readMode(text, line);
                modeSeen = true;
                break;
            case 'V':
                keplaDoLog(Severity::Trace, "Line %d: got weight/sensitivity entry", {}, line);
                if (!readWeight(aWeights, text, line)) {
                    keplaDoLog(Severity::Error, "Line %d: weight entry is not valid", {}, line);
                    throw std::runtime_error("TOSK file: weight entry is not valid");
                }
                break;
            default: // an unknown tag is one character, and nothing else of its line is skipped
                break;
        }
    }
    keplaDoLog(Severity::Critical, "TOSK file ends but no E (end) entry found", {});
    throw std::runtime_error("Invalid TOSK file: ends but no E (end) entry found");
}

bool ShimMatrixTOSK::readRelation(Relations& aRelations, char const*& aText, int& aLine) {
    auto entry = std::make_unique<shim::ToskFileEntry_ForwardRelation>();
    if (!FileEntry::ReadInteger(entry->first, aText, aLine) ||
        !FileEntry::ReadInteger(entry->second, aText, aLine) ||
        !FileEntry::ReadDouble(entry->value, aText, aLine)) {
        return false;
    }
    entry->valid = 1;
    aRelations.push_back(std::move(entry));
    return true;
}

bool ShimMatrixTOSK::readWeight(Weights& aWeights, char const*& aText, int& aLine) {
    auto entry = std::make_unique<shim::ToskFileEntry_Weight>();
    if (!FileEntry::ReadInteger(entry->number, aText, aLine) ||
        !FileEntry::ReadDouble(entry->value, aText, aLine) ||
        indexOf(entry->number) >= kSize) { // tested here, where the line is known
        return false;
    }
    entry->valid = 1;
    aWeights.push_back(std::move(entry));
    return true;
}

void ShimMatrixTOSK::readMode(char const*& aText, int& aLine) const {
    shim::ToskFileEntry_Mode mode;
    if (!FileEntry::ReadInteger(mode.number, aText, aLine) ||
        !FileEntry::ReadCharacter(mode.character, aText, aLine) ||
        !FileEntry::ReadString(mode.name, aText, aLine)) {
        keplaDoLog(Severity::Error, "Line %d: got an invalid mode entry", {}, aLine);
        throw std::runtime_error("TOSK file: got an invalid mode entry");
    }
    mode.valid = 1;
    if (mode.character != 'G' && mode.character != 'U') {
        keplaDoLog(Severity::Error, "Line %d: mode is not gradient related, not supported", {}, aLine);
        throw std::runtime_error(
            "TOSK file: specified mode is not gradient related but those are the only modes supported");
    }
}

void ShimMatrixTOSK::setMatrix(Matrix& aMatrix, Relations const& aRelations) {
    aMatrix = ublas::zero_matrix<double>(kSize, kSize);
    for (auto const& relation : aRelations) {
        aMatrix(indexOf(relation->first), indexOf(relation->second)) =
            relation->value; // of duplicates the last wins
    }
}

void ShimMatrixTOSK::logMatrix(std::string const& /*aName*/, Matrix const& /*aMatrix*/) {
    // Intended: a hook for a developer who wants to see a matrix.
}

void ShimMatrixTOSK::setSensitivity(Weights const& aWeights) {
    std::fill(mSensitivity.begin(), mSensitivity.end(), 0.0);
    for (auto const& weight : aWeights) {
        mSensitivity.at(indexOf(weight->number)) = weight->value;
    }
}

std::string ShimMatrixTOSK::computeActiveShimGradientsString(Weights const& aWeights) {
    std::string names;
    if (aWeights.empty()) {
        keplaDoLog(Severity::Trace, "sensitivity vector is empty", {});
        return names;
    }
    for (auto const& weight : aWeights) {
        if (!(std::abs(weight->value) > kSmallest)) {
            continue; // intended: a last entry without weight leaves the blank at the end
        }
        int const code = weight->number - 1;
        std::string const name = ShimGradientsTOSK::getGradientNameByCode(code);
        keplaDoLog(Severity::Trace, "Translated code %d into %s", {}, code, name);
        names += name;
        if (weight != aWeights.back()) {
            names += ' ';
        }
    }
    keplaDoLog(Severity::Trace, "computeActiveShimGradientsString returns %s", {}, names);
    return names;
}

void ShimMatrixTOSK::applySensitivity(ublas::vector<int>* aGradients) const {
    for (std::size_t i = 0; i < kSize; ++i) {
        // Intended: truncated, not rounded. From here on the weighted gradient is an integer.
        (*aGradients)(i) = saturatedToInt32(static_cast<double>((*aGradients)(i)) * mSensitivity[i]);
    }
}

void ShimMatrixTOSK::applyReverseSensitivity(ublas::vector<double>* aGradients) const {
    for (std::size_t j = 0; j < kSize; ++j) {
        (*aGradients)(j) /= mSensitivity[j]; // intended: a weight of 0.0 gives an infinity or a NaN
    }
}

void ShimMatrixTOSK::exportMatrix(Matrix const& aMatrix,
                                  std::string const& aTag,
                                  std::stringstream& aStream) {
    aStream.imbue(std::locale::classic()); // a point in numbers, whatever language the host has set
    aStream.precision(11);
    for (std::size_t i = 0; i < kSize; ++i) {
        for (std::size_t j = 0; j < kSize; ++j) {
            if (std::abs(aMatrix(i, j)) > kSmallest) {
                aStream << aTag << i + 1 << ' ' << j + 1 << ' ' << aMatrix(i, j) << '\n';
            }
        }
    }
}
