// GetScopeInfo for a scope whose merged record is in memory, one of 20,000, compared with the
// minimum of such a cache: a hash table by file and scope name, whose entries are in a list in the
// order of use.
//
// Both get a location and a name, hash the name, move the entry to the front and return a shared
// pointer. The project also checks the file and its secondary files, and updates its own order of
// use.
#include <vector>

#include "bench/pairs/pair.h"
#include "bench/support/clock.h"

namespace pysource::bench {
namespace {

class CLru {
 public:
  explicit CLru(size_t size) : _fBuckets(BucketCount(size)) { _fNodes.reserve(size); }

  void Add(Loc loc, TextView scope, scopeinfo::CScopeInfoPtr info) {
    const size_t hash = HashOf(loc, scope);
    CNode& node = _fNodes.emplace_back(CNode{{}, nullptr, hash, loc, Text(scope), std::move(info)});
    CNode*& bucket = _fBuckets[hash & (_fBuckets.size() - 1)];
    node.next_in_bucket = bucket;
    bucket = &node;
    PutFirst(node);
  }

  scopeinfo::CScopeInfoPtr Get(Loc loc, TextView scope) {
    const size_t hash = HashOf(loc, scope);
    for (CNode* node = _fBuckets[hash & (_fBuckets.size() - 1)]; node != nullptr;
         node = node->next_in_bucket) {
      if (node->hash == hash && node->loc == loc && node->scope == scope) {
        node->link.before->after = node->link.after;
        node->link.after->before = node->link.before;
        PutFirst(*node);
        return node->info;
      }
    }
    return nullptr;
  }

 private:
  struct CLink {
    CLink* before = nullptr;
    CLink* after = nullptr;
  };
  struct CNode {
    CLink link;
    CNode* next_in_bucket;
    size_t hash;
    Loc loc;
    Text scope;
    scopeinfo::CScopeInfoPtr info;
  };

  static size_t HashOf(Loc loc, TextView scope) {
    return CombineHash(loc.Hash(), HashBytes(scope));
  }
  static size_t BucketCount(size_t size) {
    size_t count = 16;
    while (count < size) {
      count *= 2;
    }
    return count;
  }
  void PutFirst(CNode& node) {
    node.link = {&_fList, _fList.after};
    _fList.after->before = &node.link;
    _fList.after = &node.link;
  }

  std::vector<CNode*> _fBuckets;
  std::vector<CNode> _fNodes;
  CLink _fList{&_fList, &_fList};
};

constexpr size_t kAsks = size_t{1} << 19;

}  // namespace

void MeasureAsk(CBenchWorld& world, const CCorpus& corpus) {
  world.Open(world.fFolder.NewPath());
  AddCorpus(world.Cache(), corpus);
  world.Cache().WriteToDatabase();
  const std::vector<CRequest> requests = AllScopes(corpus);
  CLru lru(requests.size());
  for (const CRequest& request : requests) {
    lru.Add(request.loc, request.scope, world.Cache().GetScopeInfo(request.loc, request.scope));
  }

  size_t found = 0;
  const auto measure = [&](const std::string& name, const std::vector<size_t>& draws) {
    size_t allocations = 0;
    const CPairTimes times = InTurn(
        [&] {
          const size_t before = AllocationCount();
          const double seconds = TimeOf([&] {
            for (const size_t draw : draws) {
              const CRequest& request = requests[draw];
              found += world.Cache().GetScopeInfo(request.loc, request.scope) != nullptr;
            }
          });
          allocations = AllocationCount() - before;
          return seconds;
        },
        [&] {
          return TimeOf([&] {
            for (const size_t draw : draws) {
              found += lru.Get(requests[draw].loc, requests[draw].scope) != nullptr;
            }
          });
        });
    PrintPair(name, times, draws.size(), "ns",
              std::to_string(allocations) + " allocations in " + std::to_string(draws.size()));
  };
  measure("ask-hot", HotDraws(requests.size(), kAsks));
  measure("ask-zipf", ZipfDraws(requests.size(), kAsks));
  if (found != 4 * (static_cast<size_t>(Rounds()) + 1) * kAsks) {
    throw std::logic_error("an answer was not in memory");
  }
}

}  // namespace pysource::bench
