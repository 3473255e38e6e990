// How an answer came about: what was asked of the database, which records there were, which of them
// were stale and why, what was scanned, and what was merged in the end.
#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "pysource/host/location.h"
#include "pysource/host/scoperef.h"
#include "pysource/host/text.h"
#include "pysource/scopeinfo/records/scopeinfo.h"
#include "pysource/standalone/engine/engine.h"

namespace pysource::tools {

// Made before the question is asked: looks at what is known without a scan, and listens from then
// on. It sees the engine as it is, so the answer is the same with and without it.
class CExplanation {
 public:
  // The engine must outlive it. Asks the cache once.
  CExplanation(standalone::CEngine& engine, Loc loc, TextView scope);
  ~CExplanation();
  CExplanation(const CExplanation&) = delete;
  CExplanation& operator=(const CExplanation&) = delete;

  // To be called with the answer, before anything else is asked.
  void NoteAnswer(const scopeinfo::CScopeInfoPtr& info);

  std::string ToText() const;
  nlohmann::ordered_json ToJson() const;

 private:
  // One record of the scope.
  struct CRecord {
    Loc file;  // that it is filed under
    Text scan;
    Loc scanned_file;
    Text scanned_scope;
    const char* standing = "";  // whether the database has it
    std::string stale;          // why it cannot be trusted; empty when it can
  };
  struct CWanted {
    Loc file;
    Text scope;
    Text scan;
    std::string why;
  };

  std::vector<CRecord> Records();
  std::string WhyStale(const scopeinfo::CHeldRecord& record);
  std::string WhyWanted(Loc loc, TextView scan);

  standalone::CEngine& _fEngine;
  const Loc _fLoc;
  const Text _fScope;

  std::vector<CRecord> _fAtFirst;
  std::vector<CWanted> _fWanted;  // what the first question asked for
  std::vector<CRecord> _fInTheEnd;
  std::vector<standalone::CDbCall> _fCalls;
  size_t _fCallsAtFirst = 0;  // how many of them were made for the first question
  std::vector<std::string> _fScanned;
  bool _fFound = false;
};

}  // namespace pysource::tools
