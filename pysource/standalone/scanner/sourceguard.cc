#include "pysource/standalone/scanner/sourceguard.h"

#include "pysource/host/strutils.h"

namespace pysource::standalone {
namespace {

// Well-formed UTF-8 without NUL and lone carriage returns.
void MendText(Bytes& text) {
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\0') {
      text[i] = '?';
    } else if (text[i] == '\r' && (i + 1 == text.size() || text[i + 1] != '\n')) {
      text[i] = '\n';
    }
  }
  if (IsUtf8(text)) {
    return;
  }
  for (size_t i = 0; i < text.size();) {
    const auto lead = static_cast<unsigned char>(text[i]);
    const size_t length = lead < 0x80 ? 1 : lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : 2;
    if (lead < 0x80 || IsUtf8(BytesView(text).substr(i, length))) {
      i += length;
    } else {
      text[i++] = '?';
    }
  }
}

bool NeedsMending(BytesView source) {
  if (source.find('\0') != BytesView::npos) {
    return true;
  }
  for (size_t at = source.find('\r'); at != BytesView::npos; at = source.find('\r', at + 1)) {
    if (at + 1 == source.size() || source[at + 1] != '\n') {
      return true;
    }
  }
  return !IsUtf8(source);
}

}  // namespace

BytesView GuardSource(BytesView source, Bytes& copy) {
  if (!NeedsMending(source)) {
    return source;
  }
  copy = Bytes(source);
  MendText(copy);
  return copy;
}

}  // namespace pysource::standalone
