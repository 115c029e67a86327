// SPDX-License-Identifier: Apache-2.0
// One block of lock data: real and imaginary parts.
#pragma once

#include <memory>
#include <vector>

/// Real part first, imaginary part second, of the same length. The spelling of the name is intended: it is
/// what callers know.
struct ComplextInt32Vector {
    std::shared_ptr<std::vector<int>> real;
    std::shared_ptr<std::vector<int>> imag;
};
