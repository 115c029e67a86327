// SPDX-License-Identifier: Apache-2.0
// Thread names, by which `top -H` and a debugger tell the library's threads apart.
#pragma once

#include <string>

#include <pthread.h>

namespace velmor::kepla::utils {

/// Names the calling thread.
/// @param aName  The name; Linux keeps its first 15 characters.
inline void nameThisThread(std::string const& aName) noexcept {
    pthread_setname_np(pthread_self(), aName.substr(0, 15).c_str());
}

} // namespace velmor::kepla::utils
