#include "pysource/host/strutils.h"

#include <array>
#include <charconv>

#include "pysource/host/errors.h"

namespace pysource {
namespace {

constexpr std::array<bool, 256> MakeUrlSafe() {
  std::array<bool, 256> safe{};
  for (unsigned c = 0; c < 256; ++c) {
    safe[c] = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
              c == '-' || c == '.' || c == '_' || c == '~' || c == '/' || c == ':';
  }
  return safe;
}

constexpr std::array<bool, 256> kUrlSafe = MakeUrlSafe();

[[noreturn]] void FailIndex(const std::string& index, BytesView s) {
  throw CValueError("index " + index + " is outside a text of " + std::to_string(s.size()) +
                    " bytes");
}

}  // namespace

uint8_t OrdAt(BytesView s, int64_t i) {
  const auto size = static_cast<int64_t>(s.size());
  const int64_t at = i < 0 ? i + size : i;
  if (at < 0 || at >= size) {
    FailIndex(std::to_string(i), s);
  }
  return static_cast<uint8_t>(s[static_cast<size_t>(at)]);
}

char GetOneByte(BytesView s, size_t i) {
  if (i >= s.size()) {
    FailIndex(std::to_string(i), s);
  }
  return s[i];
}

Bytes EncodeUrl(BytesView url) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  Bytes result;
  result.reserve(url.size());
  for (const char c : url) {
    const auto byte = static_cast<unsigned char>(c);
    if (kUrlSafe[byte]) {
      result += c;
    } else {
      result += '%';
      result += kHex[byte >> 4];
      result += kHex[byte & 15];
    }
  }
  return result;
}

Bytes DecodeUrl(BytesView encoded) {
  Bytes url;
  url.reserve(encoded.size());
  for (size_t i = 0; i < encoded.size(); ++i) {
    unsigned value = 0;
    const char* const digits = encoded.data() + i + 1;
    if (encoded[i] == '%' && i + 2 < encoded.size() &&
        std::from_chars(digits, digits + 2, value, 16).ptr == digits + 2) {
      url += static_cast<char>(value);
      i += 2;
    } else {
      url += encoded[i];
    }
  }
  return url;
}

bool IsUtf8Beyond127(BytesView s) noexcept {
  const auto* at = reinterpret_cast<const unsigned char*>(s.data());
  const auto* const end = at + s.size();
  while (at != end) {
    const unsigned lead = *at;
    if (lead < 0x80) {
      ++at;
      continue;
    }
    const ptrdiff_t length = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : 2;
    if (lead < 0xC2 || lead > 0xF4 || end - at < length) {
      return false;
    }
    const unsigned second = at[1];
    // The range of the second byte rules out overlong forms, surrogates and anything above
    // U+10FFFF.
    const unsigned low = lead == 0xE0 ? 0xA0 : lead == 0xF0 ? 0x90 : 0x80;
    const unsigned high = lead == 0xED ? 0x9F : lead == 0xF4 ? 0x8F : 0xBF;
    if (second < low || second > high) {
      return false;
    }
    for (ptrdiff_t i = 2; i < length; ++i) {
      if ((at[i] & 0xC0) != 0x80) {
        return false;
      }
    }
    at += length;
  }
  return true;
}

}  // namespace pysource
