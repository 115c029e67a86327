// SPDX-License-Identifier: Apache-2.0
// The operations of the shim service, each in the order in which boards, listener and log see it.
#include "shim/ShimHardwareQ47.h"

#include "shim/ShimBoardQ47.h"
#include "shim/ShimCoilToCurrentSource.h"
#include "shim/ShimFile.h"
#include "shim/ShimMatrixTOSK.h"
#include "shim/ShimUnits.h"

#include <fieldwarden/ShimListenerInterface.h>
#include <velmor/kepla/utils/WholeFile.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <exception>
#include <limits>
#include <optional>
#include <stdexcept>
#include <utility>

#include <boost/numeric/ublas/vector.hpp>

using velmor::kepla::canopen::CanOpenMaster;
using velmor::kepla::datalogger::DataLoggerInterface;
using velmor::kepla::deviceid::DeviceIdServiceContributorIfc;
using velmor::kepla::log::Severity;
using velmor::kepla::utils::PeriodicCallerManagerIfc;

namespace {

constexpr unsigned char kBoard1NodeId = 8;
constexpr unsigned char kBoard2NodeId = 9;
constexpr unsigned kSourcesPerBoard = 17;
constexpr unsigned kCurrents = 2 * kSourcesPerBoard;
constexpr std::size_t kCoils = 40;
constexpr double kMicroAmperePerAmpere = 1000000.0;
constexpr double kLargestAmpere = 1.0;
constexpr auto kNoShimSystem = static_cast<ShimSysType>(-1);

struct ShimId {
    ShimSysType type;
    char const* id;
};
constexpr std::array<ShimId, 4> kShimIds{{
    {ShimSysType::Wmxs1a, "wmxs1a"},
    {ShimSysType::Wmxs1b, "wmxs1b"},
    {ShimSysType::Wmxs1c, "wmxs1c"},
    {ShimSysType::Wmxs2a, "wmxs2a"},
}};

bool allZero(std::vector<int> const& aCurrents) {
    return std::all_of(aCurrents.begin(), aCurrents.end(), [](int aCurrent) { return aCurrent == 0; });
}

} // namespace

ShimHardwareQ47::ShimHardwareQ47(std::shared_ptr<CanOpenMaster> const& aMaster,
                                 std::string const& aMatrixDirectory,
                                 std::string const& aEnforcedMatrixPath,
                                 std::string const& aFactoryShimPath,
                                 std::string const& aFirmwareRoot,
                                 std::string const& aShimSystemMdsPath,
                                 std::shared_ptr<DataLoggerInterface> const& aDataLogger,
                                 std::shared_ptr<PeriodicCallerManagerIfc> const& aPeriodicCallers,
                                 std::shared_ptr<DeviceIdServiceContributorIfc> const& aContributor)
    : ShimHardwareQ47(
          [&](unsigned char aNodeId) {
              return std::make_unique<ShimBoardQ47>(aMaster, aNodeId, aFirmwareRoot, aDataLogger,
                                                    aPeriodicCallers, aContributor);
          },
          aMatrixDirectory,
          aEnforcedMatrixPath,
          aFactoryShimPath,
          aShimSystemMdsPath) {}

ShimHardwareQ47::ShimHardwareQ47(BoardMaker const& aMakeBoard,
                                 std::string const& aMatrixDirectory,
                                 std::string const& aEnforcedMatrixPath,
                                 std::string const& aFactoryShimPath,
                                 std::string const& aShimSystemMdsPath)
    : Logger("ShimHardwareQ47", "Shim")
    , mNotSetMessage("The shim system has not been set. Please run instsetup.")
    , mFactoryShimPath(aFactoryShimPath)
    , mShimSystemMdsPath(aShimSystemMdsPath)
    , mBoard1Currents(kSourcesPerBoard, 0)
    , mSavedBoard1Currents(kSourcesPerBoard, 0)
    , mBoard2Currents(kSourcesPerBoard, 0)
    , mSavedBoard2Currents(kSourcesPerBoard, 0)
    , mShimSysType(kNoShimSystem)
    , mMatrixManager(aMatrixDirectory, aEnforcedMatrixPath)
    , mCurrentFormat("1.6") {
    keplaDoLog(Severity::Trace, "ShimHardwareQ47 constructor", {});
    mBoard1 = aMakeBoard(kBoard1NodeId);
    mBoard2 = aMakeBoard(kBoard2NodeId);
    mBoard1->prepare();
    mBoard2->prepare();
}

ShimHardwareQ47::~ShimHardwareQ47() {
    keplaDoLog(Severity::Trace, "ShimHardwareQ47 destructor", {});
}

// ---------------------------------------------------------------------------------------------- listener

void ShimHardwareQ47::setListener(ShimListenerInterface* aListener) {
    std::lock_guard const lock(mMutex);
    if (aListener == nullptr) {
        keplaDoLog(Severity::Critical,
                   "ShimHardwareQ47::setListener: got nullptr, use removeListener instead", {});
        throw std::invalid_argument("setListener(nullptr): please use removeListener instead");
    }
    mListener = aListener;
    keplaDoLog(Severity::Debug, "ShimHardwareQ47::setListener", {});
}

void ShimHardwareQ47::removeListener() {
    std::lock_guard const lock(mMutex);
    mListener = nullptr;
    keplaDoLog(Severity::Debug, "-ShimHardwareQ47::removeListener", {});
}

void ShimHardwareQ47::sendUpdates(ShimGradientsTOSK aOldGradients,
                                  Currents const& aOldBoard1,
                                  Currents const& aOldBoard2) {
    keplaDoLog(Severity::Debug, "ShimHardwareQ47::sendUpdates", {});
    if (mListener == nullptr) {
        return;
    }
    // Copies, since the listener may ask for values.
    std::unique_lock picture(mPictureMutex);
    ShimGradientsTOSK newGradients = mGradients;
    Currents const board1 = mBoard1Currents;
    Currents const board2 = mBoard2Currents;
    picture.unlock();

    auto const& before = aOldGradients.getVector();
    auto const& now = newGradients.getVector();
    for (int code = 0; code < ShimGradientsTOSK::gradientsCount(); ++code) {
        auto const slot = static_cast<std::size_t>(code);
        if (now[slot] != before[slot]) {
            mListener->shimGradientChanged(ShimGradientsTOSK::getGradientNameByCode(code), now[slot]);
        }
    }
    sendUpdates_CurrentsByBoard(aOldBoard1, board1, 0);
    sendUpdates_CurrentsByBoard(aOldBoard2, board2, kSourcesPerBoard);
}

// NOLINTNEXTLINE(readability-identifier-naming)
void ShimHardwareQ47::sendUpdates_CurrentsByBoard(Currents const& aOld,
                                                  Currents const& aNew,
                                                  unsigned aFirstIndex) {
    // A board that suddenly reports fewer sources leaves the rest untold.
    for (std::size_t position = 0; position < std::min(aOld.size(), aNew.size()); ++position) {
        if (aOld[position] != aNew[position]) {
            mListener->shimCurrentChanged(aFirstIndex + static_cast<unsigned>(position),
                                          aNew[position] / kMicroAmperePerAmpere);
        }
    }
}

// ------------------------------------------------------------------------------------------- the picture

bool ShimHardwareQ47::hasMatrix() const {
    return matrix() != nullptr;
}

std::shared_ptr<ShimMatrixTOSK> ShimHardwareQ47::matrix() const {
    std::lock_guard const picture(mPictureMutex);
    return mMatrix;
}

/// The matrix where gradients cannot go without; never null.
std::shared_ptr<ShimMatrixTOSK> ShimHardwareQ47::neededMatrix() const {
    auto found = matrix();
    if (!found) {
        // Intended: the same words in every gradient operation.
        keplaDoLog(Severity::Error, "getTOSKMatrixRelations: shims system has not been set", {});
        throw std::runtime_error(mNotSetMessage);
    }
    return found;
}

/// The held current of an index, 0 to 33; the picture is locked.
int& ShimHardwareQ47::currentAt(unsigned aIndex) {
    return aIndex < kSourcesPerBoard ? mBoard1Currents.at(aIndex)
                                     : mBoard2Currents.at(aIndex - kSourcesPerBoard);
}

/// The picture is locked. A current of board 2 that is out of range leaves board 1's replaced.
void ShimHardwareQ47::updateCurrentsFromGradients() {
    boost::numeric::ublas::vector<double> coils = mMatrix->gradientsToCoils(&mGradients);
    std::vector<double> board1(kSourcesPerBoard);
    std::vector<double> board2(kSourcesPerBoard);
    ShimCoilToCurrentSource::convert(&coils, &board1, &board2);
    mBoard1Currents = ShimUnits::touA(board1);
    mBoard2Currents = ShimUnits::touA(board2);
}

/// The picture is locked. Gradients may come back a unit or more away from those that made the currents.
void ShimHardwareQ47::updateGradientsFromCurrents() {
    boost::numeric::ublas::vector<double> coils(kCoils, 0.0);
    std::vector<double> board1 = ShimUnits::toUnits(mBoard1Currents);
    std::vector<double> board2 = ShimUnits::toUnits(mBoard2Currents);
    ShimCoilToCurrentSource::convert_back(&board1, &board2, &coils);
    mMatrix->coilsToGradients(&coils, &mGradients);
}

// ------------------------------------------------------------------------------------------- the boards

/// What is written to the boards: the currents of the picture, taken together with a change of it. While this
/// lives, no reading of the boards passes for newer than the picture.
class ShimHardwareQ47::BoardWrite {
public:
    /// @param aChange  Changes the picture, which is locked meanwhile; what it throws passes on.
    template <typename Change>
    BoardWrite(ShimHardwareQ47& aOwner, Change aChange)
        : mOwner(aOwner) {
        std::lock_guard const picture(mOwner.mPictureMutex);
        ++mOwner.mChanges;
        aChange();
        board1 = mOwner.mBoard1Currents;
        board2 = mOwner.mBoard2Currents;
        ++mOwner.mBoardWrites;
    }
    ~BoardWrite() {
        std::lock_guard const picture(mOwner.mPictureMutex);
        --mOwner.mBoardWrites;
        ++mOwner.mChanges; // A reading that began during the transfer may have seen half of it.
    }
    BoardWrite(BoardWrite const&) = delete;
    BoardWrite& operator=(BoardWrite const&) = delete;

    Currents board1;
    Currents board2;

private:
    ShimHardwareQ47& mOwner;
};

/// Reads the boards and makes that the picture, unless somebody has set shims meanwhile.
/// @return What the boards have, also when the picture keeps other values.
ShimHardwareQ47::Reading ShimHardwareQ47::getShimsFromHardware() {
    keplaDoLog(Severity::Debug, "ShimHardwareQ47::getShimsFromHardware", {});
    std::uint64_t const before = changes();
    Reading reading = readBoards();
    if (!takeOver(reading, before)) {
        std::uint64_t const again = changes();
        reading = readBoards();
        takeOver(reading, again);
    }
    return reading;
}

ShimHardwareQ47::Reading ShimHardwareQ47::readBoards() {
    Reading reading;
    readBoard(*mBoard1, reading.board1, "Failed to read shim currents from shim board 1 with '%s'");
    readBoard(*mBoard2, reading.board2, "Failed to read shim currents from shim board 2 with '%s'");
    return reading;
}

std::uint64_t ShimHardwareQ47::changes() const {
    std::lock_guard const picture(mPictureMutex);
    return mChanges;
}

/// @param aChangesBefore  changes() before the boards were read.
/// @return Whether another reading is of no use: this one is the picture now, or an open set keeps its
/// values.
bool ShimHardwareQ47::takeOver(Reading const& aReading, std::uint64_t aChangesBefore) {
    std::lock_guard const picture(mPictureMutex);
    if (mSetContent != SetContent::Nothing) {
        return true; // Its end must write what the user has set, not what was there before.
    }
    if (mChanges != aChangesBefore || mBoardWrites != 0) {
        return false;
    }
    mBoard1Currents = aReading.board1;
    mBoard2Currents = aReading.board2;
    if (mMatrix) {
        updateGradientsFromCurrents();
    }
    return true;
}

void ShimHardwareQ47::readBoard(ShimBoardQ47& aBoard, Currents& aCurrents, char const* aFailureFormat) const {
    try {
        aBoard.getShimCurrents(aCurrents);
    } catch (std::exception const& error) {
        keplaDoLog(Severity::Critical, aFailureFormat, {}, error.what());
        throw;
    }
}

void ShimHardwareQ47::setShimsOnHardware(BoardWrite const& aWrite) {
    keplaDoLog(Severity::Debug, "ShimHardwareQ47::setShimsOnHardware", {});
    std::optional<std::string> failure;
    try {
        mBoard1->setShimCurrents(aWrite.board1);
    } catch (std::exception const& error) {
        keplaDoLog(Severity::Error,
                   "Failed to set shim currents on board 1. Will still try to set currents on second board. "
                   "Reason %s",
                   {}, error.what());
        failure = error.what();
    }
    mBoard2->setShimCurrents(aWrite.board2);
    if (failure) {
        throw std::runtime_error(*failure);
    }
}

void ShimHardwareQ47::dumpCANopenValues(std::string const& aDirectory) {
    mBoard1->dumpCANopenValues(aDirectory);
    mBoard2->dumpCANopenValues(aDirectory);
}

bool ShimHardwareQ47::areAllShimZero() {
    Reading const reading = getShimsFromHardware();
    bool const zero = allZero(reading.board1) && allZero(reading.board2);
    keplaDoLog(Severity::Trace, "areAllShimZero(): %d", {}, static_cast<int>(zero));
    return zero;
}

// --------------------------------------------------------------------------------------- parameter sets

void ShimHardwareQ47::beginOfOneParameterSet() {
    keplaDoLog(Severity::Debug, "ShimHardwareQ47::beginOfOneParameterSet", {});
    std::lock_guard const lock(mMutex);
    if (mInParameterSet) {
        keplaDoLog(Severity::Error,
                   "beginOfOneParameterSet: already in a parameter set, cannot begin another one", {});
        throw std::runtime_error("Already in a parameter set, cannot begin another one");
    }
    std::lock_guard const picture(mPictureMutex);
    ShimGradientsTOSK::copy(mGradients, mSavedGradients);
    mSavedBoard1Currents = mBoard1Currents;
    mSavedBoard2Currents = mBoard2Currents;
    mSetContent = SetContent::Nothing;
    mInParameterSet = true;
}

void ShimHardwareQ47::endOfOneParameterSet() {
    keplaDoLog(Severity::Debug, "ShimHardwareQ47::endOfOneParameterSet", {});
    std::lock_guard const lock(mMutex);
    if (!mInParameterSet) {
        keplaDoLog(Severity::Error, "endOfOneParameterSet: not in a parameter set, cannot end one", {});
        throw std::runtime_error("Not in a parameter set, cannot end one.");
    }
    try {
        {
            BoardWrite const write(*this, [this] {
                if (mSetContent == SetContent::Gradients) {
                    updateCurrentsFromGradients();
                } else if (mSetContent == SetContent::Currents) {
                    updateGradientsFromCurrents();
                }
            });
            setShimsOnHardware(write); // Intended: an empty set writes the unchanged currents.
        }
        sendUpdates(mSavedGradients, mSavedBoard1Currents, mSavedBoard2Currents);
    } catch (std::exception const& error) {
        keplaDoLog(Severity::Error, "Failed to set shim on hardware: %s", {}, error.what());
        throw; // Intended: the set stays open, to be ended again or cancelled.
    }
    mInParameterSet = false;
    mSetContent = SetContent::Nothing;
}

void ShimHardwareQ47::cancelOfOneParameterSet() {
    keplaDoLog(Severity::Debug, "ShimHardwareQ47::cancelOfOneParameterSet", {});
    std::lock_guard const lock(mMutex);
    if (!mInParameterSet) {
        mSetContent = SetContent::Nothing;
        return;
    }
    BoardWrite const write(*this, [this] {
        ShimGradientsTOSK::copy(mSavedGradients, mGradients);
        mBoard1Currents = mSavedBoard1Currents;
        mBoard2Currents = mSavedBoard2Currents;
    });
    try {
        setShimsOnHardware(write);
    } catch (std::exception const& error) {
        keplaDoLog(Severity::Error, "Failed to restore shims on hardware during cancelOfOneParameterSet: %s",
                   {}, error.what());
    }
    mInParameterSet = false;
    mSetContent = SetContent::Nothing;
}

// Intended, here and in setShimCurrent(): outside of a set the change is held and told, but does not reach
// the boards before the next end of a set.
void ShimHardwareQ47::setSingleShim(std::string const& aName, int aValue) {
    keplaDoLog(Severity::Debug, "ShimHardwareQ47::setSingleShim(id='%s', value=%d)", {}, aName, aValue);
    neededMatrix();
    if (mSetContent == SetContent::Currents) {
        throw std::runtime_error(
            "Shim currents have been set in this parameter set."
            "Please finish it before setting shim gradients.");
    }
    std::lock_guard const lock(mMutex);
    std::unique_lock picture(mPictureMutex);
    if (mInParameterSet) {
        mSetContent = SetContent::Gradients;
        mGradients.set(aName, aValue);
        return;
    }
    ShimGradientsTOSK oldGradients = mGradients;
    Currents const oldBoard1 = mBoard1Currents;
    Currents const oldBoard2 = mBoard2Currents;
    ++mChanges;
    mGradients.set(aName, aValue);
    updateCurrentsFromGradients();
    picture.unlock();
    sendUpdates(std::move(oldGradients), oldBoard1, oldBoard2);
}

void ShimHardwareQ47::setShimCurrent(unsigned int aIndex, double aAmpere) {
    keplaDoLog(Severity::Debug, "setShimCurrent(%u, %g)", {}, aIndex, aAmpere);
    if (!hasMatrix()) {
        keplaDoLog(Severity::Error, "setShimCurrent: shim system has not been set", {});
        throw std::runtime_error(mNotSetMessage);
    }
    if (aIndex >= kCurrents) {
        throw std::out_of_range("Shim current index must be between 0 and 33");
    }
    // Asked this way round, a value that is not a number is out of range, too.
    if (!(aAmpere >= -kLargestAmpere && aAmpere <= kLargestAmpere)) {
        throw std::out_of_range("Shim current value must be between -1 and 1 Ampere");
    }
    if (mSetContent == SetContent::Gradients) {
        throw std::runtime_error(
            "Shim gradients have been set in this parameter set."
            "Please finish it to before setting shim currents.");
    }
    std::lock_guard const lock(mMutex);
    std::unique_lock picture(mPictureMutex);
    auto const change = [&] {
        currentAt(aIndex) = static_cast<int>(aAmpere * kMicroAmperePerAmpere);
        updateGradientsFromCurrents();
    };
    if (mInParameterSet) {
        mSetContent = SetContent::Currents;
        change();
        return;
    }
    ShimGradientsTOSK oldGradients = mGradients;
    Currents const oldBoard1 = mBoard1Currents;
    Currents const oldBoard2 = mBoard2Currents;
    ++mChanges;
    change();
    picture.unlock();
    sendUpdates(std::move(oldGradients), oldBoard1, oldBoard2);
}

BoundedIntegerValue ShimHardwareQ47::getSingleShim(std::string const& aName) {
    keplaDoLog(Severity::Debug, "ShimHardwareQ47::getSingleShim(id='%s')", {}, aName);
    neededMatrix();
    if (mSetContent == SetContent::Currents) {
        throw std::runtime_error(
            "Shim currents have been set in this parameter set."
            "Please finish it to have gradients recomputed before reading shim gradients.");
    }
    std::lock_guard const picture(mPictureMutex);
    return {mGradients.get(aName), std::numeric_limits<int>::max(), std::numeric_limits<int>::min(), {}};
}

BoundedValue ShimHardwareQ47::getShimCurrent(unsigned int aIndex) {
    keplaDoLog(Severity::Debug, "getShimCurrent(%u)", {}, aIndex);
    if (!hasMatrix()) {
        keplaDoLog(Severity::Error, "getShimCurrent: shim system has not been set", {});
        throw std::runtime_error(mNotSetMessage);
    }
    if (aIndex >= kCurrents) {
        throw std::out_of_range("Shim current index must be between 0 and 33");
    }
    if (mSetContent == SetContent::Gradients) {
        throw std::runtime_error(
            "Shim gradients have been set in this parameter set."
            "Please finish it to have currents recomputed before reading currents.");
    }
    std::lock_guard const picture(mPictureMutex);
    // Intended: the lower limit reads 0 although the setter takes negative currents.
    return {currentAt(aIndex) / kMicroAmperePerAmpere, kLargestAmpere, 0.0, mCurrentFormat};
}

// --------------------------------------------------------------------------------------- the shim system

void ShimHardwareQ47::setShimSystem(ShimSysType aShimSysType) {
    keplaDoLog(Severity::Debug, "+setShimSystem(shimsystype = %d)", {}, static_cast<int>(aShimSysType));
    auto loaded = mMatrixManager.get(aShimSysType);
    std::unique_lock picture(mPictureMutex);
    mMatrix = std::move(loaded);
    mShimSysType = aShimSysType;
    picture.unlock();

    getShimsFromHardware();
    picture.lock();
    // Intended: the gradients count, so that currents below half a unit pass for no shims.
    // Not over an open set, whose values are still to come.
    bool const noShims = mSetContent == SetContent::Nothing && mGradients.areAllZeros();
    picture.unlock();
    if (noShims) {
        keplaDoLog(Severity::Info, "All shims are zero on the board on startup: try to load factory shims",
                   {});
        tryLoadFactoryShims(mFactoryShimPath);
    }
}

void ShimHardwareQ47::tryLoadFactoryShims(std::string const& aPath) {
    keplaDoLog(Severity::Debug, "ShimHardwareQ47::tryLoadFactoryShim", {});
    errno = 0; // So that the line below tells of no error but this file's.
    try {
        ShimFile file(aPath);
        BoardWrite const write(*this, [&] {
            ShimGradientsTOSK::copy(*file.gradients(), mGradients);
            updateCurrentsFromGradients();
        });
        setShimsOnHardware(write);
    } catch (std::exception const& error) {
        // Intended: the reason is that of the system, which knows of files only; the next line has the rest.
        keplaDoLog(Severity::Error, "Factory shim not loaded, reason: %m", {});
        keplaDoLog(Severity::Debug, "~tryLoadFactoryShim: %s", {}, error.what());
    }
}

std::string ShimHardwareQ47::getNamesOfActiveShimGradients() {
    std::string names = neededMatrix()->getNamesOfActiveShimGradients();
    keplaDoLog(Severity::Debug, "ShimHardwareQ47::getNamesOfActiveShimGradients returns '%s'", {}, names);
    return names;
}

std::string ShimHardwareQ47::getShimId() {
    keplaDoLog(Severity::Trace, "+getShimId()", {});
    neededMatrix();
    std::unique_lock picture(mPictureMutex);
    ShimSysType const type = mShimSysType;
    picture.unlock();
    for (auto const& [known, id] : kShimIds) {
        if (known == type) {
            return id;
        }
    }
    keplaDoLog(Severity::Error, "Unsupported shim system type: %d", {}, static_cast<int>(type));
    return {};
}

std::string ShimHardwareQ47::getTOSKFileName() {
    keplaDoLog(Severity::Trace, "+getTOSKFileName", {});
    neededMatrix();
    std::unique_lock picture(mPictureMutex);
    ShimSysType const type = mShimSysType;
    picture.unlock();
    return mMatrixManager.fileNameFromType(type); // Intended: the normal name, also with an enforced file.
}

std::string ShimHardwareQ47::getTOSKMatrixRelations() {
    auto const present = matrix();
    if (!present) {
        keplaDoLog(Severity::Error, "getTOSKMatrixRelations: shims system has not been set", {});
        return {};
    }
    return present->exportForwardAndInverse();
}

std::string ShimHardwareQ47::getShimSystemMDS() {
    keplaDoLog(Severity::Debug, "+getShimSystemMDS", {});
    try {
        std::string mds = velmor::kepla::utils::readWholeFile(mShimSystemMdsPath);
        keplaDoLog(Severity::Info, "Read shim system MDS :'%s'", {}, mds);
        return mds;
    } catch (std::exception const& error) {
        keplaDoLog(Severity::Error, "Failed to read shim system MDS with error %s", {}, error.what());
        return {};
    }
}

unsigned int ShimHardwareQ47::getShimCurrentsCount() {
    keplaDoLog(Severity::Debug, "getShimCurrentsCount()", {});
    return kCurrents;
}

bool ShimHardwareQ47::getAutoShim() {
    return false;
}
