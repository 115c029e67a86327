// SPDX-License-Identifier: Apache-2.0
// Lets file permissions count in a test that may be run by root.
#pragma once

#include <sys/fsuid.h>
#include <sys/types.h>
#include <unistd.h>

namespace libfieldwarden::test {

/// While it lives, the calling thread opens files as nobody when it is root's, and as itself otherwise.
class WithoutPrivilege {
public:
    WithoutPrivilege() {
        if (::geteuid() == 0) {
            ::setfsuid(kNobody);
        }
    }
    ~WithoutPrivilege() { ::setfsuid(::geteuid()); }
    WithoutPrivilege(WithoutPrivilege const&) = delete;
    WithoutPrivilege& operator=(WithoutPrivilege const&) = delete;

    /// @return Whether it is so; some containers know no other user than root.
    bool works() const {
        constexpr uid_t kInvalid = static_cast<uid_t>(-1); // asks without a change
        return ::setfsuid(kInvalid) != 0;
    }

private:
    static constexpr uid_t kNobody = 65534;
};

} // namespace libfieldwarden::test
