// SPDX-License-Identifier: Apache-2.0
// Where the passive SDO client and server put the frames that they want to send.
#pragma once

#include <velmor/kepla/canopen/CanFrame.h>

namespace velmor::kepla::canopen {

/// Takes frames. Called from within the operations of the core that owns the frame, on the caller's thread.
class SdoFrameSink {
public:
    /// Sends a frame. An exception passes through the core to its caller.
    virtual void sendFrame(CanFrame const& aFrame) = 0;

protected:
    SdoFrameSink() = default;
    SdoFrameSink(SdoFrameSink const&) = default;
    SdoFrameSink& operator=(SdoFrameSink const&) = default;
    ~SdoFrameSink() = default;
};

} // namespace velmor::kepla::canopen
