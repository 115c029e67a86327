// SPDX-License-Identifier: Apache-2.0
// The choice of points, the words to gnuplot, and its process.
#include "apps/fieldwarden/Chart.h"

#include <algorithm>
#include <cctype>
#include <future>
#include <iterator>
#include <limits>
#include <stdexcept>
#include <utility>

#include <fmt/format.h>
#include <boost/asio/buffer.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/process.hpp>

namespace libfieldwarden::app {

namespace {

constexpr int kWidth = 1600;
constexpr int kPanelHeight = 480;
constexpr int kTitleHeight = 60;
constexpr std::size_t kColumns = kWidth; ///< A little more than a panel has.

/// A text as gnuplot takes it to the letter, whatever it holds.
std::string quoted(std::string const& aText) {
    std::string result = "'";
    for (char const each : aText) {
        bool const control = std::iscntrl(static_cast<unsigned char>(each)) != 0;
        result += each == '\'' ? "''" : control ? "?" : std::string(1, each);
    }
    return result + "'";
}

std::string terminal(PictureFormat aFormat, std::size_t aPanels) {
    return fmt::format("set terminal {} size {},{} font 'sans,16' noenhanced background rgb 'white'\n",
                       aFormat == PictureFormat::Png ? "pngcairo" : "svg", kWidth,
                       kTitleHeight + static_cast<int>(aPanels) * kPanelHeight);
}

std::vector<double> const& placesOf(Chart const& aChart, Curve const& aCurve) {
    return aCurve.places.empty() ? aChart.places : aCurve.places;
}

/// The first and the last place of all curves.
std::pair<double, double> placeRange(Chart const& aChart) {
    double first = std::numeric_limits<double>::max();
    double last = std::numeric_limits<double>::lowest();
    for (Panel const& panel : aChart.panels) {
        for (Curve const& curve : panel.curves) {
            first = std::min(first, placesOf(aChart, curve).front());
            last = std::max(last, placesOf(aChart, curve).back());
        }
    }
    return {first, last > first ? last : first + 1.0};
}

/// A range that holds all values and a little air, also where all of them are the same.
std::pair<double, double> rangeOf(Panel const& aPanel) {
    double least = aPanel.fromZero ? 0.0 : std::numeric_limits<double>::max();
    double greatest = aPanel.fromZero ? 0.0 : std::numeric_limits<double>::lowest();
    for (Curve const& curve : aPanel.curves) {
        auto const [low, high] = std::minmax_element(curve.values.begin(), curve.values.end());
        least = std::min(least, *low);
        greatest = std::max(greatest, *high);
    }
    double const air = greatest > least ? (greatest - least) * 0.08 : 1.0;
    return {least < 0.0 || !aPanel.fromZero ? least - air : least, greatest + air};
}

std::string dataBlock(std::vector<double> const& aPlaces, Curve const& aCurve, std::string const& aName) {
    std::string text = "$" + aName + " << EOD\n";
    for (std::size_t const point : pointsToDraw(aCurve.values, kColumns)) {
        fmt::format_to(std::back_inserter(text), "{} {}\n", aPlaces[point], aCurve.values[point]);
    }
    return text + "EOD\n";
}

/// A ring around the point, and words on the side that has more room.
std::string markOf(ChartMark const& aMark, double aMiddle) {
    bool const left = aMark.place > aMiddle;
    return fmt::format(
        "set label 1 {} at {},{} {} offset {},0 point pointtype 6 pointsize 2 linecolor 'black'\n",
        quoted(aMark.words), aMark.place, aMark.value, left ? "right" : "left", left ? "-1.5" : "1.5");
}

std::string panelScript(Chart const& aChart, Panel const& aPanel, std::size_t aNumber) {
    std::string blocks;
    std::string plots;
    for (Curve const& curve : aPanel.curves) {
        std::string const block = fmt::format("data{}_{}", aNumber, &curve - aPanel.curves.data());
        blocks += dataBlock(placesOf(aChart, curve), curve, block);
        // A line of a single point would not be seen.
        char const* const style = curve.values.size() == 1 ? "points pointtype 7" : "lines linewidth 1.2";
        plots += fmt::format("{} ${} using 1:2 with {} linecolor rgb '{}' title {}",
                             plots.empty() ? "plot" : ",", block, style, curve.colour, quoted(curve.title));
    }
    auto const [least, greatest] = rangeOf(aPanel);
    auto const [first, last] = placeRange(aChart);
    std::string const mark = aPanel.mark ? markOf(*aPanel.mark, (first + last) / 2) : "";
    return blocks +
           fmt::format("set format y '{}'\nset ylabel {}\nset yrange [{}:{}]\nunset label\n",
                       aPanel.fromZero ? "%.1s %c" : "%.8g", quoted(aPanel.axis), least, greatest) +
           mark + plots + "\n";
}

/// Times of day, with their dates where there is more than a day.
std::string timeTics(double aSeconds) {
    constexpr double kDay = 86'400.0;
    return std::string("set xtics time format '") + (aSeconds > kDay ? "%m-%d\\n%H:%M" : "%H:%M:%S") + "'\n";
}

std::string firstLines(std::string const& aText) {
    constexpr std::size_t kEnough = 400;
    auto const begin = aText.find_first_not_of("\n ");
    return begin == std::string::npos ? "it said nothing" : aText.substr(begin, kEnough);
}

} // namespace

std::optional<PictureFormat> pictureFormatOf(std::filesystem::path const& aPath) {
    std::string ending = aPath.extension().string();
    std::transform(ending.begin(), ending.end(), ending.begin(),
                   [](unsigned char aEach) { return static_cast<char>(std::tolower(aEach)); });
    return ending == ".png"   ? std::optional(PictureFormat::Png)
           : ending == ".svg" ? std::optional(PictureFormat::Svg)
                              : std::nullopt;
}

std::vector<std::size_t> pointsToDraw(std::span<double const> aValues, std::size_t aColumns) {
    std::size_t const count = aValues.size();
    std::vector<std::size_t> chosen;
    auto const choose = [&chosen](std::size_t aPoint) {
        if (chosen.empty() || chosen.back() < aPoint) {
            chosen.push_back(aPoint);
        }
    };
    if (count <= 2 * aColumns) {
        for (std::size_t point = 0; point < count; ++point) {
            choose(point);
        }
        return chosen;
    }
    choose(0);
    for (std::size_t column = 0; column < aColumns; ++column) {
        auto const begin = aValues.begin() + static_cast<std::ptrdiff_t>(count * column / aColumns);
        auto const end = aValues.begin() + static_cast<std::ptrdiff_t>(count * (column + 1) / aColumns);
        auto const [least, greatest] = std::minmax_element(begin, end);
        choose(static_cast<std::size_t>(std::min(least, greatest) - aValues.begin()));
        choose(static_cast<std::size_t>(std::max(least, greatest) - aValues.begin()));
    }
    choose(count - 1);
    return chosen;
}

std::string gnuplotScript(Chart const& aChart, PictureFormat aFormat) {
    auto const [first, last] = placeRange(aChart);
    std::string script =
        "set encoding utf8\n" + terminal(aFormat, aChart.panels.size()) +
        fmt::format("set multiplot layout {},1 title {}\n", aChart.panels.size(), quoted(aChart.title)) +
        "set grid linetype 1 linewidth 0.5 linecolor rgb '#d8d8d8'\n"
        "set key top right horizontal\n"
        "set lmargin 14\n"
        "set rmargin 4\n" +
        (aChart.kind == ChartAxis::Time ? "set key above\n" + timeTics(last - first) : "") +
        fmt::format("set xlabel {}\nset xrange [{}:{}]\n", quoted(aChart.axis), first, last);
    for (std::size_t number = 0; number < aChart.panels.size(); ++number) {
        script += panelScript(aChart, aChart.panels[number], number);
    }
    return script + "unset multiplot\n";
}

std::string drawnByGnuplot(std::string const& aScript, std::string const& aProgram) {
    namespace process = boost::process;
    auto const program = process::search_path(aProgram);
    if (program.empty()) {
        throw std::runtime_error("Cannot draw: there is no '" + aProgram +
                                 "' on this machine; the package gnuplot-nox brings it");
    }
    boost::asio::io_context events;
    std::future<std::string> picture;
    std::future<std::string> messages;
    process::child child(program, "-d", (process::std_in < boost::asio::buffer(aScript)),
                         (process::std_out > picture), (process::std_err > messages), events);
    events.run();
    child.wait();
    std::string result = picture.get();
    if (child.exit_code() != 0 || result.empty()) {
        throw std::runtime_error(fmt::format("Cannot draw: gnuplot ended with exit code {}: {}",
                                             child.exit_code(), firstLines(messages.get())));
    }
    return result;
}

} // namespace libfieldwarden::app
