// One text form for each value, for logs, dumps and test failures, and the two ways to fill in
// messages: with "%" and with "{}".
//
//   text, bytes     quoted: 'a.b', with \n, \\, \' and \xNN for what is not printable
//   bool            True, False
//   double          the shortest digits that read back as the same: 1.0, 1700000000.25, 1e+16
//   absent          None
//   pair            (first, second)
//   list            [a, b]
//   set             {a, b}, set() when empty
//   dictionary      {key: value}
//   anything else   what its member Repr() returns
#pragma once

#include <concepts>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

#include "pysource/host/text.h"

namespace pysource {

Text ReprOfText(TextView text);
Text ReprOfDouble(double value);

template <class T>
Text Repr(const T& value);

namespace repr_detail {

template <class T>
concept HasRepr = requires(const T& value) {
  { value.Repr() } -> std::convertible_to<Text>;
};
template <class T>
concept IsMap = requires {
  typename T::mapped_type;
};
template <class T>
concept IsSet = requires {
  typename T::key_type;
};
template <class T>
concept IsPair = requires(const T& value) {
  value.first;
  value.second;
};
template <class T>
concept IsOptional = requires(const T& value) {
  { value.has_value() } -> std::convertible_to<bool>;
  *value;
};
template <class T>
concept IsPointer = requires(const T& value) {
  { value == nullptr } -> std::convertible_to<bool>;
  *value;
};

template <class T>
Text ReprOfRange(const T& range, const char* open, const char* close) {
  Text result = open;
  bool first = true;
  for (const auto& item : range) {
    if (!first) {
      result += ", ";
    }
    first = false;
    if constexpr (IsMap<T>) {
      result += Repr(item.first) + ": " + Repr(item.second);
    } else {
      result += Repr(item);
    }
  }
  return result + close;
}

}  // namespace repr_detail

template <class T>
Text Repr(const T& value) {
  using namespace repr_detail;
  if constexpr (HasRepr<T>) {
    return value.Repr();
  } else if constexpr (std::same_as<T, bool>) {
    return value ? "True" : "False";
  } else if constexpr (std::integral<T>) {
    return std::to_string(value);
  } else if constexpr (std::floating_point<T>) {
    return ReprOfDouble(value);
  } else if constexpr (std::convertible_to<const T&, TextView>) {
    return ReprOfText(value);
  } else if constexpr (IsOptional<T>) {
    return value.has_value() ? Repr(*value) : "None";
  } else if constexpr (IsMap<T>) {
    return ReprOfRange(value, "{", "}");
  } else if constexpr (IsSet<T>) {
    return value.empty() ? "set()" : ReprOfRange(value, "{", "}");
  } else if constexpr (IsPair<T>) {
    return "(" + Repr(value.first) + ", " + Repr(value.second) + ")";
  } else if constexpr (std::same_as<T, std::nullopt_t>) {
    return "None";
  } else if constexpr (IsPointer<T>) {
    return value == nullptr ? "None" : Repr(*value);
  } else {
    return ReprOfRange(value, "[", "]");
  }
}

// One argument of a message: a reference to a value, turned into text only when it is needed.
// REQUIRES: it does not outlive the call for which it is made.
class FormatArg {
 public:
  template <class T>
  // NOLINTNEXTLINE(google-explicit-constructor): made in the argument list of a log call
  FormatArg(const T& value)
      : _fValue(std::addressof(value)), _fRepr(&ReprValue<T>), _fPlain(&PlainValue<T>) {}

  Text Repr() const { return _fRepr(_fValue); }
  // Like Repr, but text stands for itself, without quotes.
  Text Plain() const { return _fPlain(_fValue); }

 private:
  template <class T>
  static Text ReprValue(const void* value) {
    return pysource::Repr(*static_cast<const T*>(value));
  }
  template <class T>
  static Text PlainValue(const void* value) {
    const T& typed = *static_cast<const T*>(value);
    if constexpr (std::convertible_to<const T&, TextView>) {
      return Text(TextView(typed));
    } else {
      return pysource::Repr(typed);
    }
  }
  const void* _fValue;
  Text (*_fRepr)(const void*);
  Text (*_fPlain)(const void*);
};

// Replaces "%r" by the text form of the next argument, "%s" and "%d" by its plain form, and "%%" by
// "%". A place without an argument stays as it is; surplus arguments are ignored.
Text FormatPercent(TextView format, std::initializer_list<FormatArg> args);

// Replaces each "{}" by the plain form of the next argument.
Text FormatBraces(TextView format, std::initializer_list<FormatArg> args);

}  // namespace pysource
