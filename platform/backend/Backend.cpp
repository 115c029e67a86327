// SPDX-License-Identifier: Apache-2.0
// The choice of the process's backend.
#include <velmor/platform/Backend.h>

#include <velmor/platform/Clock.h>
#include <velmor/platform/InstrumentBackend.h>

#include <mutex>
#include <utility>

namespace velmor::platform {

namespace {

std::mutex sMutex;
std::shared_ptr<Backend> sBackend;

} // namespace

std::shared_ptr<Backend> Backend::current() {
    std::lock_guard const lock(sMutex);
    if (sBackend == nullptr) {
        sBackend = makeInstrumentBackend();
    }
    return sBackend;
}

void Backend::use(std::shared_ptr<Backend> aBackend) {
    std::lock_guard const lock(sMutex);
    Clock::use(aBackend ? aBackend->clock() : nullptr);
    sBackend = std::move(aBackend);
}

} // namespace velmor::platform
