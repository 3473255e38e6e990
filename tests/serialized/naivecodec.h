// The encoded form of a record written down a second time, with plain strings, vectors and maps and
// without any bound: what the serializer is compared with.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "pysource/host/strutils.h"

namespace pysource::scopeinfo {

struct CNaiveRecord {
  using Dict = std::vector<std::pair<std::string, std::string>>;  // in order of first storing
  std::string ibytes;
  std::array<Dict, 4> dicts;  // type equivalences, domains, and the same two of the instance
  bool does_not_exist = false;

  static void Store(Dict& dict, const std::string& name, const std::string& value) {
    for (auto& item : dict) {
      if (item.first == name) {
        item.second = value;
        return;
      }
    }
    dict.emplace_back(name, value);
  }
};

class CNaiveEncoder {
 public:
  static std::string Encode(const CNaiveRecord& record) {
    CNaiveEncoder encoder;
    encoder.String(record.ibytes);
    for (const auto& dict : record.dicts) {
      encoder.Int(dict.size());
      for (const auto& [name, value] : std::map(dict.begin(), dict.end())) {
        encoder.String(name);
        encoder.String(value);
      }
    }
    encoder.Int(record.does_not_exist ? 1 : 0);
    const std::string content = std::exchange(encoder._fOut, {});
    encoder.Int(encoder._fTable.size());
    for (const std::string& token : encoder._fTable) {
      encoder.Int(token.size());
      encoder._fOut += token;
    }
    return encoder._fOut + content;
  }

 private:
  void Int(uint64_t value) {
    if (value < 128) {
      _fOut += static_cast<char>(value | 0x80);
      return;
    }
    for (; value >= 64; value >>= 6) {
      _fOut += static_cast<char>((value & 63) | 0x40);
    }
    _fOut += static_cast<char>(value | 0xC0);
  }
  void String(const std::string& s) {
    std::vector<std::string> pieces;
    bool in_run = false;
    for (const char c : s) {
      const bool separates = std::string(" (),.[]").find(c) != std::string::npos;
      if (separates || !in_run) {
        pieces.emplace_back();
      }
      pieces.back() += c;
      in_run = !separates;
    }
    if (pieces.empty()) {
      pieces.emplace_back();
    }
    for (size_t i = 0; i < pieces.size(); ++i) {
      const auto [token, is_new] = _fTokens.emplace(pieces[i], _fTokens.size());
      if (is_new) {
        _fTable.push_back(pieces[i]);
      }
      Int(token->second * 2 + (i + 1 == pieces.size() ? 1 : 0));
    }
  }

  std::string _fOut;
  std::map<std::string, uint64_t> _fTokens;
  std::vector<std::string> _fTable;
};

class CNaiveDecoder {
 public:
  // Where an integer of the message stands.
  struct CField {
    size_t begin, end;
  };

  // The record, or nothing when the message is broken.
  static std::optional<CNaiveRecord> Decode(const std::string& message,
                                            std::vector<CField>* fields = nullptr) {
    CNaiveDecoder decoder(message);
    try {
      const CNaiveRecord record = decoder.Record();
      if (fields != nullptr) {
        *fields = decoder._fFields;
      }
      return record;
    } catch (const std::out_of_range&) {
      return std::nullopt;
    }
  }

 private:
  explicit CNaiveDecoder(const std::string& message) : _fMessage(message) {}

  CNaiveRecord Record() {
    CNaiveRecord record;
    for (uint64_t left = Int(); left > 0; --left) {
      const uint64_t size = Int();
      Demand(size <= _fMessage.size() - _fAt);
      _fTokens.push_back(_fMessage.substr(_fAt, size));
      _fAt += size;
    }
    record.ibytes = String();
    for (auto& dict : record.dicts) {
      for (uint64_t left = Int(); left > 0; --left) {
        const std::string name = String();
        Demand(IsUtf8(name));
        CNaiveRecord::Store(dict, name, String());
      }
    }
    record.does_not_exist = Int() != 0;
    return record;
  }
  uint64_t Int() {
    const size_t begin = _fAt;
    uint64_t byte = Next();
    uint64_t value = byte - 0x80;
    if (byte < 0x80) {
      std::vector<uint64_t> parts;
      for (; Demand(byte >= 0x40), byte < 0x80; byte = Next()) {
        parts.push_back(byte & 63);
      }
      value = byte & 63;
      // From the top down, where it can be seen what falls off.
      for (auto part = parts.rbegin(); part != parts.rend(); ++part) {
        Demand(value >> 58 == 0);
        value = value * 64 + *part;
      }
    }
    _fFields.push_back({begin, _fAt});
    return value;
  }
  std::string String() {
    std::string result;
    uint64_t reference = 0;
    while (reference % 2 == 0) {
      reference = Int();
      result += _fTokens.at(reference / 2);
    }
    return result;
  }
  uint64_t Next() { return static_cast<unsigned char>(_fMessage.at(_fAt++)); }
  static void Demand(bool holds) {
    if (!holds) {
      throw std::out_of_range("broken");
    }
  }

  const std::string& _fMessage;
  size_t _fAt = 0;
  std::vector<std::string> _fTokens;
  std::vector<CField> _fFields;
};

}  // namespace pysource::scopeinfo
