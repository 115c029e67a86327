// SPDX-License-Identifier: Apache-2.0
// The counting operator new.
#include "support/AllocationCount.h"

#include <cstdlib>
#include <new>

namespace {
thread_local std::size_t tAllocations = 0;
} // namespace

namespace libfieldwarden::test {

std::size_t allocationsOfThisThread() noexcept {
    return tAllocations;
}

} // namespace libfieldwarden::test

void* operator new(std::size_t aSize) {
    ++tAllocations;
    if (void* const memory = std::malloc(aSize == 0 ? 1 : aSize)) {
        return memory;
    }
    throw std::bad_alloc();
}

void operator delete(void* aMemory) noexcept {
    std::free(aMemory);
}

void operator delete(void* aMemory, std::size_t /*aSize*/) noexcept {
    std::free(aMemory);
}
