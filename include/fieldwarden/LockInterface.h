// SPDX-License-Identifier: Apache-2.0
// The field-frequency lock as the daemon sees it.
#pragma once

#include <string>

#include <fieldwarden/Export.h>

class LockInterfaceListener;

/// The field-frequency lock. It comes up by itself once setBasic1HFrequency() has told it the magnet's
/// frequency.
///
/// Starting and stopping only queue a request; how it went is told to the LockInterfaceListener. Many values
/// belong to hardware that other instruments have: the lock keeps them for the user interface and does
/// nothing with them; they are marked "kept only", any number is accepted and they start at 0 unless told
/// otherwise. The mock lock throws nothing and keeps everything. The order of the operations is fixed.
class FIELDWARDEN_API LockInterface {
public:
    virtual ~LockInterface() = default;

    /// @return whether the lock is locked: regulating, and its error within the threshold.
    /// Thread: any; does not block.
    virtual bool getLock() = 0;

    /// Requests the start of the lock and resets the lock-lost indication. The start waits for a magnet
    /// frequency.
    /// Thread: any except a callback's; returns at once, the start itself takes up to minutes.
    virtual void startLock() = 0;

    /// Requests the stop of the lock.
    /// @throws std::runtime_error the adjustable temperature regulation is on, the lock must stay enabled
    /// then.
    /// Thread: any except a callback's; returns at once.
    virtual void stopLock() = 0;

    /// Would hold the regulation. Not offered by this instrument: only logged.
    /// Thread: any; does not block.
    virtual void holdLock() = 0;

    /// Tells the lock the 1H frequency of the magnet. A change of more than 900 Hz restarts a running lock
    /// and lets a waiting one begin; a smaller one is kept for the next start.
    /// @param aFrequency Hz.
    /// Thread: any; returns at once.
    virtual void setBasic1HFrequency(double aFrequency) = 0;

    /// @return the 1H frequency that was last set, in Hz; 0.0 while none is known.
    /// Thread: any; does not block.
    virtual double getBasic1HFrequency() = 0;

    /// @return a fixed number, 3.1415 (42.0 with the mock lock), that stands for no measurement.
    /// Thread: any; does not block.
    virtual float getMagnetField() = 0;

    /// Begins a parameter set. The pair of begin and end guards its own nesting only: setters act at once all
    /// the same.
    /// @throws std::runtime_error a set is already open.
    /// Thread: any; does not block.
    virtual void beginOfOneParameterSet() = 0;

    /// Ends the parameter set.
    /// @throws std::runtime_error no set is open.
    /// Thread: any; does not block.
    virtual void endOfOneParameterSet() = 0;

    /// Not offered by this instrument: only logged, an open set stays open.
    /// Thread: any; does not block.
    virtual void cancelOfOneParameterSet() = 0;

    /// @return the kind of the lock hardware, always "1L".
    /// Thread: any; does not block.
    virtual std::string getLockConfiguration() = 0;

    /// @return whether the lock works on 19F, always true.
    /// Thread: any; does not block.
    virtual bool get19FOptionAvailable() = 0;

    /// @return the number of the lock substance, 1 at first; kept only.
    /// Thread: any; does not block.
    virtual int getLockSubstance() = 0;

    /// @param aSubstance number of the lock substance; kept only.
    /// Thread: any; does not block.
    virtual void setLockSubstance(int aSubstance) = 0;

    /// @return the power step of the lock-in; kept only.
    /// Thread: any; does not block.
    virtual double getLockInPowerStep() = 0;

    /// @param aStep power step of the lock-in; kept only.
    /// Thread: any; does not block.
    virtual void setLockInPowerStep(double aStep) = 0;

    /// @return always 0.0.
    /// Thread: any; does not block.
    virtual double getEffectiveField() = 0;

    /// @return which nucleus goes with which substance number, always "19F=0".
    /// Thread: any; does not block.
    virtual std::string getSubstanceValueRange() = 0;

    /// @return whether the polarity of the H0 coil is inverse, always false.
    /// Thread: any; does not block.
    virtual bool getH0PolarityInverse() = 0;

    /// @return always false; the mock lock returns what was set.
    /// Thread: any; does not block.
    virtual bool getLockMute() = 0;

    /// Not offered by this instrument: only logged.
    /// @param aMute whether to mute the lock.
    /// Thread: any; does not block.
    virtual void setLockMute(bool aMute) = 0;

    /// @return the lock field; kept only.
    /// Thread: any; does not block.
    virtual double getLockField() = 0;

    /// @param aField lock field; kept only.
    /// Thread: any; does not block.
    virtual void setLockField(double aField) = 0;

    /// @return always 0.0.
    /// Thread: any; does not block.
    virtual double getLockDC() = 0;

    /// @return the lock shift; kept only.
    /// Thread: any; does not block.
    virtual double getLockShift() = 0;

    /// @param aShift lock shift; kept only.
    /// Thread: any; does not block.
    virtual void setLockShift(double aShift) = 0;

    /// @return the loop gain; kept only.
    /// Thread: any; does not block.
    virtual double getLoopGain() = 0;

    /// @param aGain loop gain; kept only. The gains that act are those of the PID set.
    /// Thread: any; does not block.
    virtual void setLoopGain(double aGain) = 0;

    /// @return the loop time; kept only.
    /// Thread: any; does not block.
    virtual double getLoopTime() = 0;

    /// @param aTime loop time; kept only.
    /// Thread: any; does not block.
    virtual void setLoopTime(double aTime) = 0;

    /// @return the loop filter; kept only.
    /// Thread: any; does not block.
    virtual double getLoopFilter() = 0;

    /// @param aFilter loop filter; kept only.
    /// Thread: any; does not block.
    virtual void setLoopFilter(double aFilter) = 0;

    /// @return whether the indication of LockInterfaceListener::lost() is other than 0: true once the lock
    /// was locked since the last reset, so also while it still is. Which of the two, only the listener is
    /// told.
    /// Thread: any; does not block.
    virtual bool getLockLost() = 0;

    /// @return the lock phase; kept only.
    /// Thread: any; does not block.
    virtual double getLockPhase() = 0;

    /// @param aPhase lock phase; kept only.
    /// Thread: any; does not block.
    virtual void setLockPhase(double aPhase) = 0;

    /// @return the lock power; kept only.
    /// Thread: any; does not block.
    virtual double getLockPower() = 0;

    /// @param aPower lock power; kept only.
    /// Thread: any; does not block.
    virtual void setLockPower(double aPower) = 0;

    /// @return the lock gain; kept only.
    /// Thread: any; does not block.
    virtual double getLockGain() = 0;

    /// @param aGain lock gain; kept only.
    /// Thread: any; does not block.
    virtual void setLockGain(double aGain) = 0;

    /// @return number of the chosen PID set, see LockPIDSetID; 2 at first.
    /// Thread: any; does not block.
    virtual int getLockPIDSet() = 0;

    /// Chooses the PID set. A running lock restarts with its terms.
    /// @param aPIDSet 0 slow, 1 fast, 2 normal, see LockPIDSetID.
    /// @throws std::invalid_argument another number; the lock goes on as it is, but getLockPIDSet() answers
    /// that number.
    /// Thread: any except a callback's; returns at once, the listener is told from within.
    virtual void setLockPIDSet(int aPIDSet) = 0;

    /// @return always 0.0.
    /// Thread: any; does not block.
    virtual double getLockLevel() = 0;

    /// @return always 0.
    /// Thread: any; does not block.
    virtual int getAutoLockBehavior() = 0;

    /// @return number of additional lock peaks; kept only.
    /// Thread: any; does not block.
    virtual int getAdditionalLockPeaks() = 0;

    /// @param aPeaks number of additional lock peaks; kept only.
    /// Thread: any; does not block.
    virtual void setAdditionalLockPeaks(int aPeaks) = 0;

    /// Registers the one listener, in place of a former one. It is not told the present status.
    /// @param aListener not null and not owned; must live until removeListener() has returned.
    /// @throws std::invalid_argument aListener is null (the mock lock takes it).
    /// Thread: any except a callback's; waits for a running callback.
    virtual void setListener(LockInterfaceListener* aListener) = 0;

    /// Forgets the listener; no callback runs any more when it returns. Harmless without a listener. The mock
    /// lock does not wait: its last callback may still be under way.
    /// Thread: any except a callback's, which would wait for itself; waits for a running callback.
    virtual void removeListener() = 0;

    /// @return warnings for the user, always empty; the mock lock returns the contents of its file
    /// "warnings".
    /// Thread: any; does not block.
    virtual std::string warnings() const = 0;

    /// @return warnings that ask the user to act: the field correction nears the end of its range, or the
    /// lock hardware delivers no data. Empty if there are none, separated by a blank line if there are two.
    /// Thread: any; does not block.
    virtual std::string criticalWarnings() const = 0;

    /// Starts the lock-lost indication afresh: 2 if the lock is locked now, else 0. The listener is told of a
    /// change.
    /// Thread: any except a callback's; does not block.
    virtual void resetLockLost() = 0;
};
