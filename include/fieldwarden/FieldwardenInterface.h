// SPDX-License-Identifier: Apache-2.0
// The entry to the library: the daemon opens the magnet control here and gets its services from here.
#pragma once

#include <string>

#include <fieldwarden/Export.h>

class LockInterface;
/// The sample transfer. No class of that name exists for this family of instruments: getSampleTransfer() is
/// null.
class SampleTransferInterface;
class SampleRotationInterface;
class ShimInterface;
class TemperatureInterface;

/// The magnet control of one instrument: one object for the process, opened and closed by count.
///
/// Call openInterface(), then getInstance() as often as needed, then closeInterface() once for each
/// openInterface(). The last close destroys the object and every service: pointers from here are invalid from
/// then on. The library owns all of them, never delete one. The order of the virtual operations is fixed
/// (docs/boundary.md).
class FIELDWARDEN_API FieldwardenInterface {
public:
    /// Called by the library alone, in the last closeInterface().
    virtual ~FieldwardenInterface() = default;

    FieldwardenInterface(FieldwardenInterface const&) = delete;
    FieldwardenInterface& operator=(FieldwardenInterface const&) = delete;

    /// @return the shim service; valid until the last closeInterface().
    /// Thread: any; does not block.
    virtual ShimInterface* getShim() = 0;

    /// @return the lock, or the mock lock if "/tmp/lockmock" existed at the opening; valid until the last
    /// closeInterface().
    /// Thread: any; does not block.
    virtual LockInterface* getLock() = 0;

    /// @return the temperature service; valid until the last closeInterface().
    /// Thread: any; does not block.
    virtual TemperatureInterface* getTemperature() = 0;

    /// @return the sample rotation, never null; valid until the last closeInterface().
    /// Thread: any; does not block.
    virtual SampleRotationInterface* getSampleRotation() = 0;

    /// @return always null: the instrument has no sample transfer object.
    /// Thread: any; does not block.
    virtual SampleTransferInterface* getSampleTransfer() = 0;

    /// @return name of the firmware bundle, always "q47_fieldwarden_20230227.gz".
    /// Thread: any; does not block.
    virtual std::string getFirmwareVersion() = 0;

    /// @return configuration word of a board that this instrument does not have, always "0".
    /// Thread: any; does not block.
    virtual std::string getKLRBConfiguration() = 0;

    /// @return configuration word of a board that this instrument does not have, always "0".
    /// Thread: any; does not block.
    virtual std::string getDWAConfiguration() = 0;

    /// @return router address of the deuterium transmitter, always 255: there is none.
    /// Thread: any; does not block.
    virtual int get2HTXRouterAddress() = 0;

    /// @return record text of the variable power supply board, always empty.
    /// Thread: any; does not block.
    virtual std::string getMdsFromVariablePowerSupplyBoard() = 0;

    /// @return record text of the sensor and pneumatic board, always empty.
    /// Thread: any; does not block.
    virtual std::string getMdsFromSensorAndPneumaticBoard() = 0;

    /// @return record text of the magnet, the whole of "magnet.mds"; empty if it is missing or cannot be read
    /// (the reason is logged). Throws nothing.
    /// Thread: any; reads a file.
    virtual std::string getMdsFromTheMagnet() = 0;

    /// @return record text of the variable temperature unit, the whole of "vtu.mds"; empty if it is missing
    /// or cannot be read (the reason is logged). Throws nothing.
    /// Thread: any; reads a file.
    virtual std::string getVTUMDS() = 0;

    /// @return the flag that setLoggingTransferEnable() stored, false at first.
    /// Thread: any; does not block.
    virtual bool getLoggingTransferEnable() = 0;

    /// Stores a flag for getLoggingTransferEnable(). It has no other effect.
    /// @param aEnable the flag.
    /// Thread: any; does not block.
    virtual void setLoggingTransferEnable(bool aEnable) = 0;

    /// Opens with the instrument's own places: "can0", "/etc/libfieldwarden", "/data/factory",
    /// "/usr/share/firmware/Q47ShimBoard", "/opt/panorin/conf/instr/spect",
    /// "/usr/share/firmware/Q47TemperatureBoard",
    /// "/data", in the order of the parameters of the other overload, which says the rest.
    static void openInterface();

    /// Opens the magnet control, or counts one more user if it is already open.
    ///
    /// A second open must name the same aCanIfc and aConfigRoot; the other arguments are not compared and do
    /// not change anything then. A refused second open counts all the same, so it too needs its
    /// closeInterface().
    /// @param aCanIfc CAN interface on which the boards are.
    /// @param aConfigRoot read-only configuration of the library; holds "/matrices".
    /// @param aFactoryRoot factory data; holds "/shims.factory".
    /// @param aShimFirmwareRoot directory of the shim board firmware.
    /// @param aTsConfigRoot the spectrometer application's instrument configuration; holds "/lock.config".
    /// @param aTempFirmwareRoot directory of the temperature board firmware.
    /// @param aDataRoot writable data; holds "deviceids" and "/libfieldwarden/matrices/enforced.dat".
    /// @throws std::invalid_argument already open with another aCanIfc or aConfigRoot.
    /// @throws std::exception whatever kept a service from coming up (std::runtime_error for a CAN interface
    /// or board that does not answer); nothing is open then and the open may be tried again.
    /// Thread: any, but not from a callback; opens and closes exclude each other. Blocks until the boards are
    /// up, which takes seconds, and minutes when a board's firmware is updated.
    static void openInterface(std::string const& aCanIfc,
                              std::string const& aConfigRoot,
                              std::string const& aFactoryRoot,
                              std::string const& aShimFirmwareRoot,
                              std::string const& aTsConfigRoot,
                              std::string const& aTempFirmwareRoot,
                              std::string const& aDataRoot);

    /// Gives one open back; the last one destroys the services and joins their threads.
    /// @throws std::runtime_error nothing is open.
    /// Thread: any, but not from a callback; opens and closes exclude each other. The last close blocks for
    /// seconds.
    static void closeInterface();

    /// @return the open magnet control; owned by the library, valid until the last closeInterface().
    /// @throws std::runtime_error nothing is open.
    /// Thread: any; does not block.
    static FieldwardenInterface* getInstance();

protected:
    FieldwardenInterface() = default;

private:
    struct FIELDWARDEN_INTERNAL ProcessState;
    FIELDWARDEN_INTERNAL static ProcessState& processState();
};
