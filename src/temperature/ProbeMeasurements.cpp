// SPDX-License-Identifier: Apache-2.0
// Writes the probe's measurements with libxml2, step by step, each of them checked.
#include "temperature/ProbeMeasurements.h"

#include <memory>
#include <stdexcept>

#include <fmt/format.h>
#include <libxml/tree.h>
#include <libxml/xmlstring.h>
#include <libxml/xmlwriter.h>

namespace libfieldwarden::temperature {

namespace {

struct FreeBuffer {
    void operator()(xmlBuffer* aBuffer) const noexcept { xmlBufferFree(aBuffer); }
};
struct FreeWriter {
    void operator()(xmlTextWriter* aWriter) const noexcept { xmlFreeTextWriter(aWriter); }
};
using Buffer = std::unique_ptr<xmlBuffer, FreeBuffer>;
using Writer = std::unique_ptr<xmlTextWriter, FreeWriter>;

/// The writer gives the number of bytes that it wrote, or a negative number.
void check(int aWritten, char const* aWords) {
    if (aWritten < 0) {
        throw std::runtime_error(aWords);
    }
}

xmlChar const* asXml(char const* aText) noexcept {
    return reinterpret_cast<xmlChar const*>(aText); // UTF-8 by another name
}

void writeMeasurements(xmlTextWriter* aWriter, double aProbeTemperature) {
    auto const startElement = [aWriter](char const* aName, char const* aWords) {
        check(xmlTextWriterStartElement(aWriter, asXml(aName)), aWords);
    };
    auto const writeAttribute = [aWriter](char const* aName, char const* aValue, char const* aWords) {
        check(xmlTextWriterWriteAttribute(aWriter, asXml(aName), asXml(aValue)), aWords);
    };
    startElement("temperature",
                 "getProbeTemperatureMeasurements: xmlTextWriterStartElement(xml, temperature) failed");
    startElement("active", "getProbeTemperatureMeasurements: xmlTextWriterStartElement(xml, active) failed");
    startElement("sensor", "getProbeTemperatureMeasurements: xmlTextWriterStartElement(xml, sensor) failed");
    writeAttribute("channel", "CH1",
                   "getProbeTemperatureMeasurements: xmlTextWriterWriteAttribute(xml, channel, ch1) failed");
    writeAttribute("type", "CPR",
                   "getProbeTemperatureMeasurements: xmlTextWriterWriteAttribute(xml, type, cpr) failed");
    writeAttribute("name", "probe",
                   "getProbeTemperatureMeasurements: xmlTextWriterWriteAttribute(xml, name, probe) failed");
    // Not the writer's own printf, which would take the decimal separator of the host's locale.
    writeAttribute("temperature", fmt::format("{:f}", aProbeTemperature).c_str(),
                   "getProbeTemperatureMeasurements: xmlTextWriterWriteAttribute(xml, temperature) failed");
    for (int openElements = 3; openElements > 0; --openElements) {
        check(xmlTextWriterEndElement(aWriter),
              "getProbeTemperatureMeasurements: xmlTextWriterEndElement(xml) failed");
    }
    check(xmlTextWriterFlush(aWriter), "getProbeTemperatureMeasurements: xmlTextWriterFlush(xml) failed");
}

} // namespace

std::string probeMeasurementsAsXml(double aProbeTemperature) {
    Buffer const buffer(xmlBufferCreate());
    if (!buffer) {
        throw std::runtime_error("Failed to create XML buffer");
    }
    Writer const writer(xmlNewTextWriterMemory(buffer.get(), 0));
    if (!writer) {
        throw std::runtime_error("Failed to create XML text writer memory");
    }
    writeMeasurements(writer.get(), aProbeTemperature);
    return reinterpret_cast<char const*>(xmlBufferContent(buffer.get()));
}

} // namespace libfieldwarden::temperature
