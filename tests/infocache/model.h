// The info cache once more, for the random test: as naive as it can be, in plain sets and maps,
// with no index, no sharing of work and nothing of the cache's own code but keys as a text form and
// the encoded bytes of records. It never looks at the cache.
//
// Where the order of a set or the choice of names for a batched read is free, it takes the order or
// the choice that the cache made (fOrderHint, fReadsMade) and checks that the choice was allowed.
#pragma once

#include <array>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <tuple>
#include <utility>
#include <vector>

#include "tests/fakes/cachehost.h"

namespace pysource::scopeinfo {

class CModel {
 public:
  using Ref = std::pair<Loc, Text>;
  // For which file and scope, by which scan, scanned from which file and scope.
  using Key = std::tuple<Loc, Text, Text, Loc, Text>;
  using KeySet = std::set<Key>;
  using Names = std::set<Text>;
  using NeedsDict = std::map<Ref, Names>;
  using Triple = std::tuple<Loc, Text, Text>;

  struct CAssertionFailed {};

  // What a record says; found again by its encoded bytes.
  struct CContent {
    std::map<Text, Bytes> equivs;
    bool missing = false;
  };
  struct CInfo {
    Key key;
    CContent content;
    std::optional<DiskTime> mtime;
    bool incomplete = false;
    CScopesSeenPtr seen;
    Bytes encoded;
  };
  using Info = std::shared_ptr<CInfo>;
  struct CMerged {
    std::vector<Info> infos;  // the first one was copied, the others merged into it, in this order
    std::optional<DiskTime> mtime;
  };
  using Merged = std::shared_ptr<CMerged>;
  struct CRecord {
    Key key;
    Bytes data;  // all four parts
    CScopesSeenPtr seen;
    bool incomplete = false;
  };
  struct CFile {
    Loc loc;
    DiskTime mtime = 0;
    std::map<Text, Info> primary;
    Names all_db;
    Names unread;
    std::map<Text, std::vector<CRecord>> records;
    bool clear_db = false;
    bool db_changed = true;
    Text done;
    bool done_unwritten = true;
  };
  using File = std::shared_ptr<CFile>;

  CModel(fakes::CCacheHost& host, fakes::CMemoryAnalysisDb& db, CInfoCacheLimits limits);

  // ---- The operations of the cache, by their names there.
  void SetScanNames(std::vector<Text> names);
  Merged GetScopeInfo(Loc loc, const Text& scope, bool merge_secondary, NeedsDict* needs_scan);
  std::vector<Merged> GetMultipleScopeInfos(Loc loc, const std::vector<Text>& scopes);
  Names GetAllScopeNames(Loc loc, bool instances, bool secondary);
  bool AddScopeInfo(const Info& info, bool allow_write);
  void AddScopeInfoListForSingleScan(Loc scanned_loc, const Text& scanned_scope, const Text& scan,
                                     const std::vector<Info>& infos, bool allow_write);
  void RemoveScopeInfoSeq(const std::vector<CScopeInfoToRemove>& to_remove);
  void AddDepKeysToNeedsScan(const KeySet& keys, std::set<Triple>* needs_scan,
                             std::optional<int> priority, bool emits);
  void FinishedWithScans(Loc loc, const Text& scope, const Text& scan);
  void ChangeScansDone(Loc loc, const Text& scan, bool done);
  void WriteToDatabase();
  void WriteToDatabase(const std::vector<Loc>& locs);
  void Clear();
  void ClearFiles(const std::vector<Loc>& loc_seq, bool clear_db);
  void destroy();

  // ---- Signals and the main loop.
  void ExternalFilesChanged(const CLocMtimeDict& changed);
  void SavePoint(const fakes::CFakeSavable& savable, bool not_modified);
  void ScopeLogicalsModified(Loc loc, DiskTime matched, const Names& scopes);
  void ImportResolutionChanged();
  void DatabaseChanged(const std::set<Loc>* locs);
  void RunOneIdle();

  static Text TextOf(const Key& key);
  // Remembers what the record's bytes say.
  static void Learn(const CInfo& info) { Contents()[info.encoded] = info.content; }
  // The same text as the cache's DebugDump of the same state.
  Text Dump() const;

  // Kept for the caller, who takes them between steps.
  std::vector<Text> fEvents;
  std::function<void()> fOnEvent;
  std::vector<Loc> fOrderHint;                // the files of the last scopes-modified, in order
  std::vector<std::vector<Text>> fReadsMade;  // the names of each batched read of this step
  std::vector<std::pair<Loc, File>> fFiles;   // in order of entering
  std::set<Loc> fWatched;
  KeySet M, N, D, W, C;
  std::array<size_t, 16> fRoadsTaken{};  // how often each of the rarer roads was gone

 private:
  using MergedKey = std::tuple<Loc, Text, std::vector<Loc>>;
  using Changed = std::vector<std::pair<Loc, std::shared_ptr<Names>>>;
  struct CMergedEntry {
    MergedKey key;
    Merged value;
    NeedsDict needs;
    std::set<Ref> rests_on;
  };
  enum class Idle { kCache, kMergedTrim };

  void Check(bool holds) const;
  const Text& Primary() const { return fScanNames[0]; }
  const CInfo Decode(const CFile& file, const CRecord& record) const;

  File Find(Loc loc) const;
  File GetPerFile(Loc loc, bool create);
  DiskTime GetDiskMTime(Loc loc);
  bool HasModifiedBuffer(Loc loc);
  std::vector<Loc> GetSecondaryFiles(Loc loc);

  // One file.
  void ClearAllInfo(CFile& file, bool clear_db);
  void UpdateUnread(CFile& file);
  void SetScansDone(CFile& file, const Text& done);
  bool IsDone(const CFile& file, const Text& scan) const;
  void UpdateDiskMtime(CFile& file, DiskTime mtime, std::map<Loc, KeySet>& keys_dict);
  size_t Count(const CFile& file, const Text& scope) const;
  Names AllNames(const CFile& file) const;
  std::optional<std::vector<Info>> ListToMerge(CFile& file, const Text& scope, std::set<Ref>& seen,
                                               NeedsDict& needs_scan);
  bool CheckScopesSeen(const CFile& file, const CScopesSeenDict& seen);
  bool Store(CFile& file, const Info& info);
  bool SetRecord(CFile& file, const Key& key, const Bytes& data, const Bytes& classes,
                 const Bytes& imports, bool needs_db_write, const CScopesSeenPtr& seen,
                 bool incomplete, const Info& info);
  bool RemoveRecords(CFile& file, const Text& scan, const Text& scope, Loc scanned_loc,
                     const Text& scanned_scope);

  // All keys.
  KeySet Keys(const KeySet& of, Loc for_loc, const Names* scopes = nullptr) const;
  KeySet ScannedKeys(const KeySet& of, Loc scanned_loc, const Names* scopes = nullptr,
                     const Names* scans = nullptr) const;
  size_t ToWriteCount(Loc loc) const { return Keys(W, loc).size(); }
  size_t ToWriteCount(Loc loc, const Text& scope) const;
  void AddKey(const Key& key, const Info& info, bool remove_needs_scan);
  void RemoveKey(const Key& key);
  void AddNeedsScan(const Key& key);
  void AddToWrite(const Key& key);
  void UpdateExisting(const Key& key, const Info& info);
  KeySet DependentKeys(Loc loc, const Text& scope) const;

  // The cache.
  bool IsContentThere(const CFile& file) const;
  void ReadSecondary(Loc other, CFile& other_file, const Text& scope, NeedsDict& needs_scan);
  std::vector<Text> NamesToRead(const CFile& file, const Text& scope);
  void ReadList(CFile& file, std::vector<Text> scopes);
  void MarkReturned(const Ref& ref);
  void MarkPresent(const Ref& ref);
  bool StoreAndPurge(CFile& file, const Info& info);
  void MaybeInvalidate(const CInfo& info, KeySet dep_keys, std::set<Triple>& needs_scan);
  void InvalidateScans(const std::map<Loc, KeySet>& keys_dict, bool whole_files,
                       std::optional<int> priority);
  void AddPrimaryFiles(Changed& changed) const;
  static void AddChanged(Changed& changed, Loc loc, const Text& scope);
  void EmitChanged(const Changed& changed);
  void EmitNeedsScan(const std::set<Triple>& needs_scan, std::optional<int> priority);
  void PurgeMerged(Loc loc, const Names& scopes);
  void ScheduleIdle();
  void DoIdle();
  void WriteFiles(const std::vector<File>& files);
  void WriteOneFile(CFile& file);
  void TrimTotal(ptrdiff_t count);
  void TrimNotModified(ptrdiff_t count, const CFile* keep);
  void Discard(CFile& file, const std::vector<Text>& scopes, bool keep_flag, bool can_remove);

  fakes::CCacheHost& fHost;
  fakes::CMemoryAnalysisDb& fDb;
  const CInfoCacheLimits fLimits;
  std::vector<Text> fScanNames{":unset"};
  std::map<Key, Info> fExisting;
  std::map<Key, std::set<Ref>> fDependentScans;
  std::vector<std::pair<Ref, bool>> fUsed;  // the most recently used first
  std::deque<CMergedEntry> fMerged;         // the most recently used first
  std::map<Loc, std::vector<Loc>> fSecondary;
  std::map<Loc, std::set<Loc>> fReverseSecondary;
  std::vector<Idle> fIdles;
  static std::map<Bytes, CContent>& Contents();
};

}  // namespace pysource::scopeinfo
