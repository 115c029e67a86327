// SPDX-License-Identifier: Apache-2.0
// The device records as files in one folder.
#pragma once

#include <velmor/kepla/deviceid/DeviceIdClientIfc.h>
#include <velmor/kepla/deviceid/DeviceIdServiceContributorIfc.h>

#include <cstddef>
#include <filesystem>
#include <string>

namespace velmor::kepla::deviceid {

/// One file a record, named after its device: "main.mds" is the instrument's main record. Keeps nothing in
/// memory, so several objects may stand on one folder.
///
/// All operations may be called from any thread, also from several processes, and block on the disk: a reader
/// sees the former record or the new one, never a part.
class DeviceIdDirectory : public DeviceIdClientIfc, public DeviceIdServiceContributorIfc {
public:
    /// The longest record.
    static constexpr std::size_t kMaxRecordBytes = std::size_t{1} << 20U;

    /// @param aDirectory  The folder; contribute() makes it when it is missing.
    explicit DeviceIdDirectory(std::filesystem::path aDirectory);

    /// @throws std::runtime_error  when "main.mds" is missing, longer than 1 MiB or cannot be read; the words
    /// name the file.
    std::string mainMds() override;

    /// Writes "<device>.mds", unless it has these contents already.
    void contribute(std::string const& aDevice, std::string const& aRecordText) override;

private:
    std::filesystem::path fileOf(std::string const& aDevice) const;

    std::filesystem::path mDirectory;
};

} // namespace velmor::kepla::deviceid
