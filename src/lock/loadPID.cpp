// SPDX-License-Identifier: Apache-2.0
// Takes one set of PID terms out of the configuration file's values.
#include "lock/loadPID.h"

#include "lock/LockParametersPIDStaticSet.h"

#include <velmor/kepla/log/Logger.h>

#include <stdexcept>

using velmor::kepla::log::keplaDoLog;
using velmor::kepla::log::Severity;

void loadPID(boost::program_options::variables_map const& vm,
             std::string const& prefix,
             std::string const& name,
             std::shared_ptr<LockParametersPIDSet>& set) {
    std::string const keyP = prefix + name + "." + "p";
    std::string const keyI = prefix + name + "." + "i";
    std::string const keyD = prefix + name + "." + "d";
    bool const hasP = vm.count(keyP) != 0;
    bool const hasI = vm.count(keyI) != 0;
    bool const hasD = vm.count(keyD) != 0;
    if (!hasP && !hasI && !hasD) {
        keplaDoLog(Severity::Debug, "No PID defined in config file for PID set %s", {}, name);
        return;
    }
    if (!hasP || !hasI || !hasD) {
        keplaDoLog(Severity::Error,
                   "An incomplete PID set has been provided for %s: p defined = %d, i defined = %d, "
                   "d defined = %d",
                   {}, name, hasP, hasI, hasD);
        throw std::runtime_error("The " + name +
                                 " PID set is not complete. You need to define P, I and D values for it.");
    }
    auto const p = vm[keyP].as<double>();
    auto const i = vm[keyI].as<double>();
    auto const d = vm[keyD].as<double>();
    set = std::make_shared<LockParametersPIDStaticSet>(p, i, d);
    keplaDoLog(Severity::Info, "Overriden %s PID with p = %f, i = %f, d = %f", {}, name, p, i, d);
}
