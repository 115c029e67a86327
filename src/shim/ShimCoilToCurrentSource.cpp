// SPDX-License-Identifier: Apache-2.0
// Sorts coil values by board and source.
#include "shim/ShimCoilToCurrentSource.h"

#include <stdexcept>

namespace ublas = boost::numeric::ublas;

namespace {
constexpr std::size_t kCoils = 40;
} // namespace

void ShimCoilToCurrentSource::convert(ublas::vector<double>* aCoils,
                                      std::vector<double>* aBoard1,
                                      std::vector<double>* aBoard2) {
    if (aBoard1->size() != kSources) {
        throw std::runtime_error("ShimCoilToCurrentSource::convert: board1.size() != 17");
    }
    if (aBoard2->size() != kSources) {
        throw std::runtime_error("ShimCoilToCurrentSource::convert: board2.size() != 17");
    }
    if (aCoils->size() != kCoils) {
        throw std::runtime_error("ShimCoilToCurrentSource::convert: currents.size() != 40");
    }
    for (std::size_t k = 0; k < kSources; ++k) {
        (*aBoard1)[k] = (*aCoils)(mBoard1ToCSTOSK3Index[k]);
        (*aBoard2)[k] = (*aCoils)(mBoard2ToCSTOSK3Index[k]);
    }
}

void ShimCoilToCurrentSource::convert_back(std::vector<double>* aBoard1,
                                           std::vector<double>* aBoard2,
                                           ublas::vector<double>* aCoils) {
    if (aBoard1->size() != kSources) {
        throw std::runtime_error("ShimCoilToCurrentSource::convert_back: board1.size() != 17");
    }
    if (aBoard2->size() != kSources) {
        throw std::runtime_error("ShimCoilToCurrentSource::convert_back: board2.size() != 17");
    }
    if (aCoils->size() != kCoils) {
        // Intended: these words, without "_back".
        throw std::runtime_error("ShimCoilToCurrentSource::convert: currents.size() != 40");
    }
    for (std::size_t k = 0; k < kSources; ++k) {
        (*aCoils)(mBoard1ToCSTOSK3Index[k]) = (*aBoard1)[k];
        (*aCoils)(mBoard2ToCSTOSK3Index[k]) = (*aBoard2)[k];
    }
}
