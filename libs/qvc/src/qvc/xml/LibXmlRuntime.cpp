#include "qvc/xml/LibXmlRuntime.h"

#include <libxml/parser.h>
#include <libxml/parserInternals.h>
#include <libxml/xmlIO.h>
#include <libxml/xmlerror.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string_view>

namespace qvc::xml {

namespace {

constexpr std::string_view memoryScheme = "mem://";

xmlExternalEntityLoader previousLoader = nullptr;

thread_local const void* readableData = nullptr;
thread_local std::size_t readableSize = 0;

xmlParserInputPtr loadFromMemory(const char* location, xmlParserCtxtPtr context) {
  char* next = nullptr;
  const auto address = static_cast<std::uintptr_t>(std::strtoull(location, &next, 0));
  if (next == location || *next != ':')
    return nullptr;
  const char* const sizeText = next + 1;
  const auto size = static_cast<std::size_t>(std::strtoull(sizeText, &next, 0));
  if (next == sizeText || *next != '/')
    return nullptr;
  if (address == 0 || address != reinterpret_cast<std::uintptr_t>(readableData) || size != readableSize)
    return nullptr;

  xmlParserInputBufferPtr const buffer = xmlParserInputBufferCreateMem(
      static_cast<const char*>(readableData), static_cast<int>(size), XML_CHAR_ENCODING_NONE);
  if (buffer == nullptr)
    return nullptr;
  xmlParserInputPtr const stream = xmlNewIOInputStream(context, buffer, XML_CHAR_ENCODING_NONE);
  if (stream == nullptr)
    xmlFreeParserInputBuffer(buffer);
  return stream;
}

xmlParserInputPtr loadEntity(const char* url, const char* id, xmlParserCtxtPtr context) {
  if (url != nullptr && std::strncmp(url, memoryScheme.data(), memoryScheme.size()) == 0)
    return loadFromMemory(url + memoryScheme.size(), context);
  return previousLoader != nullptr ? previousLoader(url, id, context) : nullptr;
}

void printNothing(void*, const char*, ...) {}

class Runtime {
public:
  Runtime() {
    previousLoader = xmlGetExternalEntityLoader();
    xmlInitParser();
    xmlSetExternalEntityLoader(loadEntity);
  }
  ~Runtime() { xmlCleanupParser(); }

  Runtime(const Runtime&) = delete;
  Runtime& operator=(const Runtime&) = delete;
};

[[maybe_unused]] const bool initializedAtLoad = (ensureLibXmlRuntime(), true);

} // namespace

void ensureLibXmlRuntime() {
  static const Runtime runtime;
}

ReadableMemory::ReadableMemory(const void* data, std::size_t size) noexcept {
  readableData = data;
  readableSize = size;
}

ReadableMemory::~ReadableMemory() {
  readableData = nullptr;
  readableSize = 0;
}

QuietLibXml::QuietLibXml() noexcept : _function(xmlGenericError), _context(xmlGenericErrorContext) {
  xmlSetGenericErrorFunc(nullptr, printNothing);
}

QuietLibXml::~QuietLibXml() {
  xmlSetGenericErrorFunc(_context, _function);
}

} // namespace qvc::xml
