#include "pysource/scopeinfo/filestate/perfileentry.h"

#include "pysource/host/assertions.h"
#include "pysource/host/errors.h"
#include "tests/fakes/cachehost.h"

namespace pysource::scopeinfo {
namespace {

using fakes::KeyOf;
using fakes::MakeRecord;

class PerFileEntryTest : public fakes::CCacheTest {
 protected:
  bool Store(const fakes::CRecordSpec& draft) {
    return Entry(draft.loc)->StoreScopeInfo(MakeRecord(draft));
  }
  // The scan names of the records that would be merged, and what is to be scanned.
  Text ToMerge(Loc loc, TextView scope) {
    CScopeRefSet seen;
    CNeedsScanDict needs_scan;
    const auto list = Entry(loc)->GetInfoListToMerge(scope, seen, needs_scan);
    Text text = list ? "" : "None";
    for (const CScopeInfoPtr& info : list.value_or(std::vector<CScopeInfoPtr>())) {
      text += Text(info->key.scan_name().value_or("None")) + " ";
    }
    return text + Repr(needs_scan);
  }
};

TEST_F(PerFileEntryTest, WhatAChangeOfTimeDoes) {
  struct {
    const char* why;
    DiskTime from;
    DiskTime to;
    const char* standing;  // of a record that is in the database when the time changes
    const char* stale;     // of one that needs a scan and is in the database
    const char* scans_done;
    bool told;
    DiskTime stamp;  // of the record and of what it has seen of itself, 1.0 survives as -1.0 does
  } const kCases[] = {
      {"the same time", 2.0, 2.0, "MDL", "MNDL", ":names", false, 2.0},
      {"changed on disk", 2.0, 3.0, "MNL", "MNL", "", true, 2.0},
      {"deleted", 2.0, 0.0, "MNL", "MNL", "", true, 2.0},
      {"edited", 2.0, -1.0, "ML", "MNL", ":names", false, -1.0},
      {"saved", -1.0, 3.0, "MWL", "MNL", ":names", false, 3.0},
  };
  for (const auto& [why, from, to, standing, stale, scans_done, told, stamp] : kCases) {
    SCOPED_TRACE(why);
    CPerFileEntry entry(Entry(kB)->fInfoCache, kA, from);
    EXPECT_EQ(entry.fDatabaseChanged, from != -1.0);
    EXPECT_TRUE(entry.fScansDoneNeedsToBeWritten);
    // Seen: itself, and another file at the same time.
    const auto good = MakeRecord(
        {.loc = kA, .scope = "f", .seen = {{{kA, "g"}, from}, {{kC, "g"}, from}}, .mtime = from});
    const auto bad = MakeRecord({.loc = kA, .scope = "g"});
    for (const CScopeInfoPtr& info : {good, bad}) {
      entry.StoreScopeInfo(info);
      entry.primary_info_dict.Set(Text(info->for_scope), info);
      Cross().RemoveToWriteInfoKey(info->key);
      Cross().AddInDatabaseInfoKey(info->key);
    }
    Cross().AddNeedsScanInfoKey(bad->key);
    entry.all_db_scope_names = {"f", "h"};
    entry.UpdateScopeNamesNotLoaded();
    EXPECT_EQ(entry.GetScopeNamesNotInMemory().size(), from == -1.0 ? 0U : 1U);
    EXPECT_EQ(entry.GetAllScopeNames().size(), from == -1.0 ? 2U : 3U);
    entry.SetScansDone(":names");
    CKeysDict keys_dict;
    entry.UpdateDiskMtime(to, keys_dict);
    EXPECT_EQ(Standing(good->key), standing);
    EXPECT_EQ(Standing(bad->key), stale);
    EXPECT_EQ(entry.fScansDone, scans_done);
    EXPECT_EQ(keys_dict.Contains(kA), told);
    EXPECT_EQ(entry.db_scope_names_not_loaded.size(), from == to ? 1U : 0U);
    EXPECT_EQ(*good->disk_mtime, stamp);
    EXPECT_EQ(*good->scope_seen_dict->Find(CScopeRefView(kA, "g")), stamp);
    EXPECT_EQ(*good->scope_seen_dict->Find(CScopeRefView(kC, "g")), from);
    Cross().CheckInvariants();
    entry.ClearAllInfo();
  }
  // A time from the clock does not survive single precision, so it is not restamped.
  CPerFileEntry entry(Entry(kB)->fInfoCache, kA, 1700000000.123);
  const auto info = MakeRecord({.loc = kA, .scope = "f", .seen = {{{kA, "g"}, 1700000000.123}}});
  entry.StoreScopeInfo(info);
  CKeysDict keys_dict;
  entry.UpdateDiskMtime(-1.0, keys_dict);
  EXPECT_EQ(*info->scope_seen_dict->Find(CScopeRefView(kA, "g")), 1700000000.123);
  entry.ClearAllInfo(true);
  entry.ClearAllInfo(false);
  EXPECT_TRUE(entry.clear_db) << "a pending deletion is never cancelled";
}

TEST_F(PerFileEntryTest, RecordsForTheDatabase) {
  const auto info = MakeRecord({.loc = kA, .scope = ""});
  for (const auto& [name, eq] : std::initializer_list<std::pair<const char*, const char*>>{
           {"a", ":cC(B;D);:s1;:cE()"},  // a ";" within brackets does not separate
           {"b", ":ios"},
           {"c", ":s2;:fos path;:ip"},
           {"d", ":cF();:ios"},  // a class value only
           {"e", ":s3"}}) {
    info->SetInfoBytes(name, eq);
  }
  Entry(kA)->StoreScopeInfo(info);
  // Not of the scope that was scanned: no columns for its classes.
  const fakes::CRecordSpec kOther{
      .loc = kA, .scope = "g", .scanned_scope = "", .x = ":cG()", .seen = {{{kB, ""}, 2.0}}};
  Store(kOther);
  const fakes::CRecordSpec kIncomplete{.loc = kA, .scope = "h", .incomplete = true};
  Store(kIncomplete);
  const CScopeInfoKey unknown = KeyOf({.loc = kA, .scope = "unknown"});
  const auto [rows, not_writable] =
      Entry(kA)->GetDatabaseRecords({info->key, KeyOf(kOther), KeyOf(kIncomplete), unknown});
  ASSERT_EQ(rows.size(), 2U);
  const auto& [own, other] =
      rows[0].for_scope.empty() ? std::tie(rows[0], rows[1]) : std::tie(rows[1], rows[0]);
  EXPECT_EQ(own.class_equivs, ":cC(B;D);:cE();:cF()");
  EXPECT_EQ(own.import_equivs, ":ios;:fos path;:ip");
  EXPECT_EQ(own.data, info->GetSerializedData());
  EXPECT_EQ(own.reserved, -1);
  EXPECT_EQ(other.class_equivs + other.import_equivs, "");
  EXPECT_EQ(*other.scanned_scope, "");
  EXPECT_EQ(other.scopes_seen->size(), 1U);
  EXPECT_TRUE(not_writable == (CScopeInfoKeySet{KeyOf(kIncomplete), unknown}));

  Entry(kA)->AfterSuccessfulDatabaseWrite(rows);
  EXPECT_FALSE(Entry(kA)->GetDatabaseRecords({}).not_writable_set);
  EXPECT_EQ(Entry(kA)->GetDatabaseRecords({info->key}).not_writable_set->size(), 1U) << "written";
  EXPECT_THROW(Entry(kA)->AfterSuccessfulDatabaseWrite(rows), CAssertionError) << "twice";
  EXPECT_THROW(Entry(kA)->SetSerializedRecord(info->key, "", "", "", true, nullptr, false, nullptr),
               CAssertionError);
  EXPECT_THROW(Entry(kB)->AfterSuccessfulDatabaseWrite(rows), CAssertionError) << "no such scope";
  SetAssertionsActive(false);
  Entry(kB)->AfterSuccessfulDatabaseWrite(rows);
}

TEST_F(PerFileEntryTest, GivingRecordsUp) {
  // Two scans of g found f; f itself, and a scan of another file that looked at f.
  Store({.loc = kA, .scope = "f", .scan = ":attrs", .scanned_scope = "g"});
  Store({.loc = kA, .scope = "f", .scanned_scope = "g"});
  Store({.loc = kA, .scope = "f"});
  Store({.loc = kA, .scope = "f", .scan = ":attrs", .scanned_loc = kB});
  const fakes::CRecordSpec kDependent{.loc = kB, .scope = "h", .seen = {{{kA, "f"}, 2.0}}};
  Store(kDependent);
  ToMerge(kA, "f");
  EXPECT_FALSE(Entry(kA)->RemoveSerializedRecords("*", "unknown", kA, "g"));
  EXPECT_TRUE(Entry(kA)->RemoveSerializedRecords("*", "f", kA, "g")) << "one call, one record";
  EXPECT_EQ(Entry(kA)->GetSerializedDataCount("f"), 3U);

  const CScopeInfoKey key = KeyOf({.loc = kA, .scope = "f"});
  Entry(kA)->DiscardInfoForScannedScopes({"f", "g"}, false);
  EXPECT_EQ(Standing(key), "ML") << "gives up its claim to be written, no more";
  EXPECT_EQ(Entry(kA)->GetSerializedDataCount(), 3U);
  EXPECT_TRUE(Entry(kA)->primary_info_dict.empty());
  EXPECT_EQ(Standing(KeyOf(kDependent)), "MWL");
  Entry(kA)->DiscardInfoForScannedScopes({"f", "g"}, true);
  EXPECT_EQ(Entry(kA)->GetSerializedDataCount(), 1U) << "what another file's scan found stays";
  EXPECT_EQ(Standing(key), "ML") << "the key stays, in silence";
  EXPECT_EQ(Standing(KeyOf(kDependent)), "MNL");

  // Its own entry is itself, also when it has left the cache.
  const CPerFilePtr entry = Entry(kA);
  Cache().Clear();
  EXPECT_EQ(entry->GetOtherPerFile(kA, false).get(), entry.get());
  EXPECT_EQ(entry->GetOtherPerFile(kB, false), nullptr);
  EXPECT_EQ(Cache().DbgGetPerFileDict().size(), 0U);
}

}  // namespace
}  // namespace pysource::scopeinfo
