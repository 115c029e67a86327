// SPDX-License-Identifier: Apache-2.0
// Marks what the library shows to the daemon. Everything else is compiled with hidden visibility.
#pragma once

/// Put on every class of the boundary. Its type information then is one and the same in the library and in
/// the daemon, so that exceptions, dynamic_cast and listeners work across the two.
#define FIELDWARDEN_API __attribute__((visibility("default")))

/// Put on a member of a boundary class that is none of the daemon's business.
#define FIELDWARDEN_INTERNAL __attribute__((visibility("hidden")))
