#pragma once

namespace qvc {

class ByteArray;
class FastString;

/// Standard Base64 with "+" and "/". Stateless.
class Base64 {
public:
  Base64() = delete;

  /// Replaces `out` with the encoded text, padded with "=".
  static void byteArrayToBase64(const ByteArray& in, FastString& out);
  static FastString byteArrayToBase64(const ByteArray& in);

  /// Replaces `out` with the decoded bytes. Bytes that are not in the alphabet (padding and line breaks
  /// among them) are skipped, a lone character at the end is dropped; decoding never fails.
  static void base64ToByteArray(const FastString& in, ByteArray& out);
  static ByteArray base64ToByteArray(const FastString& in);
};

} // namespace qvc
