// SPDX-License-Identifier: Apache-2.0
// The right to use HDF5, for as long as it lives.
#pragma once

#include <mutex>

/// Locks in the constructor, unlocks in the destructor, in the same thread.
class Hdf5LibraryLock {
public:
    /// @param aMutex  Of the library; outlives this.
    explicit Hdf5LibraryLock(std::mutex& aMutex)
        : mMutex(aMutex) {
        mMutex.lock();
    }
    ~Hdf5LibraryLock() { mMutex.unlock(); }
    Hdf5LibraryLock(Hdf5LibraryLock const&) = delete;
    Hdf5LibraryLock& operator=(Hdf5LibraryLock const&) = delete;

private:
    std::mutex& mMutex;
};
