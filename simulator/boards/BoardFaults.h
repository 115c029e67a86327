// SPDX-License-Identifier: Apache-2.0
// What can go wrong between a simulated board and its bus, switchable at any time.
#pragma once

#include <velmor/kepla/canopen/SdoTypes.h>
#include <velmor/platform/Clock.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>

namespace libfieldwarden::sim {

/// The faults of one board. Nothing is wrong at first. All operations may be called from any thread and never
/// block; what they change holds from the next frame on.
class BoardFaults {
public:
    using SdoObject = velmor::kepla::canopen::SdoObject;
    using Duration = velmor::platform::Clock::Duration;

    /// The board neither hears nor says anything, as without power. Its currents stay.
    void setSilent(bool aSilent);

    /// Every access to an object is refused.
    /// @param aCode  The abort code; 0 ends the fault.
    void abortObject(SdoObject aObject, std::uint32_t aCode);

    /// An object is answered with a wrong number of bytes: cut off or filled up with zeros.
    /// @param aSize  The number of bytes; none ends the fault.
    void answerWithSize(SdoObject aObject, std::optional<std::size_t> aSize);

    /// The board restarts in place of the handling of an SDO frame: in the middle of a transfer where that
    /// frame is one of a transfer of several.
    /// @param aFrame  Which SDO frame to the board from now on, the next being 1.
    void restartAtFrame(unsigned aFrame);

    /// The next frames that the board wants to send do not leave it.
    void loseFrames(unsigned aCount);

    /// Answers leave the board later.
    /// @param aBy  By how much; 0 ends the fault.
    void delayAnswers(Duration aBy);

    /// Ends all faults.
    void clear();

    /// For the node: what holds now.
    bool silent() const;
    std::uint32_t abortCode(SdoObject aObject) const;
    std::optional<std::size_t> answerSize(SdoObject aObject) const;
    Duration answerDelay() const;
    /// For the node: an SDO frame has come. @return Whether the board restarts with it.
    bool takeRestart();
    /// For the node: a frame wants to leave. @return Whether it is lost.
    bool takeLoss();

private:
    struct Less {
        bool operator()(SdoObject aLeft, SdoObject aRight) const noexcept {
            return aLeft.index != aRight.index ? aLeft.index < aRight.index
                                               : aLeft.subindex < aRight.subindex;
        }
    };
    struct Active {
        bool silent = false;
        std::map<SdoObject, std::uint32_t, Less> aborts;
        std::map<SdoObject, std::size_t, Less> sizes;
        unsigned framesToRestart = 0; ///< 0: no restart.
        unsigned framesToLose = 0;
        Duration answerDelay{};
    };

    mutable std::mutex mMutex;
    Active mActive;
};

} // namespace libfieldwarden::sim
