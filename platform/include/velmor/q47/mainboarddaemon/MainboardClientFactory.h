// SPDX-License-Identifier: Apache-2.0
// The way to the main board.
#pragma once

#include <velmor/q47/mainboarddaemon/MainboardInterface.h>

#include <memory>

namespace velmor::q47::mainboarddaemon {

/// Makes clients of the main board daemon.
class MainboardClientFactory {
public:
    MainboardClientFactory() = default;
    ~MainboardClientFactory() = default;

    /// Any thread.
    /// @return The main board that the process's backend offers.
    std::shared_ptr<MainboardInterface> mainboardClient() const;
};

} // namespace velmor::q47::mainboarddaemon
