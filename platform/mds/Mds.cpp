// SPDX-License-Identifier: Apache-2.0
// From the XML text of a record to its groups, by libxml2.
#include <velmor/kepla/mds/Mds.h>

#include <charconv>
#include <cmath>
#include <iterator>
#include <memory>
#include <stdexcept>
#include <type_traits>
#include <utility>

#include <libxml/SAX2.h>
#include <libxml/parser.h>
#include <libxml/tree.h>

namespace velmor::kepla::mds {

namespace {

constexpr std::size_t kLongestRecord = std::size_t{1} << 20U;

struct ContextDeleter {
    void operator()(xmlParserCtxt* aContext) const noexcept { xmlFreeParserCtxt(aContext); }
};
struct DocumentDeleter {
    void operator()(xmlDoc* aDocument) const noexcept { xmlFreeDoc(aDocument); }
};
struct TextDeleter {
    void operator()(xmlChar* aText) const noexcept { xmlFree(aText); }
};
using Context = std::unique_ptr<xmlParserCtxt, ContextDeleter>;
using Document = std::unique_ptr<xmlDoc, DocumentDeleter>;
using Text = std::unique_ptr<xmlChar, TextDeleter>;

char const* characters(xmlChar const* aText) {
    return static_cast<char const*>(static_cast<void const*>(aText));
}

std::string trimmed(xmlChar const* aText) {
    std::string_view const text(aText == nullptr ? "" : characters(aText));
    auto const first = text.find_first_not_of(" \t\r\n");
    if (first == std::string_view::npos) {
        return {};
    }
    return std::string(text.substr(first, text.find_last_not_of(" \t\r\n") - first + 1));
}

bool isElement(xmlNode const* aNode, std::string_view aName) {
    return aNode->type == XML_ELEMENT_NODE && aName == characters(aNode->name);
}

[[noreturn]] void refuse(std::string const& aReason) {
    throw std::invalid_argument("Malformed record: " + aReason);
}

std::string atLine(xmlNode const* aNode) {
    return " at line " + std::to_string(xmlGetLineNo(aNode));
}

/// Ends the parser at a document type declaration, before anything in it is read: entities and default
/// attributes make a small text grow without bounds.
void stopAtDeclaration(void* aContext,
                       xmlChar const* /*aName*/,
                       xmlChar const* /*aPublicId*/,
                       xmlChar const* /*aSystemId*/) {
    auto* const context = static_cast<xmlParserCtxt*>(aContext);
    *static_cast<int*>(context->_private) = xmlSAX2GetLineNumber(context);
    xmlStopParser(context);
}

Document parseDocument(std::string const& aText) {
    Context const context(xmlNewParserCtxt());
    if (context == nullptr) {
        throw std::bad_alloc();
    }
    int declarationLine = 0;
    context->_private = &declarationLine;
    context->sax->internalSubset = &stopAtDeclaration;
    // Nothing is fetched or made to grow: a record comes from a board, which may be damaged.
    Document document(xmlCtxtReadMemory(context.get(), aText.data(), static_cast<int>(aText.size()), nullptr,
                                        nullptr, XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING));
    if (declarationLine != 0) {
        refuse("line " + std::to_string(declarationLine) + ": it has a document type declaration");
    }
    if (document == nullptr || context->wellFormed == 0) {
        xmlError const* const error = xmlCtxtGetLastError(context.get());
        if (error == nullptr || error->message == nullptr) {
            refuse("it is not well-formed XML");
        }
        refuse("line " + std::to_string(error->line) + ": " +
               trimmed(static_cast<xmlChar const*>(static_cast<void const*>(error->message))));
    }
    return document;
}

MdsGroup readGroup(xmlNode* aGroup) {
    Text const name(xmlGetProp(aGroup, reinterpret_cast<xmlChar const*>("name")));
    if (trimmed(name.get()).empty()) {
        refuse("a group has no name" + atLine(aGroup));
    }
    std::vector<std::string> values;
    for (xmlNode* node = aGroup->children; node != nullptr; node = node->next) {
        if (isElement(node, "value")) {
            Text const value(xmlNodeGetContent(node));
            values.push_back(trimmed(value.get()));
        }
    }
    return {trimmed(name.get()), std::move(values)};
}

} // namespace

MdsGroup::MdsGroup(std::string aName, std::vector<std::string> aValues)
    : mName(std::move(aName))
    , mValues(std::move(aValues)) {}

std::string const& MdsGroup::asString(unsigned int aIndex) const {
    if (aIndex >= mValues.size()) {
        throw std::out_of_range("The record's group '" + mName + "' has " + std::to_string(mValues.size()) +
                                " values, there is no value " + std::to_string(aIndex));
    }
    return mValues[aIndex];
}

template <typename Number>
Number MdsGroup::convert(unsigned int aIndex, char const* aKind) const {
    std::string const& text = asString(aIndex);
    char const* const begin = text.data() + (text.starts_with('+') ? 1 : 0);
    char const* const end = text.data() + text.size();
    Number number{};
    auto const [stop, error] = std::from_chars(begin, end, number);
    bool finite = true;
    if constexpr (std::is_floating_point_v<Number>) {
        finite = std::isfinite(number);
    }
    if (error != std::errc{} || stop != end || !finite) {
        throw std::invalid_argument("Value " + std::to_string(aIndex) + " of the record's group '" + mName +
                                    "' is not " + aKind + ": '" + text + "'");
    }
    return number;
}

double MdsGroup::asDouble(unsigned int aIndex) const {
    return convert<double>(aIndex, "a number");
}

int MdsGroup::asInt(unsigned int aIndex) const {
    return convert<int>(aIndex, "a whole number");
}

unsigned int MdsGroup::asUnsignedInt(unsigned int aIndex) const {
    return convert<unsigned int>(aIndex, "a whole number from 0 on");
}

MdsGroups::MdsGroups(std::vector<MdsGroup> aGroups)
    : mGroups(std::move(aGroups)) {}

std::vector<MdsGroup> MdsGroups::getByName(std::string const& aName) const {
    std::vector<MdsGroup> found;
    for (MdsGroup const& group : mGroups) {
        if (group.name() == aName) {
            found.push_back(group);
        }
    }
    return found;
}

Mds::Mds(MdsGroups aGroups)
    : mGroups(std::move(aGroups)) {}

Mds Mds::parse(std::string const& aText) {
    if (aText.size() > kLongestRecord) {
        refuse("it has " + std::to_string(aText.size()) + " bytes, more than 1 MiB");
    }
    Document const document = parseDocument(aText);
    xmlNode const* const root = xmlDocGetRootElement(document.get());
    if (root == nullptr || !isElement(root, "record")) {
        refuse("the outermost element is not 'record'");
    }
    std::vector<MdsGroup> groups;
    for (xmlNode* node = root->children; node != nullptr; node = node->next) {
        if (isElement(node, "group")) {
            groups.push_back(readGroup(node));
        }
    }
    return Mds(MdsGroups(std::move(groups)));
}

} // namespace velmor::kepla::mds
