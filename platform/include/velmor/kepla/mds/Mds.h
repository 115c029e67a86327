// SPDX-License-Identifier: Apache-2.0
// The records that describe boards, magnet and options: named groups of values, kept as small XML documents.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace velmor::kepla::mds {

/// One group of a record: a name and a row of values. Immutable; any thread may read it.
class MdsGroup {
public:
    MdsGroup(std::string aName, std::vector<std::string> aValues);

    /// @return The group's name.
    std::string const& name() const noexcept { return mName; }

    /// @return The number of values.
    unsigned int size() const noexcept { return static_cast<unsigned int>(mValues.size()); }

    /// @param aIndex  Index of a value, 0 to size() - 1.
    /// @return The value's text, without blanks around it.
    /// @throws std::out_of_range  when there is no such value.
    std::string const& asString(unsigned int aIndex) const;

    /// @param aIndex  Index of a value, 0 to size() - 1.
    /// @return The value as a number; the decimal separator is a point whatever the locale.
    /// @throws std::out_of_range      when there is no such value.
    /// @throws std::invalid_argument  when it is not a finite number or does not fit the type.
    double asDouble(unsigned int aIndex) const;
    /// As asDouble(), for a whole number.
    int asInt(unsigned int aIndex) const;
    /// As asDouble(), for a whole number from 0 on.
    unsigned int asUnsignedInt(unsigned int aIndex) const;

private:
    template <typename Number>
    Number convert(unsigned int aIndex, char const* aKind) const;

    std::string mName;
    std::vector<std::string> mValues;
};

/// The groups of a record, in the order of the text. Immutable; any thread may read it.
class MdsGroups {
public:
    explicit MdsGroups(std::vector<MdsGroup> aGroups);

    /// @param aName  Name of a group; upper and lower case differ.
    /// @return All groups of that name, in their order; none when there is none.
    std::vector<MdsGroup> getByName(std::string const& aName) const;

    /// @return All groups.
    std::vector<MdsGroup> const& all() const noexcept { return mGroups; }

private:
    std::vector<MdsGroup> mGroups;
};

/// A whole record:
///
///     <record>
///       <group name="FlowForTemperature"><value>1</value><value>2</value>…</group>
///       …
///     </record>
///
/// Groups of one name may repeat. Elements of other names are passed over, so that a record may say more than
/// this library knows. Immutable; any thread may read it.
class Mds {
public:
    /// @param aText  The record's text, at most 1 MiB.
    /// @throws std::invalid_argument  when it is too long, is not well-formed XML, has a document type
    ///                                declaration, is not a "record", or has a group without a name; the
    ///                                words name the line.
    static Mds parse(std::string const& aText);

    /// @return The record's groups.
    MdsGroups const& groups() const noexcept { return mGroups; }

private:
    explicit Mds(MdsGroups aGroups);

    MdsGroups mGroups;
};

} // namespace velmor::kepla::mds
