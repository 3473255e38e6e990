#include "pysource/standalone/sqlitedb/opening.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <set>
#include <string_view>
#include <system_error>

#include "pysource/standalone/sqlitedb/schema.h"

namespace pysource::standalone::sqlitedb {
namespace {

// Opening happens once and has nobody waiting at the keyboard; another process that makes the same
// database needs some milliseconds.
constexpr int kOpeningWaitMs = 2000;
// Another process can put a file in the place of the one that was just set aside, and so on.
constexpr int kMostTries = 5;

enum class EContent { kOurs, kEmpty, kOtherVersion, kOtherProgram };

struct CInspection {
  EContent content = EContent::kOurs;
  int64_t version = 0;
};

// The statements of kSchema, as SQLite keeps them.
std::set<std::string> SchemaStatements() {
  std::set<std::string> statements;
  const std::string_view schema = kSchema;
  for (size_t begin = schema.find("CREATE"); begin != std::string_view::npos;) {
    const size_t end = schema.find(';', begin);
    statements.emplace(schema.substr(begin, end - begin));
    begin = schema.find("CREATE", end);
  }
  return statements;
}

// To be called within a transaction. Few statements: this is a good part of what it costs to look
// up one scope in a new process.
CInspection InspectInTransaction(CSqliteConnection& connection) {
  const int64_t program = connection.IntOf("PRAGMA application_id");
  const int64_t version = connection.IntOf("PRAGMA user_version");
  const std::set<std::string> ours = SchemaStatements();
  size_t found = 0;
  size_t others = 0;
  size_t of_our_names = 0;
  {
    const auto statement = connection.Prepare(
        "SELECT sql, name IN ('files', 'scans', 'records', 'changes', 'lost') FROM sqlite_master");
    for (CQuery query(statement.get()); query.Step();) {
      (ours.contains(std::string(query.ViewAt(0))) ? found : others) += 1;
      of_our_names += query.IntAt(1) != 0 ? 1 : 0;
    }
  }
  if (program == 0 && version == 0 && found + others == 0) {
    if (connection.IntOf("PRAGMA page_count") > 1) {
      throw CSqliteFailure(SQLITE_CORRUPT, "it has pages, but no tables");
    }
    return {EContent::kEmpty, version};
  }
  const bool is_exact = found == ours.size() && others == 0;
  if (program != kApplicationId) {
    // Ours with a damaged header, where enough of it says so.
    if (is_exact || of_our_names >= 3) {
      throw CSqliteFailure(SQLITE_CORRUPT, "its header does not say that it is ours");
    }
    return {EContent::kOtherProgram, version};
  }
  if (version != kSchemaVersion) {
    return {EContent::kOtherVersion, version};
  }
  if (!is_exact) {
    throw CSqliteFailure(SQLITE_CORRUPT, "its tables are not those of this program");
  }
  return {EContent::kOurs, version};
}

// All that it looks at is of one moment: what another process makes meanwhile is seen whole or not
// at all, and never as tables that nobody has marked as ours.
CInspection Inspect(CSqliteConnection& connection) {
  connection.Execute("BEGIN");
  try {
    const CInspection inspection = InspectInTransaction(connection);
    connection.Execute("COMMIT");
    return inspection;
  } catch (const CSqliteFailure&) {
    connection.RollBack();
    throw;
  }
}

// Makes the tables, unless another process has just done so.
void MakeTables(CSqliteConnection& connection) {
  // Once, now, while nobody else has the file open. A refusal (a file system without shared memory)
  // costs speed, nothing else.
  sqlite3_exec(connection.Handle(), "PRAGMA journal_mode = WAL", nullptr, nullptr, nullptr);
  CWriteTransaction transaction(connection);
  if (InspectInTransaction(connection).content == EContent::kEmpty) {
    connection.Execute(kSchema);
    connection.Execute(("PRAGMA application_id = " + std::to_string(kApplicationId)).c_str());
    connection.Execute(("PRAGMA user_version = " + std::to_string(kSchemaVersion)).c_str());
  }
  transaction.Commit();
}

bool Exists(const std::string& path) {
  struct stat status {};
  return lstat(path.c_str(), &status) == 0;
}

// For a database that lies where not even the files beside it can be made.
std::unique_ptr<CSqliteConnection> OpenImmutable(const std::string& path, CPatience* patience) {
  std::string uri = "file:";
  for (const char c : path) {
    if (std::strchr("%?#", c) != nullptr) {
      std::array<char, 4> escaped{};
      std::snprintf(escaped.data(), escaped.size(), "%%%02X", static_cast<unsigned char>(c));
      uri += escaped.data();
    } else {
      uri += c;
    }
  }
  return std::make_unique<CSqliteConnection>(uri + "?immutable=1",
                                             SQLITE_OPEN_READONLY | SQLITE_OPEN_URI, patience);
}

// For SQLite the file is there and cannot be opened, or is not there and cannot be made.
[[noreturn]] void ThrowCannotOpen(const std::string& path, const std::string& shown,
                                  const CSqliteFailure& failure) {
  const char* const what =
      Exists(path) ? ": the database cannot be opened: " : ": the database cannot be made: ";
  throw CValueError(shown + what + failure.what());
}

// The place is looked at before SQLite opens it: a folder gives a poor message, and a pipe waits
// for ever.
void CheckPlace(const std::string& path, const std::string& shown) {
  struct stat status {};
  if (stat(path.c_str(), &status) == 0) {
    if (S_ISDIR(status.st_mode)) {
      throw CValueError(shown + ": a folder is in the place of the database");
    }
    if (!S_ISREG(status.st_mode)) {
      throw CValueError(shown + ": not a regular file, so it cannot be the database");
    }
    return;
  }
  if (!MakePrivateFolders(std::filesystem::path(path).parent_path().string())) {
    throw CValueError(shown +
                      ": the folder of the database cannot be made: " + std::strerror(errno));
  }
  // Made here, since SQLite would make it for everybody to read. What it makes beside it gets the
  // same rights. That it cannot be made, SQLite says better.
  const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  if (fd >= 0) {
    close(fd);
  }
}

}  // namespace

bool MakePrivateFolders(const std::string& folder) {
  std::error_code error;
  if (folder.empty() || std::filesystem::is_directory(folder, error)) {
    return true;
  }
  if (Exists(folder)) {
    errno = ENOTDIR;
    return false;
  }
  return MakePrivateFolders(std::filesystem::path(folder).parent_path().string()) &&
         (mkdir(folder.c_str(), 0700) == 0 || errno == EEXIST);
}

CFileIdentity IdentityOf(const std::string& path) {
  struct stat status {};
  if (stat(path.c_str(), &status) != 0) {
    return {};
  }
  return {status.st_dev, status.st_ino};
}

std::string SetAside(const std::string& path, const std::string& shown) {
  std::string suffix;
  // The new name is taken by making it, so that two processes do not choose the same one.
  for (int n = 1;; ++n) {
    suffix = ".set-aside-" + std::to_string(n);
    const int fd = open((path + suffix).c_str(), O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (fd >= 0) {
      close(fd);
      break;
    }
    if (errno != EEXIST) {
      throw CValueError(shown + ": the database cannot be set aside: " + std::strerror(errno));
    }
  }
  if (std::rename(path.c_str(), (path + suffix).c_str()) != 0) {
    const int error = errno;
    unlink((path + suffix).c_str());
    throw CValueError(shown + ": the database cannot be set aside: " + std::strerror(error));
  }
  // A log that stayed behind would be taken for that of the new database.
  for (const char* companion : {"-wal", "-shm", "-journal"}) {
    if (Exists(path + companion) &&
        std::rename((path + companion).c_str(), (path + suffix + companion).c_str()) != 0) {
      throw CValueError(shown + companion + ": cannot be set aside: " + std::strerror(errno));
    }
  }
  return shown + suffix;
}

COpenDatabase OpenDatabase(const std::string& path, const std::string& shown, CPatience* patience) {
  COpenDatabase result;
  for (int tries = 0; tries < kMostTries; ++tries) {
    CheckPlace(path, shown);
    std::string reason;
    try {
      std::unique_ptr<CSqliteConnection> connection;
      CInspection inspection;
      try {
        connection = std::make_unique<CSqliteConnection>(
            path, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, patience);
        result.identity = IdentityOf(path);
        connection->LimitWaiting(kOpeningWaitMs);
        inspection = Inspect(*connection);
      } catch (const CSqliteFailure& failure) {
        // Without the right to make the shared-memory file, a database in WAL mode can be read only
        // as one that nobody writes.
        const int primary = failure.fCode & 0xFF;
        const bool no_right = primary == SQLITE_CANTOPEN || primary == SQLITE_READONLY;
        struct stat log {};
        if (!no_right || !Exists(path) ||
            (stat((path + "-wal").c_str(), &log) == 0 && log.st_size != 0)) {
          throw;
        }
        connection = OpenImmutable(path, patience);
        result.identity = IdentityOf(path);
        inspection = Inspect(*connection);
      }
      switch (inspection.content) {
        case EContent::kOtherProgram:
          throw CValueError(shown + ": a database of another program is in the place of ours");
        case EContent::kOtherVersion:
          reason = "its schema version is " + std::to_string(inspection.version) +
                   ", this program uses " + std::to_string(kSchemaVersion);
          break;
        case EContent::kEmpty:
          if (connection->ReadOnly()) {
            throw CValueError(shown + ": the database is empty and cannot be written");
          }
          MakeTables(*connection);
          result.is_new = true;
          inspection = Inspect(*connection);
          if (inspection.content != EContent::kOurs) {
            continue;
          }
          [[fallthrough]];
        case EContent::kOurs:
          connection->Execute("PRAGMA synchronous = NORMAL");
          result.connection = std::move(connection);
          return result;
      }
    } catch (const CSqliteFailure& failure) {
      if (!failure.IsDamage()) {
        ThrowCannotOpen(path, shown, failure);
      }
      reason = std::string("it is damaged (") + failure.what() + ")";
    }
    // The connection has ended. If the file is another one by now, that one is looked at first.
    if (IdentityOf(path) == result.identity) {
      const std::string aside = SetAside(path, shown);
      if (!result.message.empty()) {
        result.message += '\n';
      }
      result.message.append(shown).append(": ").append(reason);
      result.message.append("; it was set aside as ").append(aside);
      result.message.append(" and a new database was begun");
    }
  }
  throw CValueError(shown + ": the database is replaced by another process again and again");
}

}  // namespace pysource::standalone::sqlitedb
