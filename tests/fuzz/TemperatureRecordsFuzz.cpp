// SPDX-License-Identifier: Apache-2.0
// Any text as the main record and as the record of the variable temperature unit: the temperature service
// comes up with it, sets the board to a mode that exists, and answers from it.
#include "at/ATFlowTable.h"
#include "fuzz/MemoryFile.h"
#include "support/FakePeriodicCallers.h"
#include "support/QuietTempBoard.h"
#include "temperature/TemperatureHardwareQ47.h"

#include <velmor/kepla/datalogger/NullDataLogger.h>
#include <velmor/kepla/deviceid/DeviceIdClientIfc.h>
#include <velmor/kepla/mds/Mds.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>

namespace {

using libfieldwarden::test::FakePeriodicCallers;
using libfieldwarden::test::QuietTempBoard;
using velmor::kepla::datalogger::NullDataLogger;
using velmor::kepla::mds::Mds;

class OneRecord : public velmor::kepla::deviceid::DeviceIdClientIfc {
public:
    explicit OneRecord(std::string aText)
        : mText(std::move(aText)) {}
    std::string mainMds() override { return mText; }

private:
    std::string mText;
};

void require(bool aCondition) {
    if (!aCondition) {
        std::abort();
    }
}

/// A service on that record, whatever it says.
void serve(std::string const& aText, std::string const& aPath) {
    auto const board = std::make_shared<QuietTempBoard>();
    auto const callers = std::make_shared<FakePeriodicCallers>();
    TemperatureHardwareQ47 service(board, std::make_shared<NullDataLogger>(), callers,
                                   std::make_shared<OneRecord>(aText), aPath);
    require(board->isoBoxTemperingMode() == IsoBoxTemperingMode::SmallPeltier ||
            board->isoBoxTemperingMode() == IsoBoxTemperingMode::BigPeltier);
    require(service.getProbeGasFlowList().starts_with("<flows><flow valueLiterPerHour=\""));
    require(service.getProbeTemperatureMeasurements().starts_with("<temperature"));
    service.getProbeTemperature();
    for (auto const& job : callers->jobs()) {
        job->call();
    }
}

/// The table of gas flows of that record, if it can be read.
void fillTable(std::string const& aText) {
    ATFlowTable table;
    try {
        table.setTableFromMDS(Mds::parse(aText));
    } catch (std::invalid_argument const&) {
        return; // no record, or a value that is no number
    }
    auto const range = table.temperatureRange();
    require(range.first <= range.second);
    table.lowestTemperatureWithFlow();
    table.asXmlForPanorin();
    try {
        auto const flow = table.flowForTemperature(range.first);
        if (flow.index <= UINT8_MAX) {
            require(table.indexForFlow(flow.flow) == flow.index);
            table.flowByIndex(static_cast<unsigned char>(flow.index));
        }
    } catch (std::invalid_argument const&) {
        // no flow for that temperature
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* aData, std::size_t aSize) {
    static libfieldwarden::test::MemoryFile file;
    file.fill(aData, aSize);
    std::string const text(reinterpret_cast<char const*>(aData), aSize);
    serve(text, file.path());
    fillTable(text);
    return 0;
}
