// SPDX-License-Identifier: Apache-2.0
// A set of PID terms that is given once.
#pragma once

#include "lock/LockParametersPIDSet.h"

/// Three numbers. Any thread, nothing blocks.
class LockParametersPIDStaticSet : public LockParametersPIDSet {
public:
    LockParametersPIDStaticSet(double aP, double aI, double aD)
        : mP(aP)
        , mI(aI)
        , mD(aD) {}

    double p() const override { return mP; }
    double d() const override { return mD; }
    double i() const override { return mI; }

private:
    double mP;
    double mI;
    double mD;
};
