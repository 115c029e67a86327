// SPDX-License-Identifier: Apache-2.0
// The wiring of coils and current sources, there and back.
#include "shim/ShimCoilToCurrentSource.h"

#include <set>
#include <stdexcept>
#include <vector>

#include <gmock/gmock.h>

namespace {

namespace ublas = boost::numeric::ublas;
using testing::ElementsAre;
using testing::StrEq;
using testing::ThrowsMessage;

/// Coils whose values are their numbers.
ublas::vector<double> numbered() {
    ublas::vector<double> coils(40);
    for (unsigned int coil = 0; coil < 40; ++coil) {
        coils(coil) = coil;
    }
    return coils;
}

TEST(ShimCoilToCurrentSource, WiresEachSourceToItsCoil) {
    auto coils = numbered();
    std::vector<double> board1(17);
    std::vector<double> board2(17);
    ShimCoilToCurrentSource::convert(&coils, &board1, &board2);
    EXPECT_THAT(board1, ElementsAre(0, 12, 33, 11, 2, 3, 14, 15, 1, 18, 16, 19, 17, 7, 4, 5, 6));
    EXPECT_THAT(board2, ElementsAre(37, 9, 13, 26, 27, 30, 38, 24, 36, 22, 31, 21, 25, 23, 28, 29, 20));
}

TEST(ShimCoilToCurrentSource, GivesBackTheWiredCoilsAndLeavesTheSixOthers) {
    auto coils = numbered();
    std::vector<double> board1(17);
    std::vector<double> board2(17);
    ShimCoilToCurrentSource::convert(&coils, &board1, &board2);

    ublas::vector<double> zeroed(40, 0.0);
    ShimCoilToCurrentSource::convert_back(&board1, &board2, &zeroed);
    ublas::vector<double> marked(40, -1.0);
    ShimCoilToCurrentSource::convert_back(&board1, &board2, &marked);

    std::set<unsigned int> const unwired{8, 10, 32, 34, 35, 39};
    for (unsigned int coil = 0; coil < 40; ++coil) {
        bool const wired = unwired.count(coil) == 0;
        EXPECT_EQ(zeroed(coil), wired ? coil : 0.0);
        EXPECT_EQ(marked(coil), wired ? coil : -1.0);
    }
}

TEST(ShimCoilToCurrentSource, ChecksSizesBoardOneFirstThenBoardTwoThenCoils) {
    ublas::vector<double> coils(40, 0.0);
    ublas::vector<double> badCoils(39, 0.0);
    std::vector<double> board(17);
    std::vector<double> other(17);
    std::vector<double> badBoard(16);
    using Source = ShimCoilToCurrentSource;
    EXPECT_THAT(
        [&] { Source::convert(&badCoils, &badBoard, &badBoard); },
        ThrowsMessage<std::runtime_error>(StrEq("ShimCoilToCurrentSource::convert: board1.size() != 17")));
    EXPECT_THAT(
        [&] { Source::convert(&badCoils, &board, &badBoard); },
        ThrowsMessage<std::runtime_error>(StrEq("ShimCoilToCurrentSource::convert: board2.size() != 17")));
    EXPECT_THAT(
        [&] { Source::convert(&badCoils, &board, &other); },
        ThrowsMessage<std::runtime_error>(StrEq("ShimCoilToCurrentSource::convert: currents.size() != 40")));
    EXPECT_THAT([&] { Source::convert_back(&badBoard, &badBoard, &badCoils); },
                ThrowsMessage<std::runtime_error>(
                    StrEq("ShimCoilToCurrentSource::convert_back: board1.size() != 17")));
    EXPECT_THAT([&] { Source::convert_back(&board, &badBoard, &badCoils); },
                ThrowsMessage<std::runtime_error>(
                    StrEq("ShimCoilToCurrentSource::convert_back: board2.size() != 17")));
    // these words, without "_back"
    EXPECT_THAT(
        [&] { Source::convert_back(&board, &other, &badCoils); },
        ThrowsMessage<std::runtime_error>(StrEq("ShimCoilToCurrentSource::convert: currents.size() != 40")));
}

} // namespace
