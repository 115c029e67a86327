// SPDX-License-Identifier: Apache-2.0
// Asks the backend for the main board.
#include <velmor/q47/mainboarddaemon/MainboardClientFactory.h>

#include <velmor/platform/Backend.h>

namespace velmor::q47::mainboarddaemon {

std::shared_ptr<MainboardInterface> MainboardClientFactory::mainboardClient() const {
    return velmor::platform::Backend::current()->mainboard();
}

} // namespace velmor::q47::mainboarddaemon
