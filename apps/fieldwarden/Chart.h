// SPDX-License-Identifier: Apache-2.0
// Curves in panels one above the other, and the picture that gnuplot draws of them.
#pragma once

#include <cstddef>
#include <filesystem>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace libfieldwarden::app {

/// A line through points.
struct Curve {
    std::string title;
    std::vector<double> values;
    std::string colour; ///< As "#1f4e9c", or with its transparency first, as "#801f4e9c".
    /// Where the points are, ascending and as many as values; empty for the places of the chart.
    std::vector<double> places = {};
};

/// A point that is marked, with words beside it.
struct ChartMark {
    double place;
    double value;
    std::string words;
};

struct Panel {
    std::string axis; ///< Title of the vertical axis, with its unit.
    std::vector<Curve> curves;
    std::optional<ChartMark> mark = {};
    /// Whether the vertical axis begins at 0 and counts in k and M, or shows no more than what the values
    /// span.
    bool fromZero = true;
};

/// What the places of a chart are.
enum class ChartAxis { Number, Time };

/// All panels share the horizontal axis.
struct Chart {
    std::string title;
    std::string axis;           ///< Title of the horizontal axis, with its unit.
    std::vector<double> places; ///< Ascending; empty only where each curve has its own, not empty ones.
    std::vector<Panel> panels;
    ChartAxis kind = ChartAxis::Number; ///< Times are in s since 1970 and shown in UTC.
};

enum class PictureFormat { Png, Svg };

/// @return The format that a file's ending names; none for another ending than ".png" and ".svg".
std::optional<PictureFormat> pictureFormatOf(std::filesystem::path const& aPath);

/// Chooses the points that are enough to draw a curve in so many columns of a picture: in each column the
/// least and the greatest, and the first and the last of all. So no peak is lost, however narrow.
/// @param aColumns  At least 1.
/// @return Their numbers, ascending; all of them where there are at most two in a column.
std::vector<std::size_t> pointsToDraw(std::span<double const> aValues, std::size_t aColumns);

/// @return What gnuplot is told for the picture, which it writes to its standard output.
std::string gnuplotScript(Chart const& aChart, PictureFormat aFormat);

/// Lets gnuplot draw.
/// @param aProgram  Looked up in PATH.
/// @return The bytes of the picture.
/// @throws std::runtime_error  when there is no gnuplot, or it draws nothing; the words say what to install,
/// or
///                             what gnuplot said.
std::string drawnByGnuplot(std::string const& aScript, std::string const& aProgram = "gnuplot");

} // namespace libfieldwarden::app
