// SPDX-License-Identifier: Apache-2.0
// The device records of a new simulated instrument.
#pragma once

#include "simulator/boards/FlowBox.h"

#include <array>
#include <string>
#include <string_view>

namespace libfieldwarden::sim {

/// A record file and its text.
struct DeviceRecord {
    std::string_view file;
    std::string_view text;
};

/// What a simulated instrument's folder of device records holds at first, beside the record of its variable
/// temperature unit: main record, magnet, shim system. In each group the first two values are its number and
/// its version.
inline constexpr std::array kDeviceRecords{
    DeviceRecord{"main.mds", R"(<?xml version="1.0"?>
<record>
  <group name="Instrument"><value>1</value><value>1</value><value>Q47</value><value>SIM-0001</value></group>
  <group name="IsoBoxTempering"><value>1</value><value>1</value><value>1</value></group>
</record>
)"},
    DeviceRecord{"magnet.mds", R"(<?xml version="1.0"?>
<record>
  <group name="Magnet"><value>1</value><value>1</value><value>SIM-M-0001</value><value>80.123</value></group>
</record>
)"},
    DeviceRecord{"shimsys.mds", R"(<?xml version="1.0"?>
<record>
  <group name="ShimSystem"><value>1</value><value>1</value><value>WMXS1A</value></group>
</record>
)"},
};

/// The variable temperature unit's record, "vtu.mds".
/// @param aGeneration  Of the flow box; a prototype's record does not name it.
inline std::string vtuRecord(FlowBox::Generation aGeneration) {
    std::string record = R"(<?xml version="1.0"?>
<record>
)";
    if (aGeneration != FlowBox::Generation::Prototype) {
        record += R"(  <group name="FlowController"><value>1</value><value>1</value></group>
)";
    }
    return record +
           R"(  <group name="TemperatureRange"><value>1</value><value>1</value><value>283.15</value><value>353.15</value></group>
  <group name="FlowForTemperature"><value>1</value><value>1</value><value>283.15</value><value>313.15</value><value>200</value></group>
  <group name="FlowForTemperature"><value>2</value><value>1</value><value>313.15</value><value>333.15</value><value>300</value></group>
  <group name="FlowForTemperature"><value>3</value><value>1</value><value>333.15</value><value>353.15</value><value>400</value></group>
</record>
)";
}

} // namespace libfieldwarden::sim
