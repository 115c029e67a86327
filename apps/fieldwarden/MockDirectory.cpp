// SPDX-License-Identifier: Apache-2.0
// Making and removing the folder of the mock lock.
#include "apps/fieldwarden/MockDirectory.h"

#include <fstream>
#include <stdexcept>
#include <system_error>

namespace libfieldwarden::app {

MockDirectory::MockDirectory() {
    if (!std::filesystem::create_directory(path())) {
        return; // Somebody else's: used as it is, and left there.
    }
    mMade.push_back(path());
    for (char const* const name : {"warnings", "critical_warnings"}) {
        if (!std::ofstream(path() / name)) {
            throw std::runtime_error("Cannot make the control file '" + (path() / name).string() + "'");
        }
        mMade.push_back(path() / name);
    }
}

MockDirectory::~MockDirectory() {
    // Backwards, so that the folder goes last; it stays when somebody put something of his own into it.
    for (auto made = mMade.rbegin(); made != mMade.rend(); ++made) {
        std::error_code leftAlone;
        std::filesystem::remove(*made, leftAlone);
    }
}

} // namespace libfieldwarden::app
