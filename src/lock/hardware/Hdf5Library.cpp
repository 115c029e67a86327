// SPDX-License-Identifier: Apache-2.0
// Opening and closing of the HDF5 library.
#include "lock/hardware/Hdf5Library.h"

#include <stdexcept>

#include <H5Cpp.h>

using velmor::kepla::log::Severity;

Hdf5Library& Hdf5Library::instance() {
    static Hdf5Library library;
    return library;
}

Hdf5Library::Hdf5Library()
    : Logger("Hdf5Library", "Lock") {
    herr_t const result = H5open();
    if (result < 0) {
        keplaDoLog(Severity::Error, "H5open failed with %d", {}, result);
        throw std::runtime_error("Failed to open HDF5 library");
    }
    H5::Exception::dontPrint();
}

Hdf5Library::~Hdf5Library() {
    herr_t const result = H5close();
    if (result < 0) {
        keplaDoLog(Severity::Error, "H5close failed with %d", {}, result);
    }
}

std::unique_ptr<Hdf5LibraryLock> Hdf5Library::lock() {
    auto lock = std::make_unique<Hdf5LibraryLock>(mMutex);
    H5::Exception::dontPrint(); // A library that is built for threads prints or not by thread.
    return lock;
}
