// SPDX-License-Identifier: Apache-2.0
// Which points of a curve are drawn, what gnuplot is told, and how its failures are met.
#include "apps/fieldwarden/Chart.h"

#include <algorithm>
#include <csignal>
#include <cstddef>
#include <stdexcept>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <rapidcheck.h>

namespace {

using namespace libfieldwarden::app;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;
using testing::ThrowsMessage;

TEST(PointsToDraw, AreAllOfACurveWithAtMostTwoPointsAColumn) {
    EXPECT_THAT(pointsToDraw(std::vector{5.0}, 1), ElementsAre(0));
    EXPECT_THAT(pointsToDraw(std::vector{1.0, 1.0, 1.0, 1.0}, 2), ElementsAre(0, 1, 2, 3));
    EXPECT_TRUE(pointsToDraw({}, 3).empty());
}

TEST(PointsToDraw, AreTheLeastAndTheGreatestOfEachColumnInTheirOrder) {
    // Two columns of four: 2 at 2 and 9 at 1; 0 at 6 and 7 at 7. The first and the last point are drawn, too.
    std::vector const values{3.0, 9.0, 2.0, 4.0, 5.0, 1.0, 0.0, 7.0};
    EXPECT_THAT(pointsToDraw(values, 2), ElementsAre(0, 1, 2, 6, 7));
}

TEST(PointsToDraw, LoseNoPeakOfASinglePoint) {
    std::vector<double> values(65536, 0.0);
    values[40001] = 1.0;
    values[40003] = -1.0;
    auto const points = pointsToDraw(values, 1600);
    EXPECT_TRUE(std::binary_search(points.begin(), points.end(), 40001U));
    EXPECT_TRUE(std::binary_search(points.begin(), points.end(), 40003U));
    EXPECT_LE(points.size(), 3202U); // Two a column, and both ends.
}

TEST(PointsToDraw, KeepTheExtremesAndTheEndsOfAnyCurve) {
    EXPECT_TRUE(rc::check([](std::vector<int> const& aValues) {
        RC_PRE(!aValues.empty());
        auto const columns = *rc::gen::inRange<std::size_t>(1, 20);
        std::vector<double> const values(aValues.begin(), aValues.end());
        auto const points = pointsToDraw(values, columns);
        RC_ASSERT(points.front() == 0U);
        RC_ASSERT(points.back() == values.size() - 1);
        RC_ASSERT(std::adjacent_find(points.begin(), points.end(), std::greater_equal<>()) == points.end());
        RC_ASSERT(points.size() <= 2 * columns + 2);
        std::vector<double> drawn;
        for (std::size_t const point : points) {
            drawn.push_back(values[point]);
        }
        RC_ASSERT(*std::min_element(drawn.begin(), drawn.end()) ==
                  *std::min_element(values.begin(), values.end()));
        RC_ASSERT(*std::max_element(drawn.begin(), drawn.end()) ==
                  *std::max_element(values.begin(), values.end()));
    }));
}

TEST(PictureFormat, IsThatOfTheEnding) {
    EXPECT_EQ(pictureFormatOf("a/b.png"), PictureFormat::Png);
    EXPECT_EQ(pictureFormatOf("b.SVG"), PictureFormat::Svg);
    EXPECT_EQ(pictureFormatOf("b.gif"), std::nullopt);
    EXPECT_EQ(pictureFormatOf("png"), std::nullopt);
}

Chart chart() {
    return {"it's 100 %",
            "Time [s]",
            {0.0, 0.5, 1.0},
            {{"Signal [counts]",
              {{"real", {1.0, -2.0, 3.0}, "#000000"}, {"imaginary", {0.0, 0.0, 1.0}, "#ff0000"}}},
             {"Magnitude [counts]",
              {{"magnitude", {1.0, 2.0, 3.0}, "#000000"}},
              ChartMark{1.0, 3.0, "3 at 1 s"}}}};
}

TEST(GnuplotScript, DrawsAPanelUponTheOtherWithTitlesUnitsAndAllCurves) {
    std::string const script = gnuplotScript(chart(), PictureFormat::Png);
    EXPECT_THAT(script, AllOf(HasSubstr("set terminal pngcairo "), HasSubstr("set multiplot layout 2,1"),
                              HasSubstr("set xlabel 'Time [s]'\nset xrange [0:1]\n"),
                              HasSubstr("set ylabel 'Signal [counts]'\n"),
                              HasSubstr("set ylabel 'Magnitude [counts]'\n"),
                              HasSubstr("<< EOD\n0 1\n0.5 -2\n1 3\nEOD\n")));
    EXPECT_THAT(script, AllOf(HasSubstr("title 'real'"), HasSubstr("title 'imaginary'"),
                              HasSubstr("title 'magnitude'")));
    // The mark is to the right of the middle, so its words stand to its left.
    EXPECT_THAT(script, HasSubstr("set label 1 '3 at 1 s' at 1,3 right "));
    EXPECT_THAT(gnuplotScript(chart(), PictureFormat::Svg), HasSubstr("set terminal svg "));
}

TEST(GnuplotScript, QuotesWhatANameMayHold) {
    Chart evil = chart();
    evil.title = "a'\nset output 'x\t";
    EXPECT_THAT(gnuplotScript(evil, PictureFormat::Png), HasSubstr("title 'a''?set output ''x?'\n"));
    EXPECT_THAT(gnuplotScript(chart(), PictureFormat::Png), HasSubstr("title 'it''s 100 %'\n"));
}

TEST(GnuplotScript, LeavesRoomAroundValuesThatAreAllTheSame) {
    Chart const flat{"", "", {0.0}, {{"", {{"", {0.0}, "#000000"}}}}};
    EXPECT_THAT(gnuplotScript(flat, PictureFormat::Png),
                AllOf(HasSubstr("set xrange [0:1]"), HasSubstr("set yrange [0:1]")));
}

TEST(GnuplotScript, ShowsTimesOfDayAndNoMoreThanTheValuesSpan) {
    // Two channels whose samples have times of their own: 2026-11-21T14:00:00Z is 1795269600 s.
    Panel const kelvin{.axis = "Value [K]",
                       .curves = {{"a", {298.0, 299.0}, "#000000", {1795269600.0, 1795269610.0}},
                                  {"b", {298.5}, "#000000", {1795269620.0}}},
                       .fromZero = false};
    std::string const script =
        gnuplotScript({"two", "Time [UTC]", {}, {kelvin}, ChartAxis::Time}, PictureFormat::Png);
    EXPECT_THAT(script,
                AllOf(HasSubstr("set xtics time format '%H:%M:%S'"),
                      HasSubstr("set xrange [1795269600:1795269620]"), HasSubstr("set format y '%.8g'")));
    // 8 percent of 1 K above and below.
    EXPECT_THAT(script, HasSubstr("set yrange [297.92:299.08]"));
    EXPECT_THAT(script, HasSubstr("1795269600 298\n1795269610 299\nEOD"));
    EXPECT_THAT(script, AllOf(HasSubstr("with lines linewidth 1.2"), HasSubstr("with points"))); // b has one.
}

TEST(GnuplotScript, ShowsDatesWhereThereIsMoreThanADay) {
    Panel const panel{.axis = "", .curves = {{"a", {1.0, 2.0}, "#000000", {0.0, 86'401.0}}}};
    EXPECT_THAT(gnuplotScript({"", "", {}, {panel}, ChartAxis::Time}, PictureFormat::Png),
                HasSubstr("set xtics time format '%m-%d\\n%H:%M'"));
}

TEST(DrawnByGnuplot, IsAPicture) {
    EXPECT_THAT(drawnByGnuplot(gnuplotScript(chart(), PictureFormat::Png)), StartsWith("\x89PNG\r\n"));
    EXPECT_THAT(drawnByGnuplot(gnuplotScript(chart(), PictureFormat::Svg)),
                AllOf(StartsWith("<?xml "), HasSubstr("Time [s]"), HasSubstr("imaginary")));
}

TEST(DrawnByGnuplot, NamesWhatIsToBeInstalled) {
    EXPECT_THAT(
        [] { drawnByGnuplot("", "no-such-program"); },
        ThrowsMessage<std::runtime_error>("Cannot draw: there is no 'no-such-program' on this machine; the "
                                          "package gnuplot-nox brings it"));
}

TEST(DrawnByGnuplot, PassesOnWhatGnuplotSays) {
    EXPECT_THAT(
        [] { drawnByGnuplot("set terminal nonsense\n"); },
        ThrowsMessage<std::runtime_error>(AllOf(StartsWith("Cannot draw: gnuplot ended with exit code 1: "),
                                                HasSubstr("unknown or ambiguous terminal type"))));
    EXPECT_THAT(
        [] { drawnByGnuplot("\n"); },
        ThrowsMessage<std::runtime_error>("Cannot draw: gnuplot ended with exit code 0: it said nothing"));
}

TEST(DrawnByGnuplot, OutlivesAProgramThatDoesNotReadItsScript) {
    auto* const former = std::signal(SIGPIPE, SIG_IGN); // As the command itself does.
    std::string const longScript(1'000'000, '#');
    EXPECT_THAT([&] { drawnByGnuplot(longScript, "false"); },
                ThrowsMessage<std::runtime_error>(HasSubstr("exit code 1")));
    std::signal(SIGPIPE, former);
}

} // namespace
