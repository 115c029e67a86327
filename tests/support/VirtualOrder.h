// SPDX-License-Identifier: Apache-2.0
// Holds the operations of an abstract class to their places in the table of virtual functions.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>

namespace libfieldwarden::test {

/// The destructor takes two slots of the table of virtual functions, one for plain and one for deleting
/// destruction.
inline constexpr std::size_t kDestructorSlots = 2;

/// An operation and the slot of the table of virtual functions through which it is called.
struct Operation {
    std::string_view name;
    std::size_t slot;
};

/// The Itanium C++ ABI, 2.3: a pointer to a virtual member function holds the byte offset of its slot plus 1,
/// and then the adjustment of `this`. On ARM, where the lowest bit of an address says something else, the
/// first word is the plain offset and the mark of a virtual function is the lowest bit of the second word.
template <typename MemberPointer>
std::size_t slotOf(MemberPointer aOperation) {
    std::array<std::uintptr_t, 2> words{};
    static_assert(sizeof(aOperation) == sizeof(words));
    std::memcpy(words.data(), &aOperation, sizeof(words));
#if defined(__arm__) || defined(__aarch64__)
    EXPECT_EQ(words[1], 1U) << "not a virtual function of the class itself";
    return words[0] / sizeof(void*);
#else
    EXPECT_EQ(words[0] % sizeof(void*), 1U) << "not a virtual function";
    EXPECT_EQ(words[1], 0U) << "not a function of the class itself";
    return (words[0] - 1) / sizeof(void*);
#endif
}

/// One row of a table. The signature is written out, so a changed one does not compile, and overloads are
/// told apart.
template <typename Signature, typename Interface>
Operation row(std::string_view aName, Signature Interface::*aOperation) {
    return {aName, slotOf(aOperation)};
}

/// Adds one operation behind the last of the interface, and so tells how many it has.
template <typename Interface>
struct OneMore : Interface {
    virtual void oneMore() = 0;
};

/// The operations stand in the order of aTable, and there are neither more nor fewer than aCount of them.
template <typename Interface>
void expectOrder(std::size_t aCount, std::vector<Operation> const& aTable) {
    static_assert(std::is_abstract_v<Interface> && std::has_virtual_destructor_v<Interface>);
    EXPECT_EQ(sizeof(Interface), sizeof(void*)) << "an interface has no data";
    EXPECT_EQ(aTable.size(), aCount);
    EXPECT_EQ(slotOf(&OneMore<Interface>::oneMore), kDestructorSlots + aCount);
    for (std::size_t index = 0; index < aTable.size(); ++index) {
        EXPECT_EQ(aTable[index].slot, kDestructorSlots + index)
            << aTable[index].name << " is not operation " << index + 1;
    }
}

} // namespace libfieldwarden::test
