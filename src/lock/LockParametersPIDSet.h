// SPDX-License-Identifier: Apache-2.0
// One set of terms of a PID regulator.
#pragma once

/// The three terms of a PID regulator. A set never changes: whoever holds one keeps a whole one.
class LockParametersPIDSet {
public:
    virtual ~LockParametersPIDSet() = default;

    virtual double p() const = 0;
    virtual double d() const = 0;
    virtual double i() const = 0;
};
