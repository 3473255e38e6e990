// Where a name is defined: from a use, through imports, base classes and instances, across files.
//
// Everything is read off merged records, so it is as good as the scans; scans that are missing are
// run. Nothing is evaluated: a call is followed to the class that is called, an attribute to what
// the class, its bases in their order, and its instances are known to have.
//
// An answer is kept together with the scopes that were read for it, and goes when one of them
// changes; a question is worked out again only then.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include "pysource/host/location.h"
#include "pysource/host/symbolinfo/infobytes.h"
#include "pysource/host/text.h"
#include "pysource/scopeinfo/dependantcache/scopedependantcache.h"
#include "pysource/standalone/engine/engine.h"

namespace pysource::standalone {

// One place where a name is bound to what it means in the end.
struct CNameDefinition {
  Loc loc;
  Text scope;  // that binds the name; of a module that was imported, its own
  Text name;
  bool inst = false;  // an attribute that methods set on instances of the class `scope`
  Kind kind = 0;      // of what it is bound to; kSetKind where that is not known
  Bytes value;        // the body of the item of that kind
  std::optional<int> line;
  std::vector<Text> path;  // how the name led there, a step each
};

struct CResolution {
  std::vector<CNameDefinition> definitions;  // in the order in which they are found; each once
  std::vector<Text> lost;                    // where the track was lost, for a person
};
using CResolutionPtr = std::shared_ptr<const CResolution>;

// A name as it stands in a scope of a file. It can be dotted: "self.x", "module.Class.attribute".
struct CNameQuestion {
  Loc loc;
  Text scope;
  Text name;

  friend bool operator==(const CNameQuestion&, const CNameQuestion&) = default;
  Text Repr() const;
};
struct CNameQuestionHash {
  size_t operator()(const CNameQuestion& question) const noexcept {
    return CombineHash(CombineHash(question.loc.Hash(), HashBytes(question.scope)),
                       HashBytes(question.name));
  }
};

class CNameResolver {
 public:
  // The engine must outlive it. The answers least recently used go in idle time when there are more
  // than `most_answers`.
  explicit CNameResolver(CEngine& engine, int64_t most_answers = 10000);
  CNameResolver(const CNameResolver&) = delete;
  CNameResolver& operator=(const CNameResolver&) = delete;
  ~CNameResolver();

  // Never null. `between` as for CEngine::Ask.
  CResolutionPtr Resolve(const CNameQuestion& question,
                         const std::function<bool()>& between = nullptr);

  // Whether the answer is there, and still good.
  bool Holds(const CNameQuestion& question) const { return _fAnswers.Contains(question); }
  size_t AnswersHeld() const { return _fAnswers.Size(); }
  uint64_t Hits() const { return _fAnswers.fHits; }
  uint64_t Misses() const { return _fAnswers.fMisses; }

 private:
  CEngine& _fEngine;
  uint64_t _fChanges = 0;  // of scopes, since this was made
  ConnectionId _fConnection = 0;
  scopeinfo::CScopeDependantCache<CNameQuestion, CResolutionPtr, CNameQuestionHash> _fAnswers;
};

}  // namespace pysource::standalone
