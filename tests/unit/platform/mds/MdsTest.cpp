// SPDX-License-Identifier: Apache-2.0
// Records: groups, values, and everything that may be wrong with the text.
#include <velmor/kepla/mds/Mds.h>

#include <stdexcept>
#include <string>

#include <gmock/gmock.h>
#include <sys/resource.h>

namespace {

using testing::HasSubstr;
using testing::SizeIs;
using testing::ThrowsMessage;
using velmor::kepla::mds::Mds;
using velmor::kepla::mds::MdsGroup;

constexpr char const* kRecord = R"(<?xml version="1.0"?>
<record>
  <group name="TemperatureRange"><value>1</value><value>x</value><value>273.15</value><value>373.15</value></group>
  <group name="FlowForTemperature"><value>1</value></group>
  <remark>passed over</remark>
  <group name="FlowForTemperature"><value> 2 </value><value/></group>
</record>)";

MdsGroup groupOf(std::string const& aValue) {
    return Mds::parse("<record><group name='g'><value>" + aValue + "</value></group></record>")
        .groups()
        .getByName("g")
        .at(0);
}

TEST(Mds, FindsTheGroupsOfANameInTheirOrder) {
    Mds const mds = Mds::parse(kRecord);
    auto const flows = mds.groups().getByName("FlowForTemperature");
    ASSERT_THAT(flows, SizeIs(2));
    EXPECT_EQ(flows[0].size(), 1U);
    EXPECT_EQ(flows[1].size(), 2U);
    EXPECT_EQ(flows[1].asString(0), "2");
    EXPECT_EQ(flows[1].asString(1), "");
    EXPECT_THAT(mds.groups().getByName("flowfortemperature"), SizeIs(0));
    EXPECT_THAT(mds.groups().all(), SizeIs(3));
}

TEST(Mds, ConvertsValues) {
    auto const range = Mds::parse(kRecord).groups().getByName("TemperatureRange").at(0);
    EXPECT_EQ(range.asInt(0), 1);
    EXPECT_DOUBLE_EQ(range.asDouble(2), 273.15);
    EXPECT_EQ(groupOf("-5").asInt(0), -5);
    EXPECT_EQ(groupOf("+5").asUnsignedInt(0), 5U);
    EXPECT_DOUBLE_EQ(groupOf("1e-3").asDouble(0), 0.001);
    EXPECT_EQ(groupOf("4294967295").asUnsignedInt(0), 4294967295U);
}

TEST(Mds, RefusesValuesThatAreNotOfTheirKind) {
    EXPECT_THAT(
        [] { (void)groupOf("1,5").asDouble(0); },
        ThrowsMessage<std::invalid_argument>("Value 0 of the record's group 'g' is not a number: '1,5'"));
    EXPECT_THROW((void)groupOf("").asDouble(0), std::invalid_argument);
    EXPECT_THROW((void)groupOf("nan").asDouble(0), std::invalid_argument);
    EXPECT_THROW((void)groupOf("1e999").asDouble(0), std::invalid_argument);
    EXPECT_THROW((void)groupOf("1.5").asInt(0), std::invalid_argument);
    EXPECT_THROW((void)groupOf("2147483648").asInt(0), std::invalid_argument);
    EXPECT_THROW((void)groupOf("-1").asUnsignedInt(0), std::invalid_argument);
    EXPECT_THROW((void)groupOf("0x10").asInt(0), std::invalid_argument);
}

TEST(Mds, RefusesAnIndexBeyondTheValues) {
    EXPECT_THAT([] { (void)groupOf("1").asInt(1); },
                ThrowsMessage<std::out_of_range>("The record's group 'g' has 1 values, there is no value 1"));
}

TEST(Mds, RefusesWhatIsNotARecordAndNamesTheLine) {
    EXPECT_THAT([] { Mds::parse(""); },
                ThrowsMessage<std::invalid_argument>(HasSubstr("Malformed record: ")));
    EXPECT_THAT([] { Mds::parse("<record>\n<group name='a'>\n</record>"); },
                ThrowsMessage<std::invalid_argument>(HasSubstr("Malformed record: line 3: ")));
    EXPECT_THAT(
        [] { Mds::parse("<other/>"); },
        ThrowsMessage<std::invalid_argument>("Malformed record: the outermost element is not 'record'"));
    EXPECT_THAT([] { Mds::parse("<record>\n<group/></record>"); },
                ThrowsMessage<std::invalid_argument>("Malformed record: a group has no name at line 2"));
    EXPECT_THROW(Mds::parse(std::string("\0\1\2\xff", 4)), std::invalid_argument);
}

TEST(Mds, TakesARecordWithoutGroups) {
    EXPECT_THAT(Mds::parse("<record/>").groups().all(), SizeIs(0));
}

TEST(Mds, RefusesARecordThatIsTooLong) {
    EXPECT_THAT(
        [] { Mds::parse(std::string(1048577, ' ')); },
        ThrowsMessage<std::invalid_argument>("Malformed record: it has 1048577 bytes, more than 1 MiB"));
}

TEST(Mds, RefusesADocumentTypeDeclarationAndNamesTheLine) {
    EXPECT_THAT(
        [] { Mds::parse("<?xml version='1.0'?>\n<!DOCTYPE record>\n<record/>"); },
        ThrowsMessage<std::invalid_argument>("Malformed record: line 2: it has a document type declaration"));
}

TEST(Mds, RefusesEntitiesInValuesAndAttributes) {
    auto const refused = [](std::string const& aGroup) {
        EXPECT_THAT(
            [&] {
                Mds::parse(
                    "<!DOCTYPE record [<!ENTITY a \"aaaa\"><!ENTITY b \"&a;&a;&a;&a;\">"
                    "<!ENTITY f SYSTEM \"file:///etc/passwd\">]><record>" +
                    aGroup + "</record>");
            },
            ThrowsMessage<std::invalid_argument>(
                "Malformed record: line 1: it has a document type declaration"))
            << aGroup;
    };
    refused("<group name='g'><value>&a;</value></group>");
    refused("<group name='g'><value>&b;</value></group>");
    refused("<group name='g'><value>&f;</value></group>");
    refused("<group name='&a;'/>");
    EXPECT_THAT([] { (void)groupOf("&a;"); }, // and without a declaration there are none
                ThrowsMessage<std::invalid_argument>(HasSubstr("Entity 'a' not defined")));
}

TEST(Mds, TakesTheCharactersThatXmlItselfEscapes) {
    EXPECT_EQ(groupOf("&lt;&amp;&#65;&gt;").asString(0), "<&A>");
}

/// The most memory that this process ever had, in bytes.
long peakMemory() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss * 1024;
}

std::string repeated(std::string const& aText, std::size_t aTimes) {
    std::string all;
    for (std::size_t i = 0; i < aTimes; ++i) {
        all += aText;
    }
    return all;
}

TEST(Mds, RefusesASmallTextThatWouldGrowWithoutBounds) {
    struct {
        char const* what;
        std::string declaration;
        std::string content;
    } const texts[] = {
        // 80 kB for 10,000 references to 50,000 bytes: 500 MB
        {"a long entity, named often", "<!ENTITY a '" + repeated("a", 50'000) + "'>",
         "<group name='g'><value>" + repeated("&a;", 10'000) + "</value></group>"},
        // 98 kB for 6,000 groups with an attribute of 50,000 bytes: 300 MB
        {"a long default, taken often", "<!ATTLIST group a CDATA '" + repeated("a", 50'000) + "'>",
         repeated("<group/>", 6'000)},
    };
    for (auto const& [what, declaration, content] : texts) {
        SCOPED_TRACE(what);
        auto const before = peakMemory();
        EXPECT_THAT(
            [&] { Mds::parse("<!DOCTYPE record [" + declaration + "]><record>" + content + "</record>"); },
            ThrowsMessage<std::invalid_argument>(
                "Malformed record: line 1: it has a document type declaration"));
        EXPECT_LT(peakMemory() - before, 10'000'000) << "bytes";
    }
}

} // namespace
