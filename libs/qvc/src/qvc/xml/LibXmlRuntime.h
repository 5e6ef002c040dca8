#pragma once

#include <cstddef>

namespace qvc::xml {

/// Sets libxml2 up once per process, with an entity loader that serves "mem://" URLs; only for this folder's
/// sources. Happens when the library is loaded; call it all the same before using libxml2, since another
/// library's own initialisation may parse earlier.
void ensureLibXmlRuntime();

/// While it lives, the block may be read on this thread as "mem://0x<address>:<size>/". Without that
/// announcement a document could name any memory of the process. Does not nest.
class ReadableMemory {
public:
  ReadableMemory(const void* data, std::size_t size) noexcept;
  ~ReadableMemory();

  ReadableMemory(const ReadableMemory&) = delete;
  ReadableMemory& operator=(const ReadableMemory&) = delete;
};

/// While it lives, libxml2 prints nothing on this thread. The parser's own options silence most of its
/// messages, but not those of its character conversion. Nests.
class QuietLibXml {
public:
  QuietLibXml() noexcept;
  ~QuietLibXml();

  QuietLibXml(const QuietLibXml&) = delete;
  QuietLibXml& operator=(const QuietLibXml&) = delete;

private:
  void (*_function)(void*, const char*, ...);
  void* _context;
};

} // namespace qvc::xml
