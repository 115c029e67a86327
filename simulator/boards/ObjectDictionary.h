// SPDX-License-Identifier: Apache-2.0
// The object dictionary of a simulated board: tables of objects that refuse what the hardware refuses.
#pragma once

#include <velmor/kepla/canopen/ObjectDictionaryIfc.h>
#include <velmor/kepla/canopen/SdoTypes.h>

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <limits>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace libfieldwarden::sim {

/// What an object holds. Numbers are little endian on the bus.
enum class ObjectType : std::uint8_t { U8, U16, U32, I32, Text, Domain };

/// What the bus may do with an object.
enum class ObjectAccess : std::uint8_t { ReadOnly, ReadWrite, WriteOnly };

/// The values that a number may take, or the lengths in bytes that a text or a domain may have.
struct ObjectRange {
    std::int64_t lowest;
    std::int64_t highest;
};

/// One row of a dictionary's table: the objects of one index from one subindex to another.
struct ObjectRow {
    std::uint16_t index;
    std::uint8_t first; ///< First subindex of the row.
    std::uint8_t last;  ///< Last subindex of the row.
    ObjectType type;
    ObjectAccess access;
    std::string_view meaning;              ///< What it is, with its unit.
    std::int64_t powerOn = 0;              ///< The number after power-on.
    std::optional<ObjectRange> range = {}; ///< None: all that the type can hold.
    std::string_view powerOnText = {};     ///< The text or the domain after power-on.
};

/// A table-driven object dictionary (CiA 301). An access that fits no row is refused with the abort code of
/// the standard:
///
/// | Abort code | When                                                  |
/// |------------|-------------------------------------------------------|
/// | 0x06020000 | there is no such index                                |
/// | 0x06090011 | the index is there, the subindex is not               |
/// | 0x06010001 | a write-only object is read                           |
/// | 0x06010002 | a read-only object is written                         |
/// | 0x06070010 | the number of bytes does not fit the object           |
/// | 0x06090030 | the value is out of the object's range                |
///
/// Not for several threads at a time; nothing blocks. The typed operations throw std::out_of_range for an
/// object that the tables do not have, since that is an error of the board's model and not of the bus.
class ObjectDictionary final : public velmor::kepla::canopen::ObjectDictionaryIfc {
public:
    using SdoObject = velmor::kepla::canopen::SdoObject;
    using Bytes = std::vector<std::uint8_t>;
    using StreamOpener = std::function<std::unique_ptr<velmor::kepla::canopen::ObjectWriteStream>(
        std::optional<std::uint32_t> aSize)>;

    /// @param aTables  The rows; must outlive the dictionary, as constexpr tables do.
    /// @throws std::invalid_argument  when an object stands there twice.
    explicit ObjectDictionary(std::initializer_list<std::span<ObjectRow const>> aTables);

    std::uint32_t read(SdoObject aObject, std::vector<std::uint8_t>& aData) override;
    std::uint32_t write(SdoObject aObject, std::span<std::uint8_t const> aData) override;
    std::unique_ptr<velmor::kepla::canopen::ObjectWriteStream> openStream(
        SdoObject aObject, std::optional<std::uint32_t> aSize) override;

    /// Gives all objects from one index to another their power-on values.
    void powerOn(std::uint16_t aFirst = 0, std::uint16_t aLast = std::numeric_limits<std::uint16_t>::max());

    /// Hides objects from the bus, as a bootloader that does not know them.
    /// @param aVisible  Asked at each access whether the index is there; empty: all are.
    void restrictTo(std::function<bool(std::uint16_t aIndex)> aVisible) { mVisible = std::move(aVisible); }

    /// Replaces the table's power-on value of a number where it differs from board to board, and sets it.
    void setPowerOn(SdoObject aObject, std::int64_t aNumber);

    /// @return The stored number.
    std::int64_t number(SdoObject aObject) const;
    /// Stores a number, whatever the access.
    void setNumber(SdoObject aObject, std::int64_t aNumber);
    /// @return The stored text or domain.
    std::string text(SdoObject aObject) const;
    /// Stores a text or a domain, whatever the access.
    void setText(SdoObject aObject, std::string_view aText);

    /// Lets a number be read from the model instead of from the store.
    void onRead(SdoObject aObject, std::function<std::int64_t()> aGet);
    /// Lets a text or a domain be read from the model.
    void onReadText(SdoObject aObject, std::function<std::string()> aGet);
    /// Tells the model of a number that was written; it answers 0 or an abort code, with which nothing is
    /// stored.
    void onWrite(SdoObject aObject, std::function<std::uint32_t(std::int64_t)> aSet);
    /// As onWrite(), for texts and domains.
    void onWriteBytes(SdoObject aObject, std::function<std::uint32_t(std::span<std::uint8_t const>)> aSet);
    /// Lets a domain be taken piece by piece.
    void onStream(SdoObject aObject, StreamOpener aOpen);

    /// @return All objects, in rising order of index and subindex.
    std::vector<SdoObject> objects() const;
    /// @return The row of an object.
    ObjectRow const& row(SdoObject aObject) const;

private:
    struct Entry {
        ObjectRow const* row = nullptr;
        Bytes powerOn;
        Bytes value;
        std::function<Bytes()> get;
        std::function<std::uint32_t(std::span<std::uint8_t const>)> set;
        StreamOpener open;
    };

    static constexpr std::uint32_t key(SdoObject aObject) noexcept {
        return (std::uint32_t{aObject.index} << 8U) | aObject.subindex;
    }
    Entry& entry(SdoObject aObject);
    Entry const& entry(SdoObject aObject) const;
    /// @return The object where the bus finds it, else why it does not.
    Entry* find(SdoObject aObject, std::uint32_t& aWhyNot);

    std::map<std::uint32_t, Entry> mEntries;
    std::function<bool(std::uint16_t)> mVisible;
};

} // namespace libfieldwarden::sim
