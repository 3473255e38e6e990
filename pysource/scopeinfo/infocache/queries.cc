// Queries across files: answered from memory for files that have an entry, from the database for
// the others.
#include "pysource/host/strutils.h"
#include "pysource/host/symbolinfo/infobytes.h"
#include "pysource/host/symbolinfo/kinds.h"
#include "pysource/host/symbolinfo/scopenames.h"
#include "pysource/scopeinfo/infocache/infocache.h"

namespace pysource::scopeinfo {
namespace {

template <class Item>
void Append(std::vector<Item>& to, std::vector<Item> items) {
  to.insert(to.end(), std::make_move_iterator(items.begin()), std::make_move_iterator(items.end()));
}

// The imports in the primary records of a file, from the module scope down. The scopes are visited
// last in, first out, which determines the order of the result.
std::vector<CImportEquiv> GetAllInMemoryImports(const CPerFileEntry& per_file) {
  std::vector<CImportEquiv> all_imports;
  std::vector<Text> to_examine{Text(kModuleScopeName)};
  // Each scope is visited once, so that a definition that names its own scope causes no endless
  // loop.
  TextSet visited;
  while (!to_examine.empty()) {
    const Text scope_name = std::move(to_examine.back());
    to_examine.pop_back();
    const CScopeInfoPtr* const info = per_file.primary_info_dict.Find(scope_name);
    if (info == nullptr || !visited.insert(scope_name).second) {
      continue;
    }
    for (const auto& [subname, equivs] : (*info)->type_equivs) {
      ForEachNonNested(equivs, kInfoBytesSep, [&](BytesView ibytes) {
        // By the head of the item: one that stands behind a context is another scope's.
        const Kind kind = GetInfoBytesKind(ibytes);
        if (OpensScope(kind)) {
          const size_t lpar_pos = ibytes.find('(');
          if (lpar_pos != BytesView::npos) {
            to_examine.emplace_back(AsStr(ibytes, kPrefixLen, std::max(lpar_pos, kPrefixLen)));
          }
        } else if (kind == kImportKind || kind == kFromImportKind) {
          all_imports.push_back(CImportEquiv{per_file.loc, scope_name, Bytes(ibytes)});
        }
      });
    }
  }
  return all_imports;
}

}  // namespace

std::vector<CImportEquiv> CInfoCache::GetAllImports(const std::vector<Loc>& loc_seq) {
  std::vector<CImportEquiv> imports_list;
  std::vector<Loc> db_locs;
  for (const Loc loc : loc_seq) {
    const CPerFilePtr per_file = GetPerFile(loc, false);
    if (per_file == nullptr) {
      db_locs.push_back(loc);
    } else {
      // Only from what is in memory, even if scopes of the file are unread. GetAllClasses differs.
      Append(imports_list, GetAllInMemoryImports(*per_file));
    }
  }
  if (!db_locs.empty()) {
    Append(imports_list, Db().GetAllImports(db_locs, PrimaryScanName()));
  }
  return imports_list;
}

std::vector<CClassEquiv> CInfoCache::GetAllClasses(const std::vector<Loc>& loc_seq) {
  std::vector<CClassEquiv> cls_list;
  std::vector<Loc> db_locs;
  bool uniquify_needed = false;
  for (const Loc loc : loc_seq) {
    const CPerFilePtr per_file = GetPerFile(loc, false);
    if (per_file == nullptr) {
      db_locs.push_back(loc);
      continue;
    }
    Append(cls_list, GetAllInMemoryClasses(*per_file));
    if (!per_file->GetScopeNamesNotInMemory().empty()) {
      // The database returns again what was already found in memory.
      db_locs.push_back(loc);
      uniquify_needed = true;
    }
  }
  if (!db_locs.empty()) {
    Append(cls_list, Db().GetAllClasses(db_locs, PrimaryScanName()));
    if (uniquify_needed) {
      std::sort(cls_list.begin(), cls_list.end());
      cls_list.erase(std::unique(cls_list.begin(), cls_list.end()), cls_list.end());
    }
  }
  return cls_list;
}

std::vector<CClassEquiv> CInfoCache::GetAllInMemoryClasses(const CPerFileEntry& per_file) {
  std::vector<CClassEquiv> all_classes;
  for (const Text& scope_name : per_file.GetScopeNamesInMemory()) {
    if (scope_name.empty() || IsInstanceScope(scope_name)) {
      continue;
    }
    const auto [parent, leaf] = ParentAndLeafScopeNames(scope_name);
    const CScopeInfoPtr parent_info = GetScopeInfo(per_file.loc, parent);
    if (parent_info == nullptr) {
      continue;
    }
    const auto compound_ibytes = parent_info->type_equivs.Get(RemoveAllScopeIndicies(leaf));
    if (!compound_ibytes) {
      continue;
    }
    ForEachNonNested(*compound_ibytes, kInfoBytesSep, [&](BytesView ibytes) {
      if (ibytes.starts_with(kClassPrefix)) {
        all_classes.push_back(CClassEquiv{per_file.loc, Bytes(ibytes)});
      }
    });
  }
  return all_classes;
}

std::optional<DiskTime> CInfoCache::GetDiskModTimeUsed(Loc loc, bool read_if_needed) {
  if (const CPerFilePtr per_file = GetPerFile(loc, false)) {
    return per_file->disk_mtime;
  }
  return read_if_needed ? std::optional<DiskTime>(GetDiskMTime(loc)) : std::nullopt;
}

bool CInfoCache::HasMergedInfoOf(Loc loc) const {
  return !_fMergedInfoCache.GetDependentKeys(loc, {Text(kWildcardScope)}).empty();
}

}  // namespace pysource::scopeinfo
