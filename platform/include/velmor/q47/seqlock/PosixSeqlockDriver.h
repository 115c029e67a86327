// SPDX-License-Identifier: Apache-2.0
// The sequencer's driver as the kernel publishes it: files in sysfs and devices in "/dev".
#pragma once

#include <velmor/q47/seqlock/SeqlockDriver.h>

#include <filesystem>

namespace velmor::q47::seqlock {

/// The driver on the system calls. It keeps nothing open.
class PosixSeqlockDriver final : public SeqlockDriver {
public:
    /// @param aRoot  Put ahead of every path: "/" on the instrument, another folder where the same layout is
    /// laid out in plain files.
    explicit PosixSeqlockDriver(std::filesystem::path const& aRoot = "/");

    bool canRead(std::string const& aPath) override;
    bool canWrite(std::string const& aPath) override;
    std::string readRegister(std::string const& aPath) override;
    void writeRegister(std::string const& aPath, std::string const& aText) override;
    std::unique_ptr<Notification> openNotification(std::string const& aPath) override;
    std::unique_ptr<std::ostream> openMemory(std::string const& aPath) override;
    std::unique_ptr<StreamDevice> openStream(std::string const& aPath) override;

private:
    class Located;

    std::string mPrefix; ///< The root without a slash at its end; empty on the instrument.
};

} // namespace velmor::q47::seqlock
