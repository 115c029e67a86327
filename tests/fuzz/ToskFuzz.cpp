// SPDX-License-Identifier: Apache-2.0
// Any text as a TOSK matrix file: it is loaded or refused with one of the told exceptions, and what is loaded
// computes.
#include "fuzz/MemoryFile.h"
#include "shim/ShimGradientsTOSK.h"
#include "shim/ShimMatrixTOSK.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <string>

namespace {

/// Runs all operations of a loaded matrix; none of them may throw.
void use(ShimMatrixTOSK& aMatrix) {
    ShimGradientsTOSK gradients;
    for (int code = 0; code < ShimGradientsTOSK::gradientsCount(); ++code) {
        gradients.set(ShimGradientsTOSK::getGradientNameByCode(code), code % 2 == 0 ? 130000 : -2147483647);
    }
    auto coils = aMatrix.gradientsToCoils(&gradients);
    aMatrix.coilsToGradients(&coils, &gradients);
    (void)aMatrix.getNamesOfActiveShimGradients();
    (void)aMatrix.exportForwardAndInverse();
    if (coils.size() != 40 || gradients.getVector().size() != 40) {
        std::abort();
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* aData, std::size_t aSize) {
    static libfieldwarden::test::MemoryFile file;
    file.fill(aData, aSize);
    std::unique_ptr<ShimMatrixTOSK> matrix;
    try {
        matrix = std::make_unique<ShimMatrixTOSK>(file.path());
    } catch (std::invalid_argument const&) { // a weight of the slot without a name
    } catch (std::out_of_range const&) {     // a row or column that the matrix has not
    } catch (std::runtime_error const&) {    // not the format
    }
    if (matrix) {
        use(*matrix);
    }
    return 0;
}
