#include "qvc/xml/Parser.h"

#include "qvc/Log.h"
#include "qvc/xml/Element.h"
#include "qvc/xml/EventReader.h"
#include "qvc/xml/LibXmlRuntime.h"
#include "qvc/xml/TreeBuilder.h"

#include <libxml/parser.h>
#include <libxml/xmlerror.h>

#include <limits>
#include <memory>
#include <string_view>

namespace qvc::xml {

namespace {

/// No XML_PARSE_HUGE: libxml2's limits on depth, names and text are what keeps a hostile document small.
/// COMPACT only spares an allocation for each short text; the tree is not changed.
constexpr int documentOptions = XML_PARSE_NOERROR | XML_PARSE_NOWARNING | XML_PARSE_NONET | XML_PARSE_COMPACT;

struct FreeDocument {
  void operator()(xmlDoc* document) const { xmlFreeDoc(document); }
};

constexpr const char* unitName = "qvcXml";
constexpr const char* emptyInput = "Cannot parse empty input";

/// `message`, with what libxml2 has to say about the failure in brackets.
FastString withLibXmlError(const char* message) {
  FastString result(message);
  if (const auto* const error = xmlGetLastError(); error != nullptr) {
    std::string_view reason = error->message != nullptr ? error->message : "";
    while (!reason.empty() && (reason.back() == '\n' || reason.back() == '\r'))
      reason.remove_suffix(1);
    result.append(" [");
    result.append(reason);
    result.append("]");
    xmlResetLastError();
  }
  return result;
}

enum class Reading {
  Events, ///< Without libxml2's tree where that can be; what fails is told from the tree.
  Tree,
};

_qvc_Result parseText(Element& out, const void* data, std::size_t size, const char* encoding, int options,
                      Reading reading, const char* failure) {
  ensureLibXmlRuntime();
  // An error of an earlier use of libxml2 on this thread must not be reported as this document's.
  xmlResetLastError();
  const QuietLibXml quiet;

  if (reading == Reading::Events && size <= static_cast<std::size_t>(std::numeric_limits<int>::max())) {
    Element root =
        EventReader().read(static_cast<const char*>(data), static_cast<int>(size), encoding, options);
    if (!root.isNull()) {
      out = std::move(root);
      return qvc_Success;
    }
    xmlResetLastError();
  }

  std::unique_ptr<xmlDoc, FreeDocument> document;
  if (size <= static_cast<std::size_t>(std::numeric_limits<int>::max()))
    document.reset(
        xmlReadMemory(static_cast<const char*>(data), static_cast<int>(size), nullptr, encoding, options));
  const xmlNode* const root = document ? xmlDocGetRootElement(document.get()) : nullptr;
  if (root == nullptr)
    return debug::Log::error(unitName, withLibXmlError(failure), qvc_InvalidFormat);

  Element converted = TreeBuilder().build(root);
  if (converted.isNull())
    return debug::Log::error(unitName, FastString(failure) + " [entities expand beyond the limit]",
                             qvc_InvalidFormat);
  out = std::move(converted);
  return qvc_Success;
}

} // namespace

_qvc_Result Parser::parse(Element& out, const void* data, std::size_t size, const char* encoding) {
  if (data == nullptr || size == 0)
    return debug::Log::error(unitName, emptyInput, qvc_InvalidFormat);
  return parseText(out, data, size, encoding, documentOptions, Reading::Events, "Cannot parse XML");
}

_qvc_Result Parser::parse(const FastString& text, Element& out) {
  return parse(out, text.data(), text.size(), "UTF-8");
}

_qvc_Result Parser::parseFragment(Element& out, const void* data, std::size_t size, const char* encoding) {
  if (data == nullptr || size == 0)
    return debug::Log::error(unitName, emptyInput, qvc_InvalidFormat);
  constexpr const char* failure = "Cannot parse fragment XML";
  if (size > static_cast<std::size_t>(std::numeric_limits<int>::max()))
    return debug::Log::error(unitName, failure, qvc_InvalidFormat);

  // The entity makes libxml2 read the caller's bytes where they stand.
  const FastString wrapper = FastString::format(
      "<!DOCTYPE Fragment [<!ENTITY xml SYSTEM \"mem://%p:%zu/\">]><Fragment>&xml;</Fragment>",
      const_cast<void*>(data), size);
  const ReadableMemory readable(data, size);
  return parseText(out, wrapper.data(), wrapper.size(), encoding, documentOptions | XML_PARSE_NOENT,
                   Reading::Tree, failure);
}

} // namespace qvc::xml
