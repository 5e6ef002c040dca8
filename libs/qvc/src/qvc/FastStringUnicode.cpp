// The texts of other widths: conversion to and from UTF-8, and formatting, whose wide forms need it.
#include "qvc/ByteArray.h"
#include "qvc/FastString.h"

#include <utf8.h>

#include <cerrno>
#include <clocale>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <locale.h>

namespace qvc {
namespace {

static_assert(sizeof(wchar_t) == 4, "wide characters are code points");

template <typename Char> size_t lengthOf(const Char* text) {
  return std::char_traits<Char>::length(text);
}

template <typename Char> std::string fromCodePoints(const Char* text, size_t size) {
  std::string result;
  if (text) {
    result.reserve(size);
    utf8::utf32to8(text, text + size, std::back_inserter(result));
  }
  return result;
}

template <typename Char> std::string fromUnits16(const Char* units, size_t size) {
  std::string result;
  if (units) {
    result.reserve(size);
    utf8::utf16to8(units, units + size, std::back_inserter(result));
  }
  return result;
}

/// Makes UTF-8 the calling thread's encoding, and "." its decimal point, for as long as it lives: printf
/// takes both from the locale, which belongs to the application.
class FormattingLocale {
public:
  FormattingLocale() : m_previous(utf8Locale() ? uselocale(utf8Locale()) : locale_t{}) {}
  FormattingLocale(const FormattingLocale&) = delete;
  FormattingLocale& operator=(const FormattingLocale&) = delete;
  ~FormattingLocale() {
    if (m_previous)
      uselocale(m_previous);
  }

private:
  static locale_t utf8Locale() {
    static const locale_t locale = newlocale(LC_ALL_MASK, "C.UTF-8", locale_t{});
    return locale;
  }

  locale_t m_previous;
};

__attribute__((format(printf, 1, 0))) std::string formatText(const char* fmt, va_list arguments) {
  constexpr size_t Largest = size_t{1} << 31; // printf counts in int.
  const FormattingLocale locale;
  std::string buffer;
  for (size_t size = 2 * std::strlen(fmt) + 1; size <= Largest;) {
    buffer.resize(size);
    va_list copy;
    va_copy(copy, arguments);
    errno = 0;
    const int length = std::vsnprintf(buffer.data(), size, fmt, copy);
    va_end(copy);
    if (length >= 0 && static_cast<size_t>(length) < size) {
      buffer.resize(static_cast<size_t>(length));
      return buffer;
    }
    // A refused argument stays refused in a larger buffer.
    if (length < 0 && errno != 0)
      break;
    size = length >= 0 ? static_cast<size_t>(length) + 1 : size * 2;
  }
  return {};
}

} // namespace

FastString::FastString(const ByteArray& bytes, bool utf16, bool) {
  if (utf16) {
    std::u16string units(bytes.size() / 2, u'\0');
    if (!units.empty())
      std::memcpy(units.data(), bytes.data(), units.size() * 2);
    m_text = fromUnits16(units.data(), units.size());
  } else {
    m_text.assign(bytes.view());
  }
  removeTrailingZeros();
}

FastString::FastString(const wchar_t* text) : m_text(fromCodePoints(text, text ? lengthOf(text) : 0)) {}

FastString::FastString(const wchar_t* data, size_t size) : m_text(fromCodePoints(data, size)) {}

FastString::FastString(const std::wstring& text) : m_text(fromCodePoints(text.data(), text.size())) {}

FastString::FastString(const char32_t* text) : m_text(fromCodePoints(text, text ? lengthOf(text) : 0)) {}

FastString::FastString(wchar_t character, size_t count) {
  const std::string one = fromCodePoints(&character, 1);
  m_text.reserve(one.size() * count);
  for (size_t i = 0; i < count; ++i)
    m_text += one;
}

FastString::FastString(const char16_t* data, size_t size) : m_text(fromUnits16(data, size)) {}

std::wstring FastString::toStdWString() const {
  std::wstring result;
  result.reserve(size());
  utf8::utf8to32(m_text.begin(), m_text.end(), std::back_inserter(result));
  return result;
}

FastString& FastString::append(const char32_t* text) {
  return append(FastString(text));
}

FastString& FastString::append(const wchar_t* text) {
  return append(FastString(text));
}

FastString FastString::format(const char* fmt, ...) {
  if (!fmt)
    return {};
  va_list arguments;
  va_start(arguments, fmt);
  FastString result(formatText(fmt, arguments));
  va_end(arguments);
  return result;
}

// On this system the conversions of wide printf mean what those of printf mean, so the format is all there is
// to convert.
FastString FastString::format(const wchar_t* fmt, ...) {
  const FastString narrow(fmt);
  va_list arguments;
  va_start(arguments, fmt);
  FastString result(formatText(narrow.c_str(), arguments));
  va_end(arguments);
  return result;
}

FastString FastString::format(const char32_t* fmt, ...) {
  const FastString narrow(fmt);
  va_list arguments;
  va_start(arguments, fmt);
  FastString result(formatText(narrow.c_str(), arguments));
  va_end(arguments);
  return result;
}

} // namespace qvc
