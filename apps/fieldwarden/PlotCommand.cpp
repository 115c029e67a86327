// SPDX-License-Identifier: Apache-2.0
// From a dump to its chart, its picture and its summary.
#include "apps/fieldwarden/PlotCommand.h"

#include "apps/fieldwarden/Chart.h"
#include "apps/fieldwarden/ExitCode.h"
#include "apps/fieldwarden/WriteWholeFile.h"
#include "apps/fieldwarden/WrongUsage.h"

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include <fmt/format.h>

namespace libfieldwarden::app {

namespace {

constexpr char const* kRealColour = "#1f4e9c";
constexpr char const* kImaginaryColour = "#60d1661a"; // Lets the real part behind it be seen.
constexpr char const* kMagnitudeColour = "#2b2b2b";

LockSignalKind kindOf(PlotOptions const& aOptions) {
    if (aOptions.kind) {
        return *aOptions.kind;
    }
    std::string const name = aOptions.dump.filename().string();
    if (name.starts_with("lock_fid_")) {
        return LockSignalKind::Fid;
    }
    if (name.starts_with("lock_fft_")) {
        return LockSignalKind::Fft;
    }
    throw WrongUsage("the name '" + name +
                     "' begins neither with lock_fid_ nor with lock_fft_: say --fid or --fft");
}

std::filesystem::path pictureOf(PlotOptions const& aOptions) {
    auto path = aOptions.picture.value_or(std::filesystem::path(aOptions.dump).replace_extension(".png"));
    std::error_code notThere;
    if (std::filesystem::equivalent(path, aOptions.dump, notThere)) {
        throw WrongUsage("the picture '" + path.string() +
                         "' would replace the dump: name another with --out");
    }
    if (!pictureFormatOf(path)) {
        throw WrongUsage("the picture '" + path.string() + "' must end in .png or .svg");
    }
    return path;
}

/// What is drawn and told of a signal.
struct DrawnSignal {
    std::vector<double> places; ///< In s or Hz.
    std::vector<double> real;
    std::vector<double> imaginary;
    std::vector<double> magnitude;
    std::size_t peak; ///< The point of the largest magnitude.
};

DrawnSignal ordered(LockSignal aSignal, LockSignalKind aKind) {
    bool const isFft = aKind == LockSignalKind::Fft;
    if (isFft) {
        aSignal = zeroInTheMiddle(std::move(aSignal));
    }
    std::size_t const count = aSignal.real.size();
    DrawnSignal result{isFft ? fftFrequencies(count) : fidTimes(count),
                       {aSignal.real.begin(), aSignal.real.end()},
                       {aSignal.imaginary.begin(), aSignal.imaginary.end()},
                       magnitudes(aSignal),
                       0};
    auto const largest = std::max_element(result.magnitude.begin(), result.magnitude.end());
    result.peak = static_cast<std::size_t>(largest - result.magnitude.begin());
    return result;
}

std::string placeText(double aPlace, LockSignalKind aKind) {
    return aKind == LockSignalKind::Fft ? fmt::format("{:.2f} Hz", aPlace) : fmt::format("{:.6f} s", aPlace);
}

Chart chartOf(DrawnSignal aSignal, LockSignalKind aKind, std::string const& aTitle) {
    bool const isFft = aKind == LockSignalKind::Fft;
    double const place = aSignal.places[aSignal.peak];
    double const value = aSignal.magnitude[aSignal.peak];
    Panel parts{"Signal [counts]",
                {{"real", std::move(aSignal.real), kRealColour},
                 {"imaginary", std::move(aSignal.imaginary), kImaginaryColour}}};
    Panel magnitude{"Magnitude [counts]",
                    {{"magnitude", std::move(aSignal.magnitude), kMagnitudeColour}},
                    ChartMark{place, value, fmt::format("{:.6g} at {}", value, placeText(place, aKind))}};
    return {aTitle,
            isFft ? "Frequency [Hz]" : "Time [s]",
            std::move(aSignal.places),
            {std::move(parts), std::move(magnitude)}};
}

} // namespace

int plotCommand(PlotOptions const& aOptions) {
    LockSignalKind const kind = kindOf(aOptions);
    bool const isFft = kind == LockSignalKind::Fft;
    auto const picture = pictureOf(aOptions);
    DrawnSignal signal = ordered(readLockSignal(aOptions.dump), kind);
    std::size_t const count = signal.places.size();
    double const place = signal.places[signal.peak];
    double const value = signal.magnitude[signal.peak];

    std::string const title =
        fmt::format("{} ({} of {} points)", aOptions.dump.filename().string(), isFft ? "FFT" : "FID", count);
    std::string const script =
        gnuplotScript(chartOf(std::move(signal), kind, title), *pictureFormatOf(picture));
    writeWholeFile(picture, drawnByGnuplot(script), "picture");

    if (aOptions.form == Form::Json) {
        printJson({{"file", picture.string()},
                   {"kind", isFft ? "fft" : "fid"},
                   {"points", count},
                   {isFft ? "peakHertz" : "peakSeconds", place},
                   {"peakMagnitude", value}});
    } else if (aOptions.form == Form::Quiet) {
        print(picture.string() + "\n");
    } else {
        print(fmt::format("{}: {} points, largest magnitude {:.6g} at {}\n", picture.string(), count, value,
                          placeText(place, kind)));
    }
    return kDone;
}

} // namespace libfieldwarden::app
