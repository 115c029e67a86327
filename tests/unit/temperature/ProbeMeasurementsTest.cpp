// SPDX-License-Identifier: Apache-2.0
// The XML of the probe's measurements, and what becomes of it when a step fails.
#include "temperature/ProbeMeasurements.h"

#include <clocale>
#include <cstddef>
#include <limits>
#include <stdexcept>
#include <string>
#include <vector>

#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <libxml/tree.h>
#include <libxml/xmlwriter.h>

namespace {

using libfieldwarden::temperature::probeMeasurementsAsXml;
using ::testing::ElementsAre;

/// The call to libxml2 that fails, counted from 0 over the functions below; the others go through.
int sFailingCall = -1;
int sCalls = 0;

bool isFailing() {
    return sCalls++ == sFailingCall;
}

template <typename Function>
Function* real(char const* aName) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, aName));
}

} // namespace

// These stand before libxml2's own, which they call unless it is their turn to fail.

extern "C" xmlBufferPtr xmlBufferCreate() {
    return isFailing() ? nullptr : real<decltype(xmlBufferCreate)>("xmlBufferCreate")();
}

extern "C" xmlTextWriterPtr xmlNewTextWriterMemory(xmlBufferPtr aBuffer, int aCompression) {
    return isFailing()
               ? nullptr
               : real<decltype(xmlNewTextWriterMemory)>("xmlNewTextWriterMemory")(aBuffer, aCompression);
}

extern "C" int xmlTextWriterStartElement(xmlTextWriterPtr aWriter, xmlChar const* aName) {
    return isFailing()
               ? -1
               : real<decltype(xmlTextWriterStartElement)>("xmlTextWriterStartElement")(aWriter, aName);
}

extern "C" int xmlTextWriterWriteAttribute(xmlTextWriterPtr aWriter,
                                           xmlChar const* aName,
                                           xmlChar const* aContent) {
    return isFailing() ? -1
                       : real<decltype(xmlTextWriterWriteAttribute)>("xmlTextWriterWriteAttribute")(
                             aWriter, aName, aContent);
}

extern "C" int xmlTextWriterEndElement(xmlTextWriterPtr aWriter) {
    return isFailing() ? -1 : real<decltype(xmlTextWriterEndElement)>("xmlTextWriterEndElement")(aWriter);
}

extern "C" int xmlTextWriterFlush(xmlTextWriterPtr aWriter) {
    return isFailing() ? -1 : real<decltype(xmlTextWriterFlush)>("xmlTextWriterFlush")(aWriter);
}

namespace {

constexpr char const* kWhole =
    "<temperature><active><sensor channel=\"CH1\" type=\"CPR\" name=\"probe\" "
    "temperature=\"298.150000\"/></active></temperature>";

TEST(ProbeMeasurements, AreOneSensorWithoutDeclarationOrIndentation) {
    EXPECT_EQ(probeMeasurementsAsXml(298.15), kWhole);
}

TEST(ProbeMeasurements, ShowSixDecimalsWhateverTheHostsLocale) {
    locale_t const comma = newlocale(LC_NUMERIC_MASK, "de_DE.UTF-8", nullptr); // where it is installed
    locale_t const before = comma != nullptr ? uselocale(comma) : nullptr;
    EXPECT_NE(probeMeasurementsAsXml(310.0000004).find("temperature=\"310.000000\""), std::string::npos);
    if (comma != nullptr) {
        uselocale(before);
        freelocale(comma);
    }
}

TEST(ProbeMeasurements, StandWhateverTheTemperatureIs) {
    EXPECT_NE(probeMeasurementsAsXml(std::numeric_limits<double>::quiet_NaN()).find("temperature=\"nan\""),
              std::string::npos);
    EXPECT_NE(probeMeasurementsAsXml(-1e300).find("temperature=\"-1000000000000000"), std::string::npos);
}

TEST(ProbeMeasurements, AreRefusedWithTheStepThatFails) {
    std::vector<std::string> words;
    for (int call = 0; call < 100; ++call) {
        sFailingCall = call;
        sCalls = 0;
        try {
            EXPECT_EQ(probeMeasurementsAsXml(298.15), kWhole);
            break; // no call is left that could fail
        } catch (std::runtime_error const& error) {
            words.emplace_back(error.what());
        }
    }
    sFailingCall = -1;
    std::string const method = "getProbeTemperatureMeasurements: ";
    EXPECT_THAT(words, ElementsAre("Failed to create XML buffer", "Failed to create XML text writer memory",
                                   method + "xmlTextWriterStartElement(xml, temperature) failed",
                                   method + "xmlTextWriterStartElement(xml, active) failed",
                                   method + "xmlTextWriterStartElement(xml, sensor) failed",
                                   method + "xmlTextWriterWriteAttribute(xml, channel, ch1) failed",
                                   method + "xmlTextWriterWriteAttribute(xml, type, cpr) failed",
                                   method + "xmlTextWriterWriteAttribute(xml, name, probe) failed",
                                   method + "xmlTextWriterWriteAttribute(xml, temperature) failed",
                                   method + "xmlTextWriterEndElement(xml) failed",
                                   method + "xmlTextWriterEndElement(xml) failed",
                                   method + "xmlTextWriterEndElement(xml) failed",
                                   method + "xmlTextWriterFlush(xml) failed"));
}

} // namespace
