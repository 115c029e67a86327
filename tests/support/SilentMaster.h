// SPDX-License-Identifier: Apache-2.0
// The master of a bus without boards.
#pragma once

#include <velmor/kepla/canopen/CanOpenMaster.h>
#include <velmor/kepla/canopen/InProcessBus.h>

#include <cstdint>
#include <memory>

namespace libfieldwarden::test {

/// A bus on which nobody answers, for boards whose dictionary is scripted.
inline std::shared_ptr<velmor::kepla::canopen::CanOpenMaster> makeSilentMaster() {
    return std::make_shared<velmor::kepla::canopen::CanOpenMaster>(
        velmor::kepla::canopen::InProcessBus().open("can0"), std::uint8_t{1});
}

} // namespace libfieldwarden::test
