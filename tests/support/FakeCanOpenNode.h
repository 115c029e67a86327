// SPDX-License-Identifier: Apache-2.0
// A board's object dictionary by script: it answers what the test put there, and remembers every access in
// order.
#pragma once

#include <velmor/kepla/canopen/CanOpenNodeClientIfc.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <limits>
#include <map>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

#include <fmt/format.h>
#include <gtest/gtest.h>

namespace libfieldwarden::test {

/// Strict: an access to an object that the test did not script, or by an operation that is too narrow for its
/// value, fails the test. Each access is remembered as "readInt32 3000:01", "writeUInt8 3004:01 1" or
/// "writeBlock 3001:01 E8030000". Any thread.
class FakeCanOpenNode : public velmor::kepla::canopen::CanOpenNodeClientIfc {
public:
    using Bytes = std::vector<std::uint8_t>;

    explicit FakeCanOpenNode(unsigned char aNodeId)
        : mNodeId(aNodeId) {}

    /// Puts a number or a text into the dictionary.
    void set(std::uint16_t aIndex, std::uint8_t aSubindex, std::int64_t aNumber) {
        std::lock_guard const lock(mMutex);
        mObjects[{aIndex, aSubindex}] = aNumber;
    }
    void set(std::uint16_t aIndex, std::uint8_t aSubindex, std::string const& aText) {
        std::lock_guard const lock(mMutex);
        mObjects[{aIndex, aSubindex}] = aText;
    }

    /// The number that an object holds.
    std::int64_t number(std::uint16_t aIndex, std::uint8_t aSubindex) {
        std::lock_guard const lock(mMutex);
        return std::get<std::int64_t>(mObjects.at({aIndex, aSubindex}));
    }

    /// What happens at an access to an object before it is answered; may throw. Runs on the caller's thread
    /// with nothing locked. Replaces a former one; an empty one ends it.
    void onAccess(std::uint16_t aIndex, std::uint8_t aSubindex, std::function<void()> aWhat) {
        std::lock_guard const lock(mMutex);
        mOnAccess[{aIndex, aSubindex}] = std::make_shared<std::function<void()>>(std::move(aWhat));
    }

    /// Makes every access to an object fail, or only the next so many.
    void fail(std::uint16_t aIndex,
              std::uint8_t aSubindex,
              std::string const& aWords,
              unsigned aTimes = std::numeric_limits<unsigned>::max()) {
        onAccess(aIndex, aSubindex, [aWords, left = aTimes]() mutable {
            if (left > 0) {
                --left;
                throw std::runtime_error(aWords);
            }
        });
    }

    /// What becomes of the bytes that are written to an object; without one only the access is remembered.
    void onWrite(std::uint16_t aIndex, std::uint8_t aSubindex, std::function<void(Bytes const&)> aWhat) {
        std::lock_guard const lock(mMutex);
        mOnWrite[{aIndex, aSubindex}] = std::move(aWhat);
    }

    /// The accesses since the last question, in order.
    std::vector<std::string> takeCalls() {
        std::lock_guard const lock(mMutex);
        return std::exchange(mCalls, {});
    }

    unsigned char nodeId() const override { return mNodeId; }
    std::uint32_t readUInt32(std::uint16_t aIndex, std::uint8_t aSubindex) override {
        return readNumber<std::uint32_t>("readUInt32", aIndex, aSubindex);
    }
    std::uint16_t readUInt16(std::uint16_t aIndex, std::uint8_t aSubindex) override {
        return readNumber<std::uint16_t>("readUInt16", aIndex, aSubindex);
    }
    std::uint8_t readUInt8(std::uint16_t aIndex, std::uint8_t aSubindex) override {
        return readNumber<std::uint8_t>("readUInt8", aIndex, aSubindex);
    }
    std::int32_t readInt32(std::uint16_t aIndex, std::uint8_t aSubindex) override {
        return readNumber<std::int32_t>("readInt32", aIndex, aSubindex);
    }
    std::string readString(std::uint16_t aIndex, std::uint8_t aSubindex) override {
        return read<std::string>("readString", aIndex, aSubindex);
    }
    void writeBlock(std::uint16_t aIndex,
                    std::uint8_t aSubindex,
                    void const* aData,
                    std::size_t aSize) override {
        auto const* const first = static_cast<std::uint8_t const*>(aData);
        Bytes const bytes(first, first + aSize);
        write("writeBlock", aIndex, aSubindex, hex(bytes), bytes);
    }
    void writeUInt32(std::uint16_t aIndex, std::uint8_t aSubindex, std::uint32_t aValue) override {
        writeNumber("writeUInt32", aIndex, aSubindex, aValue);
    }
    void writeUInt16(std::uint16_t aIndex, std::uint8_t aSubindex, std::uint16_t aValue) override {
        writeNumber("writeUInt16", aIndex, aSubindex, aValue);
    }
    void writeUInt8(std::uint16_t aIndex, std::uint8_t aSubindex, std::uint8_t aValue) override {
        writeNumber("writeUInt8", aIndex, aSubindex, aValue);
    }
    void writeInt32(std::uint16_t aIndex, std::uint8_t aSubindex, std::int32_t aValue) override {
        writeNumber("writeInt32", aIndex, aSubindex, aValue);
    }

private:
    using Address = std::pair<std::uint16_t, std::uint8_t>;
    using Object = std::variant<std::int64_t, std::string>;

    static std::string hex(Bytes const& aBytes) {
        std::string text;
        for (std::uint8_t const byte : aBytes) {
            text += fmt::format("{:02X}", byte);
        }
        return text;
    }

    /// Remembers the access and lets happen what the test wants to happen.
    void enter(std::string const& aCall, Address aAddress) {
        std::shared_ptr<std::function<void()>> happening;
        {
            std::lock_guard const lock(mMutex);
            mCalls.push_back(aCall);
            if (auto const found = mOnAccess.find(aAddress); found != mOnAccess.end()) {
                happening = found->second;
            }
        }
        if (happening && *happening) {
            (*happening)();
        }
    }

    template <typename Value>
    Value read(char const* aOperation, std::uint16_t aIndex, std::uint8_t aSubindex) {
        std::string const call = fmt::format("{} {:04X}:{:02X}", aOperation, aIndex, aSubindex);
        enter(call, {aIndex, aSubindex});
        std::lock_guard const lock(mMutex);
        auto const found = mObjects.find({aIndex, aSubindex});
        auto const* const value =
            found == mObjects.end()
                ? nullptr
                : std::get_if<std::conditional_t<std::is_integral_v<Value>, std::int64_t, Value>>(
                      &found->second);
        if (value == nullptr) {
            ADD_FAILURE() << "no such object: " << call;
            throw std::runtime_error("no such object: " + call);
        }
        return static_cast<Value>(*value);
    }

    template <typename Value>
    Value readNumber(char const* aOperation, std::uint16_t aIndex, std::uint8_t aSubindex) {
        auto const value = read<std::int64_t>(aOperation, aIndex, aSubindex);
        EXPECT_TRUE(std::in_range<Value>(value)) << aOperation << " is too narrow for " << value;
        return static_cast<Value>(value);
    }

    void write(char const* aOperation,
               std::uint16_t aIndex,
               std::uint8_t aSubindex,
               std::string const& aText,
               Bytes const& aBytes) {
        enter(fmt::format("{} {:04X}:{:02X} {}", aOperation, aIndex, aSubindex, aText), {aIndex, aSubindex});
        std::function<void(Bytes const&)> consequence;
        {
            std::lock_guard const lock(mMutex);
            if (auto const found = mOnWrite.find({aIndex, aSubindex}); found != mOnWrite.end()) {
                consequence = found->second;
            }
        }
        if (consequence) {
            consequence(aBytes);
        }
    }

    template <typename Value>
    void writeNumber(char const* aOperation, std::uint16_t aIndex, std::uint8_t aSubindex, Value aValue) {
        Bytes bytes;
        for (std::size_t byte = 0; byte < sizeof(Value); ++byte) {
            bytes.push_back(static_cast<std::uint8_t>(static_cast<std::uint64_t>(aValue) >> (8 * byte)));
        }
        write(aOperation, aIndex, aSubindex, std::to_string(aValue), bytes);
    }

    unsigned char const mNodeId;
    std::mutex mMutex; ///< Guards all below.
    std::map<Address, Object> mObjects;
    std::map<Address, std::shared_ptr<std::function<void()>>> mOnAccess;
    std::map<Address, std::function<void(Bytes const&)>> mOnWrite;
    std::vector<std::string> mCalls;
};

} // namespace libfieldwarden::test
