// SPDX-License-Identifier: Apache-2.0
// Access to the objects, and what the hardware refuses.
#include "simulator/boards/ObjectDictionary.h"

#include <velmor/kepla/canopen/SdoAbort.h>

#include <stdexcept>
#include <utility>

#include <fmt/format.h>

namespace libfieldwarden::sim {

namespace sdoabort = velmor::kepla::canopen::sdoabort;

namespace {

/// @return The number of bytes of a number; 0 for texts and domains, whose length is their own.
constexpr std::size_t sizeOf(ObjectType aType) noexcept {
    switch (aType) {
        case ObjectType::U8:
            return 1;
        case ObjectType::U16:
            return 2;
        case ObjectType::U32:
        case ObjectType::I32:
            return 4;
        case ObjectType::Text:
        case ObjectType::Domain:
            break;
    }
    return 0;
}

ObjectDictionary::Bytes encode(ObjectType aType, std::int64_t aNumber) {
    ObjectDictionary::Bytes bytes(sizeOf(aType));
    auto const bits = static_cast<std::uint64_t>(aNumber);
    for (std::size_t byte = 0; byte < bytes.size(); ++byte) {
        bytes[byte] = static_cast<std::uint8_t>(bits >> (8 * byte));
    }
    return bytes;
}

std::int64_t decode(ObjectType aType, std::span<std::uint8_t const> aBytes) noexcept {
    std::uint32_t bits = 0;
    for (std::size_t byte = 0; byte < aBytes.size(); ++byte) {
        bits |= std::uint32_t{aBytes[byte]} << (8 * byte);
    }
    return aType == ObjectType::I32 ? std::int64_t{static_cast<std::int32_t>(bits)} : std::int64_t{bits};
}

ObjectDictionary::Bytes bytesOf(std::string_view aText) {
    return {aText.begin(), aText.end()};
}

bool within(std::optional<ObjectRange> const& aRange, std::int64_t aValue) noexcept {
    return !aRange || (aValue >= aRange->lowest && aValue <= aRange->highest);
}

/// @return 0 where the bytes fit the row, else the abort code.
std::uint32_t fits(ObjectRow const& aRow, std::span<std::uint8_t const> aData) noexcept {
    std::size_t const size = sizeOf(aRow.type);
    if (size == 0) {
        return within(aRow.range, static_cast<std::int64_t>(aData.size())) ? sdoabort::kNone
                                                                           : sdoabort::kLength;
    }
    if (aData.size() != size) {
        return sdoabort::kLength;
    }
    return within(aRow.range, decode(aRow.type, aData)) ? sdoabort::kNone : sdoabort::kInvalidValue;
}

} // namespace

ObjectDictionary::ObjectDictionary(std::initializer_list<std::span<ObjectRow const>> aTables) {
    for (std::span<ObjectRow const> const table : aTables) {
        for (ObjectRow const& row : table) {
            for (unsigned subindex = row.first; subindex <= row.last; ++subindex) {
                SdoObject const object{row.index, static_cast<std::uint8_t>(subindex)};
                Bytes const value =
                    sizeOf(row.type) == 0 ? bytesOf(row.powerOnText) : encode(row.type, row.powerOn);
                if (!mEntries.emplace(key(object), Entry{&row, value, value, {}, {}, {}}).second) {
                    throw std::invalid_argument(fmt::format(
                        "object 0x{:04X}:{:02X} stands twice in the tables", row.index, subindex));
                }
            }
        }
    }
}

ObjectDictionary::Entry const& ObjectDictionary::entry(SdoObject aObject) const {
    auto const found = mEntries.find(key(aObject));
    if (found == mEntries.end()) {
        throw std::out_of_range(
            fmt::format("there is no object 0x{:04X}:{:02X}", aObject.index, aObject.subindex));
    }
    return found->second;
}

ObjectDictionary::Entry& ObjectDictionary::entry(SdoObject aObject) {
    return const_cast<Entry&>(std::as_const(*this).entry(aObject));
}

ObjectDictionary::Entry* ObjectDictionary::find(SdoObject aObject, std::uint32_t& aWhyNot) {
    auto const first = mEntries.lower_bound(key({aObject.index, 0}));
    bool const hidden = mVisible && !mVisible(aObject.index);
    if (hidden || first == mEntries.end() || first->second.row->index != aObject.index) {
        aWhyNot = sdoabort::kNoSuchObject;
        return nullptr;
    }
    auto const found = mEntries.find(key(aObject));
    aWhyNot = found == mEntries.end() ? sdoabort::kNoSuchSubindex : sdoabort::kNone;
    return found == mEntries.end() ? nullptr : &found->second;
}

std::uint32_t ObjectDictionary::read(SdoObject aObject, std::vector<std::uint8_t>& aData) {
    std::uint32_t whyNot = sdoabort::kNone;
    Entry const* const found = find(aObject, whyNot);
    if (found == nullptr) {
        return whyNot;
    }
    if (found->row->access == ObjectAccess::WriteOnly) {
        return sdoabort::kWriteOnly;
    }
    if (found->get) {
        Bytes const bytes = found->get();
        aData.assign(bytes.begin(), bytes.end());
    } else {
        aData.assign(found->value.begin(), found->value.end());
    }
    return sdoabort::kNone;
}

std::uint32_t ObjectDictionary::write(SdoObject aObject, std::span<std::uint8_t const> aData) {
    std::uint32_t whyNot = sdoabort::kNone;
    Entry* const found = find(aObject, whyNot);
    if (found == nullptr) {
        return whyNot;
    }
    if (found->row->access == ObjectAccess::ReadOnly) {
        return sdoabort::kReadOnly;
    }
    if (std::uint32_t const code = fits(*found->row, aData); code != sdoabort::kNone) {
        return code;
    }
    if (found->set) {
        if (std::uint32_t const code = found->set(aData); code != sdoabort::kNone) {
            return code;
        }
    }
    found->value.assign(aData.begin(), aData.end());
    return sdoabort::kNone;
}

std::unique_ptr<velmor::kepla::canopen::ObjectWriteStream> ObjectDictionary::openStream(
    SdoObject aObject, std::optional<std::uint32_t> aSize) {
    std::uint32_t whyNot = sdoabort::kNone;
    Entry const* const found = find(aObject, whyNot);
    return found != nullptr && found->open ? found->open(aSize) : nullptr;
}

void ObjectDictionary::powerOn(std::uint16_t aFirst, std::uint16_t aLast) {
    for (auto& [place, each] : mEntries) {
        if (each.row->index >= aFirst && each.row->index <= aLast) {
            each.value = each.powerOn;
        }
    }
}

void ObjectDictionary::setPowerOn(SdoObject aObject, std::int64_t aNumber) {
    Entry& found = entry(aObject);
    found.powerOn = encode(found.row->type, aNumber);
    found.value = found.powerOn;
}

std::int64_t ObjectDictionary::number(SdoObject aObject) const {
    Entry const& found = entry(aObject);
    return decode(found.row->type, found.value);
}

void ObjectDictionary::setNumber(SdoObject aObject, std::int64_t aNumber) {
    Entry& found = entry(aObject);
    found.value = encode(found.row->type, aNumber);
}

std::string ObjectDictionary::text(SdoObject aObject) const {
    Bytes const& value = entry(aObject).value;
    return {value.begin(), value.end()};
}

void ObjectDictionary::setText(SdoObject aObject, std::string_view aText) {
    entry(aObject).value = bytesOf(aText);
}

void ObjectDictionary::onRead(SdoObject aObject, std::function<std::int64_t()> aGet) {
    Entry& found = entry(aObject);
    found.get = [type = found.row->type, get = std::move(aGet)] { return encode(type, get()); };
}

void ObjectDictionary::onReadText(SdoObject aObject, std::function<std::string()> aGet) {
    entry(aObject).get = [get = std::move(aGet)] { return bytesOf(get()); };
}

void ObjectDictionary::onWrite(SdoObject aObject, std::function<std::uint32_t(std::int64_t)> aSet) {
    Entry& found = entry(aObject);
    found.set = [type = found.row->type, set = std::move(aSet)](std::span<std::uint8_t const> aData) {
        return set(decode(type, aData));
    };
}

void ObjectDictionary::onWriteBytes(SdoObject aObject,
                                    std::function<std::uint32_t(std::span<std::uint8_t const>)> aSet) {
    entry(aObject).set = std::move(aSet);
}

void ObjectDictionary::onStream(SdoObject aObject, StreamOpener aOpen) {
    entry(aObject).open = std::move(aOpen);
}

std::vector<ObjectDictionary::SdoObject> ObjectDictionary::objects() const {
    std::vector<SdoObject> result;
    result.reserve(mEntries.size());
    for (auto const& [place, each] : mEntries) {
        result.push_back({each.row->index, static_cast<std::uint8_t>(place & 0xFFU)});
    }
    return result;
}

ObjectRow const& ObjectDictionary::row(SdoObject aObject) const {
    return *entry(aObject).row;
}

} // namespace libfieldwarden::sim
