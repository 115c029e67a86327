// SPDX-License-Identifier: Apache-2.0
// What both kinds of simulated boards are made of: dictionary, program, record, log, emergencies and a state
// on the disk.
#pragma once

#include "simulator/boards/BoardModelIfc.h"
#include "simulator/boards/BoardState.h"
#include "simulator/boards/ObjectDictionary.h"
#include "simulator/boards/ProgramImage.h"

#include <velmor/kepla/log/Logger.h>
#include <velmor/platform/Clock.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <initializer_list>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace libfieldwarden::sim {

/// A board without its bus and without what it is for.
///
/// A restart loses what is volatile. The end of the simulation is none: the board is as hardware that stays
/// switched on, and its state is in a file from which the next one goes on.
///
/// The program can be replaced: stopped, the board runs its bootloader, which knows the objects up to 0x1FFF
/// and 0x200A to 0x200D only; cleared, it takes a ProgramImage, checks it, and runs it when started.
///
/// All public operations may be called from any thread; those that change the state block for the disk. What
/// is protected is called with the board's mutex held.
class BoardBase : public BoardModelIfc, protected virtual velmor::kepla::log::Logger {
public:
    using Clock = velmor::platform::Clock;
    using SdoObject = velmor::kepla::canopen::SdoObject;

    static constexpr Clock::Duration kStartTime = std::chrono::milliseconds(300);
    static constexpr Clock::Duration kClearTime = std::chrono::milliseconds(800);
    static constexpr Clock::Duration kCheckTime =
        std::chrono::milliseconds(200); ///< For a new program image.

    ~BoardBase() override = default;
    BoardBase(BoardBase const&) = delete;
    BoardBase& operator=(BoardBase const&) = delete;

    std::uint32_t read(SdoObject aObject, std::vector<std::uint8_t>& aData) final;
    std::uint32_t write(SdoObject aObject, std::span<std::uint8_t const> aData) final;
    std::unique_ptr<velmor::kepla::canopen::ObjectWriteStream> openStream(
        SdoObject aObject, std::optional<std::uint32_t> aSize) final;
    void restart(Start aWhy) final;
    void resetCommunication() final;
    bool takeRestartRequest() final;
    std::vector<Emergency> takeEmergencies() final;
    Duration heartbeatPeriod() const final;
    Duration startTime() const final { return kStartTime; }
    void setWaker(std::function<void()> aWake) final;

    /// Sends an emergency that has no other consequence than an entry in 0x1003.
    void raiseEmergency(Emergency const& aEmergency);

    /// @return All objects and their rows, whatever the bootloader hides.
    ObjectDictionary const& dictionary() const noexcept { return mDictionary; }
    /// @return Whether the program runs, and not the bootloader.
    bool programRuns() const;

protected:
    /// What differs between the kinds.
    struct Kind {
        std::string_view name;     ///< Device name.
        std::string_view platform; ///< Whose images it takes.
        std::uint32_t product;
        std::uint32_t revision;
        std::uint32_t mappedObject; ///< Of its process data.
    };

    /// @param aTables  The board's own objects, beside those that all boards have.
    BoardBase(Kind const& aKind,
              std::uint8_t aNode,
              std::filesystem::path aStateFile,
              Clock& aClock,
              std::span<ObjectRow const> aTable);

    /// The state; what it is before load() is that of a new board.
    virtual BoardState& state() = 0;
    /// Reads the state from a file that may not be there. @throws std::runtime_error  as BoardStates do.
    virtual void loadState(std::filesystem::path const& aFile) = 0;
    /// Writes the state. @throws std::runtime_error  as BoardStates do.
    virtual void storeState(std::filesystem::path const& aFile) = 0;
    /// The board restarts; the dictionary has its power-on values.
    virtual void onRestart(TimePoint aNow) = 0;
    /// Somebody is about to read or write an object.
    virtual void onAccess(TimePoint /*aNow*/) {}
    /// Writes an object.
    virtual std::uint32_t writeObject(SdoObject aObject, std::span<std::uint8_t const> aData) {
        return mDictionary.write(aObject, aData);
    }
    /// @return The bits of 0x1001 but for "any".
    virtual std::uint8_t errorBits() const = 0;

    /// Goes on from the state that the file holds; the last step of a board's constructor.
    void goOn();
    void saveState();
    /// Puts a line into the board's own log and into ours.
    void note(std::string const& aText);
    /// Queues an emergency with the present error register.
    void report(std::uint16_t aCode, std::array<std::uint8_t, 5> const& aManufacturer);
    std::uint8_t errorRegister() const;
    /// @return Whether the state that was found was whole.
    bool stateIsWhole() const noexcept { return mStateIsWhole; }
    bool runsProgram() const noexcept { return mProgramRuns; }
    bool knows(std::uint16_t aIndex) const;
    TimePoint startedAt() const noexcept { return mStartedAt; }
    /// Tells the node that there is something to do; with no mutex held.
    void wake();

    Clock& mClock;
    mutable std::mutex mMutex; ///< Guards all below, and what the boards have.
    ObjectDictionary mDictionary;

private:
    class ImageStream;

    void describe(Kind const& aKind, std::uint8_t aNode);
    void bindService();
    void bindProgram();
    void remember(Emergency const& aEmergency);
    std::uint32_t controlProgram(std::int64_t aCommand);
    void clearFlash();
    std::uint32_t beginImage();
    void checkImage(std::span<std::uint8_t const> aPacked);
    bool flashBusy() const;
    std::uint32_t flashStatus() const;

    std::string const mPlatform;
    std::filesystem::path const mStateFile;
    std::string mLog;
    bool mStateIsWhole = true;
    bool mSaveFailed = false;

    bool mProgramRuns = true;
    bool mProgramWanted = true; ///< Whether the program, and not the bootloader, starts next.
    FlashError mFlashError = FlashError::None;
    TimePoint mFlashBusyUntil;
    bool mCleared = false; ///< The flash is empty and waits for an image.
    TimePoint mStartedAt;
    Start mStartReason = Start::PowerOn;
    std::uint32_t mEmergencyCount = 0;
    bool mRestartRequest = false;
    std::vector<Emergency> mEmergencies;

    std::mutex mWakeMutex; ///< Held while the waker runs; never together with the other one.
    std::function<void()> mWake;
};

} // namespace libfieldwarden::sim
