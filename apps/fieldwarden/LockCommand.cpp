// SPDX-License-Identifier: Apache-2.0
// Registers, dumps and the field scan from the command line.
#include "apps/fieldwarden/LockCommand.h"

#include "apps/fieldwarden/Chart.h"
#include "apps/fieldwarden/ExitCode.h"
#include "apps/fieldwarden/LockStart.h"
#include "apps/fieldwarden/ProgressBar.h"
#include "apps/fieldwarden/WriteWholeFile.h"
#include "apps/fieldwarden/WrongUsage.h"

#include <fieldwarden/FieldwardenInterface.h>
#include <fieldwarden/LockDiagnosticsInterface.h>
#include <fieldwarden/LockInterface.h>
#include <velmor/kepla/utils/WholeFile.h>

#include <algorithm>
#include <ios>
#include <stdexcept>

#include <fmt/format.h>

namespace libfieldwarden::app {

namespace {

constexpr char const* kDumpName = "command";

/// Thrown through the scan when the user has had enough.
struct Interrupted {};

/// What the end of a start means to the shell, told; none when it went well.
std::optional<int> toldEnd(StartEnd aEnd, std::string const& aWords, Session& aSession) {
    switch (aEnd) {
        case StartEnd::Regulating:
            return std::nullopt;
        case StartEnd::Failed:
            complain(aWords);
            return kLibraryError;
        case StartEnd::TimedOut:
            complain("the lock neither started nor failed in time");
            return kTimedOut;
        case StartEnd::Interrupted:
            break;
    }
    return aSession.closeForSignal();
}

void printRegisters(std::vector<LockRegisterText> const& aRegisters, Form aForm) {
    if (aForm == Form::Json) {
        auto values = nlohmann::ordered_json::object();
        auto failures = nlohmann::ordered_json::object();
        for (LockRegisterText const& each : aRegisters) {
            (each.readable ? values : failures)[each.name] = each.value;
        }
        printJson({{"registers", values}, {"unreadable", failures}});
        return;
    }
    std::size_t width = 0;
    for (LockRegisterText const& each : aRegisters) {
        width = std::max(width, each.name.size());
    }
    for (LockRegisterText const& each : aRegisters) {
        std::string const value = each.readable ? each.value : "unreadable: " + each.value;
        print(aForm == Form::Quiet ? value + "\n" : fmt::format("{:<{}} = {}\n", each.name, width, value));
    }
}

void printPoints(std::vector<LockScanPoint> const& aPoints, Form aForm) {
    if (aForm == Form::Json) {
        auto points = nlohmann::ordered_json::array();
        for (LockScanPoint const& point : aPoints) {
            points.push_back({{"frequency1H", point.frequency1H},
                              {"frequency19F", point.frequency19F},
                              {"slicePosition", point.slicePosition},
                              {"sliceMagnitude", point.sliceMagnitude},
                              {"cicShiftSetUp", point.cicShiftSetUp},
                              {"cicShiftOptimize", point.cicShiftOptimize},
                              {"cicShiftAtZero", point.cicShiftAtZero}});
        }
        printJson({{"points", points}});
        return;
    }
    if (aForm == Form::Text) {
        print("   1H [MHz]    19F [MHz]  slice  magnitude [counts]  CIC shift: set up, optimized, at 0 Hz\n");
    }
    for (LockScanPoint const& point : aPoints) {
        print(aForm == Form::Quiet ? fmt::format("{:.6f}\n", point.frequency1H / kHertzPerMegahertz)
                                   : fmt::format("{:11.6f}  {:11.6f}  {:5.0f}  {:18.0f}  {:17}  {:9}  {:7}\n",
                                                 point.frequency1H / kHertzPerMegahertz,
                                                 point.frequency19F / kHertzPerMegahertz, point.slicePosition,
                                                 point.sliceMagnitude, point.cicShiftSetUp,
                                                 point.cicShiftOptimize, point.cicShiftAtZero));
    }
}

/// Magnitude against 1H frequency, in its order.
Chart chartOf(std::vector<LockScanPoint> aPoints) {
    std::sort(aPoints.begin(), aPoints.end(), [](LockScanPoint const& aLeft, LockScanPoint const& aRight) {
        return aLeft.frequency1H < aRight.frequency1H;
    });
    Chart chart{"Field scan",
                "1H frequency [MHz]",
                {},
                {Panel{"Magnitude [counts]", {{"magnitude", {}, "#1f4e9c"}}}}};
    for (LockScanPoint const& point : aPoints) {
        chart.places.push_back(point.frequency1H / kHertzPerMegahertz);
        chart.panels.front().curves.front().values.push_back(point.sliceMagnitude);
    }
    return chart;
}

} // namespace

std::string contentOfDump(std::filesystem::path const& aDump) {
    std::string why = "it is empty or not there";
    try {
        if (std::string content = velmor::kepla::utils::readWholeFile(aDump); !content.empty()) {
            return content;
        }
    } catch (std::ios_base::failure const& error) {
        why = error.what();
    }
    throw std::runtime_error("The dump '" + aDump.string() + "' cannot be read: " + why);
}

int lockRegisters(LockOptions const& aOptions) {
    Session session(aOptions.session);
    auto const registers = diagnosticsOf(session).readRegisters();
    if (session.stop().came()) {
        return session.closeForSignal();
    }
    session.close();
    printRegisters(registers, aOptions.form);
    bool const whole = std::all_of(registers.begin(), registers.end(),
                                   [](LockRegisterText const& aRegister) { return aRegister.readable; });
    return whole ? kDone : kLibraryError;
}

int lockDump(LockOptions const& aOptions, LockDumpKind aKind, std::filesystem::path const& aFile) {
    auto const frequency = frequencyFor(aOptions.session, aOptions.frequency);
    checkPlaceOf(aFile, "dump");
    Session session(aOptions.session);
    if (session.library().getShim() != nullptr) {
        session.shim();
    }
    if (frequency) {
        std::string words;
        if (auto const end = toldEnd(startLock(session, *frequency, words), words, session)) {
            return *end;
        }
    }
    std::filesystem::path const folder = diagnosticsOf(session).dumpSignal(kDumpName);
    if (session.stop().came()) {
        return session.closeForSignal();
    }
    std::string const kind = aKind == LockDumpKind::Fid ? "fid" : "fft";
    std::string const content = contentOfDump(folder / ("lock_" + kind + "_" + kDumpName + ".h5"));
    session.close();
    writeWholeFile(aFile, content, "dump");
    if (aOptions.form == Form::Json) {
        printJson({{"file", aFile.string()}, {"kind", kind}, {"bytes", content.size()}});
    } else {
        print(aOptions.form == Form::Quiet
                  ? aFile.string() + "\n"
                  : fmt::format("{}: {} bytes; 'fieldwarden plot {} --{}' draws it\n", aFile.string(),
                                content.size(), aFile.string(), kind));
    }
    return kDone;
}

int lockScan(LockOptions const& aOptions, std::optional<std::filesystem::path> const& aPicture) {
    if (aPicture && !pictureFormatOf(*aPicture)) {
        throw WrongUsage("'" + aPicture->string() +
                         "' names no picture: its name has to end in .png or .svg");
    }
    if (aPicture) {
        checkPlaceOf(*aPicture, "picture");
    }
    Session session(aOptions.session);
    if (session.library().getShim() != nullptr) {
        session.shim();
    }
    // The lock waits for a frequency that nobody tells it, so it leaves the hardware to the scan.
    LockDiagnosticsInterface& diagnostics = diagnosticsOf(session);
    std::vector<LockScanPoint> points;
    try {
        ProgressBar bar;
        points = diagnostics.scanFrequencies([&](LockStepProgress const& aProgress) {
            if (session.stop().came()) {
                throw Interrupted();
            }
            bar.show(aProgress.step, aProgress.done, aProgress.total);
        });
    } catch (Interrupted const&) {
        return session.closeForSignal();
    }
    session.close();
    printPoints(points, aOptions.form);
    if (points.empty()) {
        complain("no signal in the whole range");
    }
    if (aPicture && !points.empty()) {
        auto const script = gnuplotScript(chartOf(std::move(points)), *pictureFormatOf(*aPicture));
        writeWholeFile(*aPicture, drawnByGnuplot(script), "picture");
    }
    return kDone;
}

} // namespace libfieldwarden::app
