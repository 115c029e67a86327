// SPDX-License-Identifier: Apache-2.0
// Which coil hangs on which current source of the two shim boards.
#pragma once

#include <array>
#include <cstddef>
#include <vector>

#include <boost/numeric/ublas/vector.hpp>

/// Maps the 40 coils of a matrix on the 17 current sources of each board, and back. Board 1 is the board at
/// node 8, board 2 the one at node 9; element k of a board's vector belongs to source k + 1 on the bus.
///
/// Six coils (8, 10, 32, 34, 35 and 39) have no source: their values do not reach a board, and convert_back()
/// leaves them alone. Any thread may call, on vectors of its own; nothing blocks.
class ShimCoilToCurrentSource {
public:
    /// Coils to sources; the values keep their unit.
    /// @param aCoils   40 values, by coil number; not changed.
    /// @param aBoard1  Takes 17 values; must have that size.
    /// @param aBoard2  Likewise.
    /// @throws std::runtime_error  when a vector has another size.
    static void convert(boost::numeric::ublas::vector<double>* aCoils,
                        std::vector<double>* aBoard1,
                        std::vector<double>* aBoard2);

    /// Sources to coils; the values keep their unit.
    /// @param aBoard1  17 values; not changed.
    /// @param aBoard2  Likewise.
    /// @param aCoils   Takes 34 of its 40 values; must have that size.
    /// @throws std::runtime_error  when a vector has another size.
    static void convert_back(std::vector<double>* aBoard1, // NOLINT(readability-identifier-naming)
                             std::vector<double>* aBoard2,
                             boost::numeric::ublas::vector<double>* aCoils);

private:
    static constexpr std::size_t kSources = 17;
    // NOLINTBEGIN(readability-identifier-naming): the tables keep the names of the wiring plan
    static constexpr std::array<std::size_t, kSources> mBoard1ToCSTOSK3Index{0,  12, 33, 11, 2, 3, 14, 15, 1,
                                                                             18, 16, 19, 17, 7, 4, 5,  6};
    static constexpr std::array<std::size_t, kSources> mBoard2ToCSTOSK3Index{
        37, 9, 13, 26, 27, 30, 38, 24, 36, 22, 31, 21, 25, 23, 28, 29, 20};
    // NOLINTEND(readability-identifier-naming)
};
