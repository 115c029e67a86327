// SPDX-License-Identifier: Apache-2.0
// Reading the temperature service once, and its table.
#include "apps/fieldwarden/TemperatureCommand.h"

#include "apps/fieldwarden/ExitCode.h"
#include "apps/fieldwarden/TemperatureText.h"

#include <fieldwarden/FieldwardenInterface.h>
#include <fieldwarden/TemperatureInterface.h>

#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include <fmt/format.h>

namespace libfieldwarden::app {

namespace {

/// A temperature with the limits that it is shown with.
struct Row {
    char const* name; ///< For people.
    char const* key;  ///< For programs.
    char const* unit;
    BoundedValue value;
};

/// What the service knows of the probe of an instrument with the option.
struct Probe {
    BoundedValue temperature; ///< K; its limits are those of the target.
    double target = 0.0;      ///< K.
    double flow = 0.0;        ///< l/h.
    double power = 0.0;       ///< W.
    Meaning regulation;
    Meaning gas;
    Meaning stability;
};

struct Readings {
    std::vector<Row> rows;
    bool magnetReady = false;
    std::optional<Probe> probe;
};

Probe probeOf(TemperatureInterface& aTemperature) {
    return {.temperature = aTemperature.getProbeTemperature(),
            .target = aTemperature.getTargetProbeTemperature(),
            .flow = aTemperature.getProbeMeasuredGasFlow(),
            .power = aTemperature.getProbeActualPower(),
            .regulation = meaningOf(aTemperature.getProbeTemperatureRegulatorMode()),
            .gas = meaningOf(aTemperature.getProbeGasFlowStatus()),
            .stability = meaningOf(aTemperature.getProbeTemperatureRegulatorStability())};
}

Readings readingsOf(TemperatureInterface& aTemperature) {
    Readings readings;
    readings.rows = {{"magnet", "magnet", "K", aTemperature.getMagnetTemperature()},
                     {"shim coils", "shimCoil", "°C", aTemperature.getShimCoilTemperature()},
                     {"iso box", "isoBox", "K", aTemperature.getIsoBoxTemperature()}};
    readings.magnetReady = aTemperature.isMagnetReady();
    if (aTemperature.getProbeDeviceActiveChannel() != 0) {
        readings.probe = probeOf(aTemperature);
    }
    return readings;
}

nlohmann::ordered_json jsonOf(BoundedValue const& aValue, char const* aUnit) {
    return {{"value", jsonNumber(aValue.value)},
            {"lower", jsonNumber(aValue.lower)},
            {"upper", jsonNumber(aValue.upper)},
            {"unit", aUnit}};
}

void printAsJson(Readings const& aReadings) {
    auto fields = nlohmann::ordered_json::object();
    for (Row const& row : aReadings.rows) {
        fields[row.key] = jsonOf(row.value, row.unit);
    }
    fields["magnet"]["ready"] = aReadings.magnetReady;
    fields["probe"] = nullptr;
    if (auto const& probe = aReadings.probe) {
        fields["probe"] = jsonOf(probe->temperature, "K");
        fields["probe"].update({{"target", jsonNumber(probe->target)},
                                {"regulation", probe->regulation.words},
                                {"stability", probe->stability.words},
                                {"gas", probe->gas.words},
                                {"flowLiterPerHour", jsonNumber(probe->flow)},
                                {"heaterWatt", jsonNumber(probe->power)}});
    }
    printJson(fields);
}

void printAsText(Readings const& aReadings) {
    for (Row const& row : aReadings.rows) {
        auto const& value = row.value;
        print(fmt::format("{:<11} {:8.3f} {:<3} wanted {:.3f} to {:.3f}", row.name, value.value, row.unit,
                          value.lower, value.upper));
        print(std::string(row.key) != "magnet" ? "\n"
              : aReadings.magnetReady          ? ", ready\n"
                                               : ", not ready yet\n");
    }
    if (!aReadings.probe) {
        print("probe       no adjustable temperature\n");
        return;
    }
    Probe const& probe = *aReadings.probe;
    print(fmt::format("{:<11} {:8.1f} K   target {:.1f}, can be {:.1f} to {:.1f}\n", "probe",
                      probe.temperature.value, probe.target, probe.temperature.lower,
                      probe.temperature.upper));
    print(fmt::format("  regulation {}, {}\n", probe.regulation.words, probe.stability.words));
    print(fmt::format("  gas {}, {:.0f} l/h; heater {:.2f} W\n", probe.gas.words, probe.flow, probe.power));
}

void printBare(Readings const& aReadings) {
    for (Row const& row : aReadings.rows) {
        print(fmt::format("{:.3f}\n", row.value.value));
    }
    if (aReadings.probe) {
        print(fmt::format("{:.1f}\n", aReadings.probe->temperature.value));
    }
}

} // namespace

int temperatureCommand(SessionOptions const& aOptions, Form aForm) {
    Session session(aOptions);
    TemperatureInterface* const temperature = session.library().getTemperature();
    if (temperature == nullptr) {
        throw std::runtime_error("this library has no temperature service");
    }
    Readings const readings = readingsOf(*temperature);
    if (session.stop().came()) {
        return session.closeForSignal();
    }
    session.close();
    switch (aForm) {
        case Form::Json:
            printAsJson(readings);
            break;
        case Form::Quiet:
            printBare(readings);
            break;
        case Form::Text:
            printAsText(readings);
            break;
    }
    return kDone;
}

} // namespace libfieldwarden::app
