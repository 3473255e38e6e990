#include "pysource/host/repr.h"

#include <array>
#include <charconv>
#include <cmath>

namespace pysource {

Text ReprOfText(TextView text) {
  static constexpr char kHex[] = "0123456789abcdef";
  Text result = "'";
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (c == '\\' || c == '\'') {
      result += '\\';
      result += c;
    } else if (c == '\n') {
      result += "\\n";
    } else if (c == '\t') {
      result += "\\t";
    } else if (c == '\r') {
      result += "\\r";
    } else if (byte < 0x20 || byte == 0x7F) {
      result += "\\x";
      result += kHex[byte >> 4];
      result += kHex[byte & 15];
    } else {
      result += c;
    }
  }
  result += '\'';
  return result;
}

Text ReprOfDouble(double value) {
  if (std::isnan(value)) {
    return "nan";
  }
  // A modification time must be readable, so only very small and very large numbers get an
  // exponent: below 1e-4, and from 1e16 on.
  const double size = std::fabs(value);
  const bool fixed = value == 0 || (size >= 1e-4 && size < 1e16);
  std::array<char, 40> buffer{};
  const auto end = std::to_chars(buffer.data(), buffer.data() + buffer.size(), value,
                                 fixed ? std::chars_format::fixed : std::chars_format::scientific)
                       .ptr;
  Text result(buffer.data(), end);
  if (fixed && result.find('.') == Text::npos) {
    result += ".0";
  }
  return result;
}

Text FormatPercent(TextView format, std::initializer_list<FormatArg> args) {
  Text result;
  const FormatArg* next = args.begin();
  for (size_t i = 0; i < format.size(); ++i) {
    if (format[i] != '%' || i + 1 == format.size()) {
      result += format[i];
      continue;
    }
    const char form = format[i + 1];
    if (form == '%') {
      result += '%';
      ++i;
    } else if ((form == 'r' || form == 's' || form == 'd') && next != args.end()) {
      result += form == 'r' ? next->Repr() : next->Plain();
      ++next;
      ++i;
    } else {
      result += '%';
    }
  }
  return result;
}

Text FormatBraces(TextView format, std::initializer_list<FormatArg> args) {
  Text result;
  const FormatArg* next = args.begin();
  for (size_t i = 0; i < format.size(); ++i) {
    if (format[i] == '{' && i + 1 < format.size() && format[i + 1] == '}' && next != args.end()) {
      result += next->Plain();
      ++next;
      ++i;
    } else {
      result += format[i];
    }
  }
  return result;
}

}  // namespace pysource
