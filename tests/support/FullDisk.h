// SPDX-License-Identifier: Apache-2.0
// A disk that takes no more, as a process sees it.
#pragma once

#include <csignal>

#include <sys/resource.h>

namespace libfieldwarden::test {

/// No file of this process grows beyond a size, which is what a full disk looks like from here; from
/// construction to destruction.
class FullDisk {
public:
    explicit FullDisk(rlim_t aBytes) {
        getrlimit(RLIMIT_FSIZE, &mFormer);
        mHandler = std::signal(SIGXFSZ, SIG_IGN);
        rlimit const limit{aBytes, mFormer.rlim_max};
        setrlimit(RLIMIT_FSIZE, &limit);
    }
    ~FullDisk() {
        setrlimit(RLIMIT_FSIZE, &mFormer);
        std::signal(SIGXFSZ, mHandler);
    }
    FullDisk(FullDisk const&) = delete;
    FullDisk& operator=(FullDisk const&) = delete;

private:
    rlimit mFormer{};
    void (*mHandler)(int);
};

} // namespace libfieldwarden::test
