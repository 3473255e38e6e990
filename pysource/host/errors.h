// The exceptions of the system; it throws no others itself.
//
//   CValueError      a value from outside is not well formed: damaged bytes
//   CTypeError       a value is absent where one is needed
//   CAssertionError  a programming error: a caller broke a rule (see assertions.h)
//
// A host service that fails may throw any exception; the module lets it pass.
#pragma once

#include <stdexcept>
#include <string>

namespace pysource {

class CError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

class CValueError : public CError {
 public:
  using CError::CError;
};

class CTypeError : public CError {
 public:
  using CError::CError;
};

// what() is the text of the assertion, which is empty for most; Where() is "file:line" of the
// check.
class CAssertionError : public CError {
 public:
  CAssertionError(const std::string& text, std::string where)
      : CError(text), _fWhere(std::move(where)) {}
  const std::string& Where() const noexcept { return _fWhere; }

 private:
  std::string _fWhere;
};

}  // namespace pysource
