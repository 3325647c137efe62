#include "cache/resume_database.h"

#include <vector>

#include "cache/database_file.h"
#include "cache/sqlite_transaction.h"
#include "core/kovo_error.h"
#include "log/kovo_log.h"
#include "platform/kovo_utils.h"

namespace kovo {
namespace {

constexpr char kConstructor[] = "kovo::SqliteResumeCache::SqliteResumeCache";
constexpr char kCreateTables[] = "kovo::SqliteResumeCache::createTables";
constexpr char kSchemaVersion[] = "2.0";
constexpr int kBusyMilliseconds = 2000;

// A row is a few hundred bytes and dirties one page of its table and one of the index: small pages
// keep what goes into the write-ahead log per row small.
constexpr char kPageSize[] = "PRAGMA page_size=1024";
// In pages: a checkpoint, and with it an fsync on a download's path, about every 1,500 rows. Lower
// makes downloads wait more often, higher makes opening after a crash slower.
constexpr char kCheckpointInterval[] = "PRAGMA wal_autocheckpoint=4000";
constexpr char kLogSizeLimit[] = "PRAGMA journal_size_limit=4194304";

struct TableStatement {
  const char* sql;
  const char* created;
  const char* failed;
};

constexpr char kDownloadTable[] =
    "CREATE TABLE DownloadChunkStatus (id integer primary key asc, filePath text NOT NULL, eTag "
    "text DEFAULT \"\", firstByte integer)";
constexpr char kResponseTable[] =
    "CREATE TABLE ResponseTable (id integer primary key asc, filePath text NOT NULL, response text "
    "NOT NULL, md5Sum text NOT NULL, timeUploaded integer NOT NULL)";
constexpr char kUploadTable[] =
    "CREATE TABLE UploadChunkStatus (id integer primary key asc, filePath text NOT NULL, "
    "chunkNumber integer NOT NULL, eTag text NOT NULL)";
constexpr char kVersionTable[] = "CREATE TABLE VersionTable (version text NOT NULL)";
constexpr TableStatement kTables[] = {
    {kDownloadTable, "SqliteResumeCache::createTables downloadChunkStatus successfully created",
     "SqliteResumeCache::createTables downloadChunkStatus table not created: createresult : %d"},
    {kResponseTable, "SqliteResumeCache::createTables Response table successfully created",
     "SqliteResumeCache::createTables Response table not created: createresult : %d"},
    {kUploadTable, "SqliteResumeCache::createTables uploadChunkStatus successfully created",
     "SqliteResumeCache::createTables uploadChunkStatus table not created: createresult : %d"},
    {kVersionTable, "SqliteResumeCache::createTables VersionTable successfully created",
     "SqliteResumeCache::createTables Version table not created: createresult : %d"},
};

// What the four tables do not hold, and the indices that keep a look-up from reading all rows.
constexpr char kGeometryTable[] =
    "CREATE TABLE IF NOT EXISTS DownloadGeometry (filePath text PRIMARY KEY NOT NULL, resource "
    "text NOT NULL, rangeStart integer NOT NULL, chunkSize integer NOT NULL, totalLength integer "
    "NOT NULL, bootId text NOT NULL, synced integer NOT NULL, updated integer NOT NULL) WITHOUT "
    "ROWID";
constexpr char kTargetTable[] =
    "CREATE TABLE IF NOT EXISTS UploadTarget (filePath text PRIMARY KEY NOT NULL, target text NOT "
    "NULL, updated integer NOT NULL) WITHOUT ROWID";
constexpr const char* kSideStatements[] = {
    kGeometryTable,
    kTargetTable,
    "CREATE INDEX IF NOT EXISTS downloadPathIndex ON DownloadChunkStatus(filePath)",
    "CREATE INDEX IF NOT EXISTS responsePathIndex ON ResponseTable(filePath)",
    "CREATE INDEX IF NOT EXISTS uploadPathIndex ON UploadChunkStatus(filePath)",
};
constexpr char kCountSideObjects[] =
    "SELECT COUNT(*) FROM sqlite_master WHERE name IN ('DownloadGeometry', 'UploadTarget', "
    "'downloadPathIndex', 'responsePathIndex', 'uploadPathIndex')";
constexpr char kSideObjectCount[] = "5";

enum class Condition { Current, OtherVersion, Damaged, Unusable };

bool isDamage(int result) {
  return result == SQLITE_NOTADB || result == SQLITE_CORRUPT;
}

std::string readVersion(SqliteConnection& connection, int& result) {
  SqliteStatement statement = connection.prepare("SELECT version FROM VersionTable");
  std::string version;
  result = statement.step();
  while (result == SQLITE_ROW) {
    version = statement.text(statement.columnCount() - 1);
    result = statement.step();
  }
  return version;
}

Condition examine(SqliteConnection& connection) {
  if (connection.holdsForeignCode()) {
    return Condition::Damaged;
  }
  int result = SQLITE_OK;
  const std::string version = readVersion(connection, result);
  if (isDamage(result)) {
    return Condition::Damaged;
  }
  if (result != SQLITE_DONE && result != SQLITE_ERROR) {  // SQLITE_ERROR: there is no such table
    return Condition::Unusable;
  }
  if (result == SQLITE_ERROR || version != kSchemaVersion) {
    return Condition::OtherVersion;
  }
  return connection.queryText("PRAGMA quick_check(1)") == "ok" ? Condition::Current
                                                               : Condition::Damaged;
}

bool openConnection(SqliteConnection& connection, const std::string& path) {
  if (connection.open(path, kBusyMilliseconds) != SQLITE_OK) {
    KOVO_LOG(KOVO_LOG_ERROR, kConstructor,
             "SqliteResumeCache::SqliteResumeCache Can't open database");
    return false;
  }
  // A damaged file refuses these, and is found out when its version is read. Under NORMAL a row
  // is in the hands of the kernel when its statement ends, but is not waited for.
  connection.execute(kPageSize);
  connection.execute("PRAGMA journal_mode=WAL");
  connection.execute("PRAGMA synchronous=NORMAL");
  connection.execute(kCheckpointInterval);
  connection.execute(kLogSizeLimit);
  connection.execute("PRAGMA secure_delete=ON");  // stored answers hold credentials
  connection.execute("PRAGMA trusted_schema=OFF");
  KOVO_LOG(KOVO_LOG_WARN, kConstructor,
           "SqliteResumeCache::SqliteResumeCache sqliteResumeTransfer.db successfully opened");
  return true;
}

int dropEverything(SqliteConnection& connection) {
  std::vector<std::string> drops;
  {
    SqliteStatement statement = connection.prepare(
        "SELECT 'DROP ' || type || ' IF EXISTS \"' || replace(name, '\"', '\"\"') || '\"' FROM "
        "sqlite_master WHERE type IN ('table', 'view') AND name NOT LIKE 'sqlite\\_%' ESCAPE '\\'");
    int result = statement.step();
    for (; result == SQLITE_ROW; result = statement.step()) {
      drops.push_back(statement.text(0));
    }
    if (result != SQLITE_DONE) {
      return result;
    }
  }
  for (const std::string& drop : drops) {
    const int result = connection.execute(drop);
    if (result != SQLITE_DONE) {
      return result;
    }
  }
  return SQLITE_DONE;
}

int createSideTables(SqliteConnection& connection) {
  for (const char* sql : kSideStatements) {
    const int result = connection.execute(sql);
    if (result != SQLITE_DONE) {
      KOVO_LOG(KOVO_LOG_ERROR, kCreateTables, "Side tables not created: createresult : %d", result);
      return result;
    }
  }
  return SQLITE_DONE;
}

int logFailedTable(const TableStatement& table, int result) {
  KOVO_LOG(KOVO_LOG_ERROR, kCreateTables, table.failed, result);
  return result;
}

// In one transaction: another process that opens meanwhile sees no tables, or all of them, and two
// that make them at once find the second time that it is done.
int createTables(SqliteConnection& connection, const std::string& path) {
  KOVO_LOG(KOVO_LOG_INFO, kCreateTables,
           "SqliteResumeCache::createTables sqliteResumeTransfer.db being created in %s",
           path.c_str());
  SqliteTransaction transaction(connection);
  int result = transaction.begin();
  if (result != SQLITE_DONE) {
    return logFailedTable(kTables[0], result);
  }
  int versionResult = SQLITE_OK;
  if (readVersion(connection, versionResult) == kSchemaVersion && versionResult == SQLITE_DONE) {
    KOVO_LOG(KOVO_LOG_INFO, kCreateTables, "Another process has created the tables");
    return SQLITE_DONE;
  }
  result = dropEverything(connection);
  if (result != SQLITE_DONE) {
    return logFailedTable(kTables[0], result);
  }
  for (const TableStatement& table : kTables) {
    result = connection.execute(table.sql);
    if (result != SQLITE_DONE) {
      return logFailedTable(table, result);
    }
    KOVO_LOG(KOVO_LOG_INFO, kCreateTables, "%s", table.created);
  }
  result = connection.prepare("INSERT INTO VersionTable(version) VALUES (?)")
               .bind(1, kSchemaVersion)
               .step();
  if (result == SQLITE_DONE) {
    result = createSideTables(connection);
  }
  if (result == SQLITE_DONE) {
    result = transaction.commit();
  }
  if (result != SQLITE_DONE) {
    KOVO_LOG(KOVO_LOG_ERROR, kCreateTables,
             "SqliteResumeCache::createTables insertVersion SQL error inserting version:sqlite "
             "status %d",
             result);
    return result;
  }
  KOVO_LOG(KOVO_LOG_INFO, kCreateTables,
           "SqliteResumeCache::createTables insertVersion successful");
  return SQLITE_DONE;
}

// Puts an empty file in the place of a damaged one and opens it. A process that was faster has done
// so already, and its database stays.
bool replaceDamaged(SqliteConnection& connection, const std::string& path) {
  KOVO_LOG(KOVO_LOG_WARN, kConstructor, "%s is damaged and will be replaced", path.c_str());
  connection.closeAtOnce();
  DatabaseReplacementLock lock(path);
  if (!lock.isHeld() || !openConnection(connection, path)) {
    return false;
  }
  if (examine(connection) != Condition::Damaged) {
    return true;
  }
  connection.closeAtOnce();
  removeDatabaseFiles(path);
  return openConnection(connection, path);
}

bool completeSideTables(SqliteConnection& connection) {
  if (connection.queryText(kCountSideObjects) == kSideObjectCount) {
    return true;
  }
  SqliteTransaction transaction(connection);
  return transaction.begin() == SQLITE_DONE && createSideTables(connection) == SQLITE_DONE &&
         transaction.commit() == SQLITE_DONE;
}

bool prepareTables(SqliteConnection& connection, const std::string& path, bool existed) {
  Condition condition = existed ? examine(connection) : Condition::OtherVersion;
  if (condition == Condition::Damaged) {
    if (!replaceDamaged(connection, path)) {
      return false;
    }
    condition = examine(connection);
  }
  if (condition == Condition::Current) {
    return completeSideTables(connection);
  }
  if (condition != Condition::OtherVersion) {
    return false;
  }
  int result = createTables(connection, path);
  if (isDamage(result) && replaceDamaged(connection, path)) {
    result = createTables(connection, path);
  }
  if (result != SQLITE_DONE) {
    KOVO_LOG(KOVO_LOG_ERROR, kConstructor,
             "SqliteResumeCache::SqliteResumeCache sqliteResumeTransfer.db tables could not be "
             "created");
    return false;
  }
  KOVO_LOG(KOVO_LOG_WARN, kConstructor,
           "SqliteResumeCache::SqliteResumeCache sqliteResumeTransfer.db successfully created");
  return true;
}

}  // namespace

std::unique_ptr<SqliteConnection> openResumeDatabase(const std::string& path) {
  std::uint64_t size = 0;
  std::int64_t modificationTime = 0;
  std::shared_ptr<KovoError> error;
  const bool existed = getFileStat(path, size, modificationTime, error);
  auto connection = std::make_unique<SqliteConnection>();
  if (!openConnection(*connection, path) || !prepareTables(*connection, path, existed)) {
    return nullptr;
  }
  return connection;
}

}  // namespace kovo
