// SPDX-License-Identifier: Apache-2.0
// The way from the sequencer's driver to the backend in use.
#include <velmor/q47/seqlock/SeqlockDriver.h>

#include <velmor/platform/Backend.h>

namespace velmor::q47::seqlock {

std::shared_ptr<SeqlockDriver> SeqlockDriver::current() {
    return velmor::platform::Backend::current()->seqlockDriver();
}

} // namespace velmor::q47::seqlock
