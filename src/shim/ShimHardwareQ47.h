// SPDX-License-Identifier: Apache-2.0
// The shim service: gradients and currents as one picture, kept in step by the matrix of the shim system, and
// written to the two boards in parameter sets.
#pragma once

#include "shim/ShimGradientsTOSK.h"
#include "shim/ShimMatrixManager.h"

#include <fieldwarden/ShimForLockIfc.h>
#include <fieldwarden/ShimInterface.h>
#include <velmor/kepla/log/Logger.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

class ShimBoardQ47;
class ShimMatrixTOSK;
namespace velmor::kepla::canopen {
class CanOpenMaster;
}
namespace velmor::kepla::datalogger {
class DataLoggerInterface;
}
namespace velmor::kepla::deviceid {
class DeviceIdServiceContributorIfc;
}
namespace velmor::kepla::utils {
class PeriodicCallerManagerIfc;
}

/// The shim service of this instrument. Board 1 is node 8 and has the currents 0 to 16, board 2 is node 9 and
/// has the currents 17 to 33.
///
/// The states of a parameter set, and what is allowed in them besides the queries that need no matrix:
///
/// @verbatim
///   no shim system --setShimSystem--> idle: everything
///   idle --begin--> in set, nothing changed: everything
///        in set, nothing changed --setSingleShim--> gradients changed: gradients, no currents
///        in set, nothing changed --setShimCurrent--> currents changed: currents, no gradients
///   in set --end, cancel--> idle            (an end that fails leaves the set open)
/// @endverbatim
///
/// One mutex is held by a set operation from its beginning to its end, transfers and listener calls included.
/// Queries, areAllShimZero() and setShimSystem() do not wait for it. A second one guards the picture for the
/// moment of a copy or of a conversion.
///
/// Reading the boards takes time, in which other threads may set shims. What has been read becomes the
/// picture only if the picture has not been changed nor the boards written to in the meantime; else it is
/// read once more, and after that the picture stays as those threads have left it. An open set in which
/// something was changed keeps its values in any case: they are what its end writes.
class ShimHardwareQ47 : private virtual velmor::kepla::log::Logger,
                        public ShimInterface,
                        public ShimForLockIfc {
public:
    /// Makes both boards and brings up first board 1, then board 2. Blocks for as long as that takes, see
    /// CortexMCanOpenNodeClient::prepare().
    /// @param aMaster              The master of the bus; not null.
    /// @param aMatrixDirectory     Folder of the matrix files.
    /// @param aEnforcedMatrixPath  Matrix file that comes before any other where it exists; may be empty.
    /// @param aFactoryShimPath     Shim file for boards that come up without any shim.
    /// @param aFirmwareRoot        Folder of "build.info" and of the boards' firmware image.
    /// @param aShimSystemMdsPath   Record file of the shim system.
    /// @param aDataLogger          Makes the boards' channels; not null.
    /// @param aPeriodicCallers     Runs the boards' temperature readings; not null.
    /// @param aContributor         Who gets the boards' records; may be null.
    /// @throws std::runtime_error  when a board does not come up.
    ShimHardwareQ47(
        std::shared_ptr<velmor::kepla::canopen::CanOpenMaster> const& aMaster,
        std::string const& aMatrixDirectory,
        std::string const& aEnforcedMatrixPath,
        std::string const& aFactoryShimPath,
        std::string const& aFirmwareRoot,
        std::string const& aShimSystemMdsPath,
        std::shared_ptr<velmor::kepla::datalogger::DataLoggerInterface> const& aDataLogger,
        std::shared_ptr<velmor::kepla::utils::PeriodicCallerManagerIfc> const& aPeriodicCallers,
        std::shared_ptr<velmor::kepla::deviceid::DeviceIdServiceContributorIfc> const& aContributor);
    ~ShimHardwareQ47() override;
    ShimHardwareQ47(ShimHardwareQ47 const&) = delete;
    ShimHardwareQ47& operator=(ShimHardwareQ47 const&) = delete;

    void setListener(ShimListenerInterface* aListener) override;
    void removeListener() override;
    std::string getNamesOfActiveShimGradients() override;
    std::string getShimId() override;
    unsigned int getShimCurrentsCount() override;
    BoundedValue getShimCurrent(unsigned int aIndex) override;
    void setShimCurrent(unsigned int aIndex, double aAmpere) override;
    void setSingleShim(std::string const& aName, int aValue) override;
    BoundedIntegerValue getSingleShim(std::string const& aName) override;
    void beginOfOneParameterSet() override;
    void endOfOneParameterSet() override;
    void cancelOfOneParameterSet() override;
    std::string getTOSKFileName() override;
    bool getAutoShim() override;
    std::string getTOSKMatrixRelations() override;
    std::string getShimSystemMDS() override;
    void setShimSystem(ShimSysType aShimSysType) override;

    /// Writes the object dictionaries of board 1 and board 2 to files. Throws nothing: what goes wrong is
    /// logged.
    /// @param aDirectory  Folder of the files; must exist.
    /// Thread: any; blocks while the boards answer.
    virtual void dumpCANopenValues(std::string const& aDirectory);

    bool areAllShimZero() override;

protected:
    /// Makes the board of a node, 8 or 9.
    using BoardMaker = std::function<std::unique_ptr<ShimBoardQ47>(unsigned char aNodeId)>;

    /// The same on boards of the caller's making.
    ShimHardwareQ47(BoardMaker const& aMakeBoard,
                    std::string const& aMatrixDirectory,
                    std::string const& aEnforcedMatrixPath,
                    std::string const& aFactoryShimPath,
                    std::string const& aShimSystemMdsPath);

private:
    using Currents = std::vector<int>; ///< In uA, one for each source of a board.

    /// What a parameter set has changed.
    enum class SetContent { Nothing = 0, Gradients = 1, Currents = 2 };

    /// What the boards have, as just read.
    struct Reading {
        Currents board1;
        Currents board2;
    };
    class BoardWrite;

    bool hasMatrix() const;
    std::shared_ptr<ShimMatrixTOSK> matrix() const;
    std::shared_ptr<ShimMatrixTOSK> neededMatrix() const;
    Reading getShimsFromHardware();
    Reading readBoards();
    bool takeOver(Reading const& aReading, std::uint64_t aChangesBefore);
    std::uint64_t changes() const;
    void readBoard(ShimBoardQ47& aBoard, Currents& aCurrents, char const* aFailureFormat) const;
    void setShimsOnHardware(BoardWrite const& aWrite);
    void updateGradientsFromCurrents();
    void updateCurrentsFromGradients();
    void sendUpdates(ShimGradientsTOSK aOldGradients, Currents const& aOldBoard1, Currents const& aOldBoard2);
    // NOLINTNEXTLINE(readability-identifier-naming)
    void sendUpdates_CurrentsByBoard(Currents const& aOld, Currents const& aNew, unsigned aFirstIndex);
    void tryLoadFactoryShims(std::string const& aPath);
    int& currentAt(unsigned aIndex);

    std::string const mNotSetMessage;
    std::string const mFactoryShimPath;
    std::string const mShimSystemMdsPath;
    ShimListenerInterface* mListener = nullptr; ///< Not owned.
    ShimGradientsTOSK mGradients;               ///< In units.
    ShimGradientsTOSK mSavedGradients;          ///< As of the begin of the set, as the other saved ones.
    Currents mBoard1Currents;
    Currents mSavedBoard1Currents;
    Currents mBoard2Currents;
    Currents mSavedBoard2Currents;
    ShimSysType mShimSysType;
    ShimMatrixManager mMatrixManager;
    std::shared_ptr<ShimMatrixTOSK> mMatrix; ///< Null while the shim system has not been set.
    std::unique_ptr<ShimBoardQ47> mBoard1;
    std::unique_ptr<ShimBoardQ47> mBoard2;
    bool mInParameterSet = false;
    /// Held by the set operations as long as they run; guards the listener and what is saved for a set.
    std::mutex mMutex;
    /// Guards gradients, currents, type and matrix, and the next two. Never held over a transfer, a file or a
    /// call of the listener.
    mutable std::mutex mPictureMutex;
    std::uint64_t mChanges = 0; ///< Counts what makes a reading of the boards stale that is under way.
    unsigned mBoardWrites = 0;  ///< Under way.
    std::atomic<SetContent> mSetContent{SetContent::Nothing};
    std::string const mCurrentFormat;
};
