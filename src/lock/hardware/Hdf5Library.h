// SPDX-License-Identifier: Apache-2.0
// One caller at a time for the HDF5 library, which serves no more.
#pragma once

#include "lock/hardware/Hdf5LibraryLock.h"

#include <velmor/kepla/log/Logger.h>

#include <memory>
#include <mutex>

/// The process's use of HDF5. Opened on first use, closed at the process's end. Any thread.
class Hdf5Library : private velmor::kepla::log::Logger {
public:
    /// @throws std::runtime_error  when HDF5 cannot be opened; the next call tries again.
    static Hdf5Library& instance();

    /// Waits until nobody else uses HDF5, which prints nothing on its own in the calling thread from then on.
    /// @return The right to use it; every handle must be closed before it goes.
    std::unique_ptr<Hdf5LibraryLock> lock();

    ~Hdf5Library();
    Hdf5Library(Hdf5Library const&) = delete;
    Hdf5Library& operator=(Hdf5Library const&) = delete;

private:
    Hdf5Library();

    std::mutex mMutex;
};
