#include "pysource/host/fastaccess.h"

#include <cctype>
#include <chrono>
#include <utility>

#include "pysource/host/errors.h"

namespace pysource {
namespace {

BytesView UpToNul(BytesView s) { return s.substr(0, s.find('\0')); }

}  // namespace

double GetNowTime() {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  return std::chrono::duration<double>(now).count();
}

bool IsDigit(char c) { return std::isdigit(static_cast<unsigned char>(c)) != 0; }
bool IsAlnum(char c) { return std::isalnum(static_cast<unsigned char>(c)) != 0; }

bool StrInStr(std::optional<BytesView> sub, std::optional<BytesView> whole) {
  if (!sub || !whole) {
    throw CTypeError("Both sub and whole must be strings");
  }
  return UpToNul(*whole).find(UpToNul(*sub)) != BytesView::npos;
}

}  // namespace pysource
