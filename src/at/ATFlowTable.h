// SPDX-License-Identifier: Apache-2.0
// How much gas the probe needs at which temperature, as the record of the variable temperature unit says.
#pragma once

#include <velmor/kepla/log/Logger.h>

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace velmor::kepla::mds {
class Mds;
}

/// One range of temperatures and the gas flow that serves it.
struct FlowForTemperatureEntry {
    double minTemperature = 0.0; ///< In K; belongs to the range.
    double maxTemperature = 0.0; ///< In K; belongs to the range.
    double flow = 0.0;           ///< In l/h.
    std::uint32_t index = 0;     ///< The flow's place among the distinct flows; 0 is no gas.
};

/// A gas flow and its index.
struct FlowAndIndex {
    double flow = 0.0;       ///< In l/h.
    std::uint32_t index = 0; ///< 0 is no gas; a higher index means more gas.
};

/// The table of gas flows. Filled once, then only read, from any thread and without a lock; no operation
/// blocks.
class ATFlowTable : private virtual velmor::kepla::log::Logger {
public:
    /// A table without entries: the one flow is 0 l/h, and no temperature is allowed.
    ATFlowTable();

    /// Fills the table from the groups "TemperatureRange" and "FlowForTemperature". What is missing or absurd
    /// is logged and leaves the range at 0 K to 0 K, which keeps every target out.
    /// @param aMds  Record of the variable temperature unit.
    /// @throws std::invalid_argument  when a value that is needed is not a number.
    void setTableFromMDS(velmor::kepla::mds::Mds const& aMds);

    /// @return Lowest and highest temperature in K that record and flows allow.
    std::pair<double, double> temperatureRange() const { return mTemperatureRange; }

    /// @return Lowest and highest temperature in K of all entries; 0.0 and 0.0 without entries.
    std::pair<double, double> flowTemperatureRange() const;

    /// @return The temperature in K from which on gas flows; the largest double when no entry has gas.
    double lowestTemperatureWithFlow() const;

    /// @param aKelvin  A temperature in K.
    /// @return The flow of the first entry that it belongs to.
    /// @throws std::invalid_argument  when no entry does.
    FlowAndIndex flowForTemperature(double aKelvin) const;

    /// @param aIndex  Index of a flow.
    /// @return The flow in l/h.
    /// @throws std::out_of_range  when there is no such flow.
    double flowByIndex(unsigned char aIndex) const;

    /// @param aFlow  A flow in l/h, to within 0.0001.
    /// @return Its index.
    /// @throws std::out_of_range  when there is no such flow.
    unsigned char indexForFlow(double aFlow) const;

    /// @return The distinct flows in l/h, ascending from 0, as the XML that the spectrometer application
    /// reads.
    std::string asXmlForPanorin() const;

private:
    std::pair<double, double> mdsGetTemperatureRange(velmor::kepla::mds::Mds const& aMds) const;
    void mdsGetFlowsForTemperature(velmor::kepla::mds::Mds const& aMds);
    bool isSameFlow(double aFlow, double aOther) const;

    double const mFlowEpsilon = 0.0001; ///< In l/h.
    std::pair<double, double> mTemperatureRange{0.0, 0.0};
    std::vector<FlowForTemperatureEntry> mEntries; ///< In the order of the record.
    std::vector<double> mFlows{0.0};               ///< Ascending.
};
