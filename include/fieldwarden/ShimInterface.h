// SPDX-License-Identifier: Apache-2.0
// The shim service as the daemon sees it: gradients, the currents that they need, and parameter sets.
#pragma once

#include <string>

#include <fieldwarden/BoundedValue.h>
#include <fieldwarden/Export.h>
#include <fieldwarden/ShimSysType.h>

class ShimListenerInterface;

/// The shim service. It knows nothing of the matrix until setShimSystem() has been called: until then every
/// operation that needs it throws std::runtime_error "The shim system has not been set. Please run
/// instsetup.".
///
/// A parameter set collects changes of one kind, gradients or currents, and writes them to the boards at its
/// end. Outside of a set a change is held and reported to the listener but does not reach the boards before
/// the next end of a set. The order of the operations is fixed.
class FIELDWARDEN_API ShimInterface {
public:
    virtual ~ShimInterface() = default;

    /// Registers the one listener, in place of a former one.
    /// @param aListener not null and not owned; must live until removeListener() has returned.
    /// @throws std::invalid_argument aListener is null.
    /// Thread: any except a callback's; waits for a running change to end.
    virtual void setListener(ShimListenerInterface* aListener) = 0;

    /// Forgets the listener; no callback runs any more when it returns. Harmless without a listener.
    /// Thread: any except a callback's; waits for a running change to end.
    virtual void removeListener() = 0;

    /// @return names of the gradients that the matrix of the shim system serves.
    /// @throws std::runtime_error the shim system has not been set.
    /// Thread: any; does not block.
    virtual std::string getNamesOfActiveShimGradients() = 0;

    /// @return "wmxs1a", "wmxs1b", "wmxs1c" or "wmxs2a"; empty for a type outside of ShimSysType that an
    /// enforced matrix file let pass.
    /// @throws std::runtime_error the shim system has not been set.
    /// Thread: any; does not block.
    virtual std::string getShimId() = 0;

    /// @return number of currents, always 34.
    /// Thread: any; does not block.
    virtual unsigned int getShimCurrentsCount() = 0;

    /// @param aIndex 0 to 16 on the first board, 17 to 33 on the second.
    /// @return the current in ampere, format "1.6". Its lower limit reads 0.0 although the setter takes -1:
    /// intended.
    /// @throws std::out_of_range aIndex is above 33.
    /// @throws std::runtime_error the shim system has not been set, or gradients were changed in the open
    /// set.
    /// Thread: any; does not block.
    virtual BoundedValue getShimCurrent(unsigned int aIndex) = 0;

    /// Changes one current; the gradients follow at once.
    /// @param aIndex 0 to 16 on the first board, 17 to 33 on the second.
    /// @param aAmpere -1.0 to 1.0 A, both allowed; kept in whole uA, cut toward zero.
    /// @throws std::out_of_range index or current out of range.
    /// @throws std::runtime_error the shim system has not been set, or gradients were changed in the open
    /// set.
    /// Thread: any except a callback's; calls the listener outside of a set.
    virtual void setShimCurrent(unsigned int aIndex, double aAmpere) = 0;

    /// Changes one gradient; outside of a set the currents follow at once, inside at its end.
    /// @param aName one of the 39 TOSK names, exactly.
    /// @param aValue in units.
    /// @throws std::invalid_argument unknown name, or, outside of a set, a current beyond +-130000 units.
    /// @throws std::runtime_error the shim system has not been set, or currents were changed in the open set.
    /// Thread: any except a callback's; calls the listener outside of a set.
    virtual void setSingleShim(std::string const& aName, int aValue) = 0;

    /// @param aName one of the 39 TOSK names, exactly.
    /// @return the gradient in units; the limits are those of a 32-bit integer and the format is empty.
    /// @throws std::invalid_argument unknown name.
    /// @throws std::runtime_error the shim system has not been set, or currents were changed in the open set.
    /// Thread: any; does not block.
    virtual BoundedIntegerValue getSingleShim(std::string const& aName) = 0;

    /// Begins a parameter set: remembers all values for a cancel.
    /// @throws std::runtime_error a set is already open.
    /// Thread: any except a callback's; does not block.
    virtual void beginOfOneParameterSet() = 0;

    /// Ends the parameter set: computes the other kind, writes all currents to both boards (also when nothing
    /// was changed), then calls the listener for each changed value. After a failure the set is still open,
    /// to be ended again or cancelled.
    /// @throws std::runtime_error no set is open, or a board failed (the second is written even if the first
    /// fails).
    /// @throws std::invalid_argument a gradient needs a current beyond +-130000 units.
    /// Thread: any except a callback's; blocks for the transfers to both boards.
    virtual void endOfOneParameterSet() = 0;

    /// Drops the parameter set: restores the values from its beginning and writes them to the boards. Throws
    /// nothing, neither without a set nor when a board fails (logged); the listener is not called. Thread:
    /// any except a callback's; blocks for the transfers to both boards.
    virtual void cancelOfOneParameterSet() = 0;

    /// @return name of the matrix file that belongs to the shim system, also while an enforced file is used
    /// instead.
    /// @throws std::runtime_error the shim system has not been set.
    /// @throws std::invalid_argument the shim system is none of ShimSysType.
    /// Thread: any; does not block.
    virtual std::string getTOSKFileName() = 0;

    /// @return whether an automatic shim runs: always false, there is none.
    /// Thread: any; does not block.
    virtual bool getAutoShim() = 0;

    /// @return the forward and the inverse matrix as text; empty while the shim system has not been set.
    /// Thread: any; does not block.
    virtual std::string getTOSKMatrixRelations() = 0;

    /// @return the record text of the shim system, the whole of "shimsys.mds"; empty if it cannot be read
    /// (the reason is logged). Throws nothing.
    /// Thread: any; reads a file.
    virtual std::string getShimSystemMDS() = 0;

    /// Chooses the shim system: loads its matrix, or the enforced one if that file exists, and reads the
    /// currents from the boards. If all gradients are zero then, the factory shims are written, if there are
    /// any.
    /// @param aShimSysType the shim system.
    /// @throws std::invalid_argument not one of ShimSysType.
    /// @throws std::runtime_error the matrix cannot be loaded (the former one stays), or a board does not
    /// answer.
    /// Thread: any; blocks for file access and the transfers to both boards.
    virtual void setShimSystem(ShimSysType aShimSysType) = 0;
};
