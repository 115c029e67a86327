// SPDX-License-Identifier: Apache-2.0
// Narrows the range of the probe's target.
#include "at/ATRange.h"

#include "at/ATFlowTable.h"
#include "temperature/TempBoardQ47Ifc.h"

#include <algorithm>
#include <stdexcept>

ATRange::ATRange(std::shared_ptr<TempBoardQ47Ifc> aBoard, std::shared_ptr<ATFlowTable> aFlowTable)
    : mBoard(std::move(aBoard))
    , mFlowTable(std::move(aFlowTable)) {}

void ATRange::setProbeMin(double aKelvin) {
    if (aKelvin < 0) { // Intended: 0 K itself is taken, in spite of the words.
        throw std::invalid_argument("Minimal probe's temperature must be higher than 0K");
    }
    mProbeMin = aKelvin;
}

void ATRange::setProbeMax(double aKelvin) {
    if (aKelvin < 0) { // Intended: as above.
        throw std::invalid_argument("Maximal probe's temperature must be higher than 0K");
    }
    mProbeMax = aKelvin;
}

std::pair<double, double> ATRange::range() const {
    auto const board = mBoard->probeGasRegulatedTemperatureRange();
    auto const flows = mFlowTable->temperatureRange();
    return {std::max({board.first, flows.first, mProbeMin.load()}),
            std::min({board.second, flows.second, mProbeMax.load()})};
}
