// SPDX-License-Identifier: Apache-2.0
// Takes one set of PID terms out of the configuration file's values.
#pragma once

#include "lock/LockParametersPIDSet.h"

#include <memory>
#include <string>

#include <boost/program_options/variables_map.hpp>

/// Replaces a set by what the file has under the keys prefix + name + ".p", ".i" and ".d"; a set of which the
/// file has nothing stays. Any thread, does not block.
/// @param vm      The file's values.
/// @param prefix  What stands ahead of the name in the keys; may be empty.
/// @param name    The set's name, in the keys and for people.
/// @param set     The set to replace.
/// @throws std::runtime_error  when the file has some of the three terms but not all.
void loadPID(boost::program_options::variables_map const& vm,
             std::string const& prefix,
             std::string const& name,
             std::shared_ptr<LockParametersPIDSet>& set);
