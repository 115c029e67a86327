// SPDX-License-Identifier: Apache-2.0
// Any text as a record: it is parsed or refused, and what is parsed can be read.
#include <velmor/kepla/mds/Mds.h>

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>

using velmor::kepla::mds::Mds;
using velmor::kepla::mds::MdsGroup;

namespace {

/// Reads a value in every way; a value that is not of the kind is refused, nothing else may happen.
void readValue(MdsGroup const& aGroup, unsigned int aIndex) {
    using Read = void (*)(MdsGroup const&, unsigned int);
    for (Read const read : {Read([](MdsGroup const&g, unsigned int i) { (void)g.asDouble(i); }),
                            Read([](MdsGroup const&g, unsigned int i) { (void)g.asInt(i); }),
                            Read([](MdsGroup const&g, unsigned int i) { (void)g.asUnsignedInt(i); })}) {
        try {
            read(aGroup, aIndex);
        } catch (std::logic_error const&) {
        }
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* aData, std::size_t aSize) {
    try {
        Mds const mds = Mds::parse(std::string(reinterpret_cast<char const*>(aData), aSize));
        for (MdsGroup const& group : mds.groups().all()) {
            for (unsigned int i = 0; i <= group.size(); ++i) {
                readValue(group, i);
            }
        }
    } catch (std::invalid_argument const&) {
    }
    return 0;
}
