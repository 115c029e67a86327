// SPDX-License-Identifier: Apache-2.0
// What the way from gradients to the boards' currents takes from the heap: the vectors that are handed out,
// no more.
#include "shim/ShimCoilToCurrentSource.h"
#include "shim/ShimGradientsTOSK.h"
#include "shim/ShimMatrixManager.h"
#include "shim/ShimUnits.h"
#include "support/AllocationCount.h"

#include <vector>

#include <gtest/gtest.h>

namespace {

using libfieldwarden::test::allocationsOfThisThread;

TEST(ShimAllocation, TakesNoMoreThanTheVectorsOnTheWayToTheBoards) {
    auto const matrix = ShimMatrixManager(MATRIX_DIRECTORY, "").get(ShimSysType::Wmxs1a);
    ShimGradientsTOSK gradients;
    gradients.set("Z", 1000);
    std::vector<double> board1(17);
    std::vector<double> board2(17);

    auto before = allocationsOfThisThread();
    auto coils = matrix->gradientsToCoils(&gradients);
    EXPECT_EQ(allocationsOfThisThread() - before, 2U); // the weighted gradients and the coils

    before = allocationsOfThisThread();
    ShimCoilToCurrentSource::convert(&coils, &board1, &board2);
    EXPECT_EQ(allocationsOfThisThread() - before, 0U);

    before = allocationsOfThisThread();
    std::vector<int> const microAmpere1 = ShimUnits::touA(board1);
    std::vector<int> const microAmpere2 = ShimUnits::touA(board2);
    EXPECT_EQ(allocationsOfThisThread() - before, 2U); // one for each board

    before = allocationsOfThisThread();
    matrix->coilsToGradients(&coils, &gradients);
    EXPECT_EQ(allocationsOfThisThread() - before, 1U); // the gradients before they are rounded
}

} // namespace
