// SPDX-License-Identifier: Apache-2.0
// Reads the table of gas flows from the record and answers from it.
#include "at/ATFlowTable.h"

#include <velmor/kepla/mds/Mds.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <stdexcept>

#include <fmt/format.h>

using velmor::kepla::log::Severity;
using velmor::kepla::mds::Mds;
using velmor::kepla::mds::MdsGroup;

ATFlowTable::ATFlowTable()
    : Logger("ATFlowTable", "Temperature") {}

// ---------------------------------------------------------------------------------------------- the record

void ATFlowTable::setTableFromMDS(Mds const& aMds) {
    mEntries.clear();
    mTemperatureRange = {0.0, 0.0};
    auto const range = mdsGetTemperatureRange(aMds);
    mdsGetFlowsForTemperature(aMds);
    auto const flows = flowTemperatureRange();
    mTemperatureRange = {std::max(range.first, flows.first), std::min(range.second, flows.second)};
    if (mTemperatureRange.first > mTemperatureRange.second) {
        keplaDoLog(
            Severity::Error,
            "Invalid temperature range: found minimum is greater than found maximum.\nMin = %f and max "
            "= %f",
            {}, mTemperatureRange.first, mTemperatureRange.second);
        mTemperatureRange = {0.0, 0.0};
    }
}

std::pair<double, double> ATFlowTable::mdsGetTemperatureRange(Mds const& aMds) const {
    constexpr unsigned kMinimum = 2;
    constexpr unsigned kMaximum = 3;
    auto const groups = aMds.groups().getByName("TemperatureRange");
    if (groups.size() != 1) {
        keplaDoLog(Severity::Error,
                   "Provided VTU MDS has %u TemperatureRange groups when exactly one was expected", {},
                   groups.size());
        return {0.0, 0.0};
    }
    MdsGroup const& group = groups.front();
    if (group.size() <= kMaximum) {
        keplaDoLog(
            Severity::Error,
            "The TemperatureRange group in the VTU MDS has only %u values, but at least 4 are expected", {},
            group.size());
        return {0.0, 0.0};
    }
    double const minimum = group.asDouble(kMinimum);
    double const maximum = group.asDouble(kMaximum);
    if (minimum > maximum) {
        // Kept all the same: what comes of it has no room for a target either.
        keplaDoLog(
            Severity::Error,
            "The TemperatureRange group in the VTU MDS provides invalid min/max values.\nMin is greater "
            "than max.\nMin = %f and max = %f",
            {}, minimum, maximum);
    }
    keplaDoLog(Severity::Info, "Temperature range described in VTU mds is from %f to %f Kelvin", {}, minimum,
               maximum);
    return {minimum, maximum};
}

void ATFlowTable::mdsGetFlowsForTemperature(Mds const& aMds) {
    constexpr unsigned kFrom = 2;
    constexpr unsigned kTo = 3;
    constexpr unsigned kFlow = 4;
    std::vector<double> distinct{0.0};
    for (MdsGroup const& group : aMds.groups().getByName("FlowForTemperature")) {
        if (group.size() <= kFlow) {
            // Intended: no blank behind the full stop.
            keplaDoLog(
                Severity::Error,
                "A FlowForTemperature group has %u values when at least 5 are expected.This group will "
                "be ignored.",
                {}, group.size());
            continue;
        }
        double const flow = group.asDouble(kFlow);
        if (flow < 0.0) { // It would come before no gas, whose index is 0.
            keplaDoLog(Severity::Error,
                       "A FlowForTemperature group has the flow %f l/h. This group will be ignored.", {},
                       flow);
            continue;
        }
        mEntries.push_back({group.asDouble(kFrom), group.asDouble(kTo), flow, 0});
        if (std::none_of(distinct.begin(), distinct.end(),
                         [&](double aKnown) { return isSameFlow(flow, aKnown); })) {
            distinct.push_back(flow);
        }
    }
    std::sort(distinct.begin(), distinct.end());
    mFlows = std::move(distinct);
    for (FlowForTemperatureEntry& entry : mEntries) {
        auto const found = std::find_if(mFlows.begin(), mFlows.end(),
                                        [&](double aKnown) { return isSameFlow(entry.flow, aKnown); });
        entry.index = static_cast<std::uint32_t>(found - mFlows.begin());
        keplaDoLog(Severity::Info, "Flow %f is assigned index %u", {}, entry.flow, entry.index);
    }
}

bool ATFlowTable::isSameFlow(double aFlow, double aOther) const {
    return std::abs(aFlow - aOther) < mFlowEpsilon;
}

// --------------------------------------------------------------------------------------------- the answers

std::pair<double, double> ATFlowTable::flowTemperatureRange() const {
    if (mEntries.empty()) {
        return {0.0, 0.0};
    }
    std::pair<double, double> range{mEntries.front().minTemperature, mEntries.front().maxTemperature};
    for (FlowForTemperatureEntry const& entry : mEntries) {
        range = {std::min(range.first, entry.minTemperature), std::max(range.second, entry.maxTemperature)};
    }
    return range;
}

double ATFlowTable::lowestTemperatureWithFlow() const {
    constexpr double kAboveNoGas = 1e-07; // K
    bool found = false;
    double lowest = std::numeric_limits<double>::max();
    for (FlowForTemperatureEntry const& entry : mEntries) {
        if (entry.flow > 0) {
            found = true;
            lowest = std::min(lowest, entry.minTemperature);
        }
    }
    if (!found) {
        keplaDoLog(Severity::Error, "lowestTemperatureWithFlow: no entry without gas flow > 0", {});
        return lowest;
    }
    auto const withoutGas =
        std::find_if(mEntries.begin(), mEntries.end(),
                     [](FlowForTemperatureEntry const& aEntry) { return aEntry.index == 0; });
    if (withoutGas != mEntries.end() && withoutGas->maxTemperature >= lowest) {
        keplaDoLog(Severity::Warning,
                   "Flow table entry with flow 0 goes to %fK, using this + epsilon a minimal temperature", {},
                   withoutGas->maxTemperature);
        lowest = withoutGas->maxTemperature + kAboveNoGas;
    }
    return lowest;
}

FlowAndIndex ATFlowTable::flowForTemperature(double aKelvin) const {
    auto const found =
        std::find_if(mEntries.begin(), mEntries.end(), [aKelvin](FlowForTemperatureEntry const& aEntry) {
            return aEntry.minTemperature <= aKelvin && aKelvin <= aEntry.maxTemperature;
        });
    if (found == mEntries.end()) {
        keplaDoLog(Severity::Error, "There is no flow range for the temperature %f Kelvin", {}, aKelvin);
        throw std::invalid_argument(
            fmt::format("The temperature of {:g}K cannot be set on this device.", aKelvin));
    }
    return {found->flow, found->index};
}

double ATFlowTable::flowByIndex(unsigned char aIndex) const {
    return mFlows.at(aIndex);
}

unsigned char ATFlowTable::indexForFlow(double aFlow) const {
    auto const found =
        std::find_if(mFlows.begin(), mFlows.end(), [&](double aKnown) { return isSameFlow(aKnown, aFlow); });
    if (found == mFlows.end()) {
        keplaDoLog(Severity::Error, "No flow index has been found for the flow %f", {}, aFlow);
        throw std::out_of_range(fmt::format("A probe gas flow of {:f} l/h is not possible.", aFlow));
    }
    return static_cast<unsigned char>(found - mFlows.begin());
}

std::string ATFlowTable::asXmlForPanorin() const {
    std::string xml = "<flows>";
    for (double const flow : mFlows) {
        xml += fmt::format("<flow valueLiterPerHour=\"{:g}\" />", flow);
    }
    xml += "</flows>";
    keplaDoLog(Severity::Trace, "asXmlForPanorin returns '%s'", {}, xml);
    return xml;
}
