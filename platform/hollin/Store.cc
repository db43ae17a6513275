// A row per bundle, and a row per plug-in that a bundle holds or held. Paths and identifiers are bytes. The
// columns from which queries are answered are taken apart from the facts of a bundle; a bundle whose facts
// are not kept (info IS NULL) is read again. Rows are only ever read as a whole, at start: whatever in them
// is not as it was written counts as damage.

#include "platform/hollin/Store.h"

#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <unordered_set>

#include "platform/hollin/StoreRows.h"
#include "platform/log/Log.h"

namespace platform::hollin {

namespace {

/// How long the identity of a plug-in is kept that is not there, nor registered by path.
constexpr double kForgetAfterSeconds = 30.0 * 24 * 3600;

/// Spilling a large transaction before its end would sync each time.
constexpr const char* kSettings =
    "PRAGMA locking_mode = EXCLUSIVE; PRAGMA synchronous = FULL; PRAGMA mmap_size = 0;"
    "PRAGMA temp_store = MEMORY; PRAGMA cache_spill = OFF; PRAGMA trusted_schema = OFF;";

/// Its transaction ends with the first save, so that a first start syncs once.
constexpr const char* kSchema = R"(
  BEGIN IMMEDIATE;
  CREATE TABLE IF NOT EXISTS bundle (
    id INTEGER PRIMARY KEY,
    path BLOB NOT NULL,
    by_path INTEGER NOT NULL,
    unregistered INTEGER NOT NULL,
    gone REAL NOT NULL,
    info BLOB,
    entitlements_file BLOB,
    multiplexed INTEGER,
    identifier BLOB,
    version BLOB,
    entitlements BLOB
  );
  CREATE TABLE IF NOT EXISTS plugin (
    bundle INTEGER NOT NULL,
    identifier BLOB NOT NULL,
    original_identifier BLOB NOT NULL,
    uuid BLOB NOT NULL,
    registered REAL NOT NULL,
    present INTEGER NOT NULL,
    protocol INTEGER,
    sdk BLOB,
    names BLOB,
    PRIMARY KEY (bundle, identifier)
  ) WITHOUT ROWID;
  PRAGMA user_version = 1;
)";
constexpr int kVersion = 1;

/// What a damaged database takes with it when nothing in memory can replace it.
constexpr const char* kEverythingLost =
    "registrations by path, unregistrations, UUIDs and registration times were lost";

bool isDamage(int code) {
  const int primary = code & 0xFF;
  return primary == SQLITE_CORRUPT || primary == SQLITE_NOTADB || primary == SQLITE_ERROR ||
         primary == SQLITE_MISMATCH || primary == SQLITE_CONSTRAINT;
}

}  // namespace

void Store::Closer::operator()(sqlite3* database) const {
  sqlite3_close_v2(database);
}

void Store::Closer::operator()(sqlite3_stmt* statement) const {
  sqlite3_finalize(statement);
}

Store::~Store() {
  close();
}

void Store::close() {
  writeBundle_.reset();
  removePlugIns_.reset();
  writePlugIn_.reset();
  database_.reset();
}

int Store::execute(const char* statements) {
  return sqlite3_exec(database_.get(), statements, nullptr, nullptr, nullptr);
}

std::string Store::reason(int code) const {
  if (code == SQLITE_MISMATCH) return "it was written by another version";
  if (database_ != nullptr && sqlite3_errcode(database_.get()) == code)
    return sqlite3_errmsg(database_.get());
  return sqlite3_errstr(code);
}

int Store::connect() {
  sqlite3* database = nullptr;
  const int opened = sqlite3_open_v2(
      path_.c_str(), &database, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX, nullptr);
  database_.reset(database);
  if (opened != SQLITE_OK) return opened;
  if (const int code = execute(kSettings); code != SQLITE_OK) return code;
  int64_t version = 0;
  if (const int code = readNumber("PRAGMA user_version", version); code != SQLITE_OK) return code;
  isNew_ = version == 0;
  if (version == kVersion) return checkLength();
  return isNew_ ? execute(kSchema) : SQLITE_MISMATCH;
}

/// The first number that `query` finds.
int Store::readNumber(const char* query, int64_t& number) {
  sqlite3_stmt* prepared = nullptr;
  int code = sqlite3_prepare_v2(database_.get(), query, -1, &prepared, nullptr);
  const Statement statement(prepared);
  if (code != SQLITE_OK) return code;
  code = sqlite3_step(prepared);
  if (code != SQLITE_ROW) return code;
  number = sqlite3_column_int64(prepared, 0);
  return SQLITE_OK;
}

/// The library reads the missing end of a last page as zeros, and finds nothing wrong with them.
int Store::checkLength() {
  int64_t length = 0;
  const int code =
      readNumber("SELECT page_size * page_count FROM pragma_page_size, pragma_page_count", length);
  if (code != SQLITE_OK) return code;
  struct stat status {};
  const bool isWhole = stat(path_.c_str(), &status) == 0 && status.st_size >= length;
  return isWhole ? SQLITE_OK : SQLITE_CORRUPT;
}

int Store::prepareStatements() {
  const auto prepare = [this](Statement& statement, const char* text) {
    sqlite3_stmt* prepared = nullptr;
    const int code =
        sqlite3_prepare_v3(database_.get(), text, -1, SQLITE_PREPARE_PERSISTENT, &prepared, nullptr);
    statement.reset(prepared);
    return code;
  };
  int code = prepare(writeBundle_, "INSERT OR REPLACE INTO bundle VALUES (?,?,?,?,?,?,?,?,?,?,?)");
  if (code == SQLITE_OK) code = prepare(removePlugIns_, "DELETE FROM plugin WHERE bundle = ?");
  if (code == SQLITE_OK) code = prepare(writePlugIn_, "INSERT INTO plugin VALUES (?,?,?,?,?,?,?,?,?)");
  return code;
}

int Store::loadBundles(std::vector<Registration>& registrations, Drafts& drafts) {
  sqlite3_stmt* query = nullptr;
  const int code =
      sqlite3_prepare_v2(database_.get(), "SELECT * FROM bundle ORDER BY id", -1, &query, nullptr);
  const Statement statement(query);
  if (code != SQLITE_OK) return code;
  std::unordered_set<std::string_view> paths;
  for (;;) {
    const int stepped = sqlite3_step(query);
    if (stepped == SQLITE_DONE) return SQLITE_OK;
    if (stepped != SQLITE_ROW) return stepped;
    std::shared_ptr<BundleFacts> facts;
    auto registration = readBundleRow(query, facts);
    if (!registration || !paths.insert(registration->path.view()).second) return SQLITE_CORRUPT;
    registrations.push_back(std::move(*registration));
    drafts.push_back(std::move(facts));
  }
}

/// Both lists are in order of rows.
int Store::loadPlugIns(std::vector<Registration>& registrations, const Drafts& drafts) {
  sqlite3_stmt* query = nullptr;
  const int code = sqlite3_prepare_v2(database_.get(), "SELECT * FROM plugin ORDER BY bundle, identifier", -1,
                                      &query, nullptr);
  const Statement statement(query);
  if (code != SQLITE_OK) return code;
  std::unordered_set<UUID> uuids;
  size_t i = 0;
  for (;;) {
    const int stepped = sqlite3_step(query);
    if (stepped == SQLITE_DONE) break;
    if (stepped != SQLITE_ROW) return stepped;
    const int64_t row = sqlite3_column_int64(query, 0);
    while (i < registrations.size() && registrations[i].row < row) i++;
    if (i == registrations.size() || registrations[i].row != row) return SQLITE_CORRUPT;
    if (!readPlugInRow(query, registrations[i], drafts[i].get())) return SQLITE_CORRUPT;
    if (!uuids.insert(registrations[i].slots.back().uuid).second) return SQLITE_CORRUPT;
  }
  for (const auto& facts : drafts)
    if (facts != nullptr && facts->plugIns.empty()) return SQLITE_CORRUPT;
  return SQLITE_OK;
}

int Store::load(double now, std::vector<Registration>& registrations) {
  int code = connect();
  if (code == SQLITE_OK) code = prepareStatements();
  Drafts drafts;
  if (code == SQLITE_OK) code = loadBundles(registrations, drafts);
  if (code == SQLITE_OK) code = loadPlugIns(registrations, drafts);
  if (code != SQLITE_OK) return code;
  std::string forget;
  std::erase_if(registrations, [&](const Registration& bundle) {
    if (bundle.isByPath || bundle.goneSince == 0 || bundle.goneSince > now - kForgetAfterSeconds)
      return false;
    const std::string row = std::to_string(bundle.row);
    forget += "DELETE FROM plugin WHERE bundle = " + row + "; DELETE FROM bundle WHERE id = " + row + ";";
    return true;
  });
  return forget.empty() ? SQLITE_OK : execute(("BEGIN;" + forget + "COMMIT;").c_str());
}

/// Moves the database's files out of the way; they are never deleted.
void Store::setAside(const char* reason, const char* loss) {
  close();
  std::string aside = path_ + ".damaged-" + std::to_string(std::time(nullptr));
  for (int i = 1; access(aside.c_str(), F_OK) == 0; i++)
    aside = path_ + ".damaged-" + std::to_string(std::time(nullptr)) + "-" + std::to_string(i);
  const bool isMoved = rename(path_.c_str(), aside.c_str()) == 0;
  const int number = errno;
  rename((path_ + "-journal").c_str(), (aside + "-journal").c_str());
  systemLog("the database of registrations at %@ is damaged (%s): %s", path_, reason, loss);
  if (isMoved) {
    systemLog("the damaged database of registrations was kept as %@", aside);
  } else {
    systemLog("cannot move %@: %s", path_, strerror(number));
  }
}

std::optional<Error> Store::open(double now, std::vector<Registration>& registrations) {
  int code = load(now, registrations);
  if (isDamage(code)) {
    setAside(reason(code).c_str(), kEverythingLost);
    registrations.clear();
    code = load(now, registrations);
  }
  if (code == SQLITE_OK) return std::nullopt;
  const std::string text = "cannot open the database of registrations at " + path_ + ": " + reason(code);
  close();
  registrations.clear();
  return Error{"SQLite", code, text};
}

int Store::write(const Registration& registration) {
  const std::optional<std::string> entitlements = keptEntitlements(registration);
  bindBundleRow(writeBundle_.get(), registration, entitlements);
  int code = sqlite3_step(writeBundle_.get());
  sqlite3_reset(writeBundle_.get());
  if (code != SQLITE_DONE) return code;
  if (!registration.isNew) {
    sqlite3_bind_int64(removePlugIns_.get(), 1, registration.row);
    code = sqlite3_step(removePlugIns_.get());
    sqlite3_reset(removePlugIns_.get());
    if (code != SQLITE_DONE) return code;
  }
  for (const Slot& slot : registration.slots) {
    bindPlugInRow(writePlugIn_.get(), registration, slot, entitlements.has_value());
    code = sqlite3_step(writePlugIn_.get());
    sqlite3_reset(writePlugIn_.get());
    if (code != SQLITE_DONE) return code;
  }
  return SQLITE_OK;
}

int Store::writeAll(const std::function<std::vector<Registration>()>& next) {
  if (database_ == nullptr) {
    int code = connect();
    if (code == SQLITE_OK) code = prepareStatements();
    if (code != SQLITE_OK) return code;
  }
  std::vector<Registration> batch = next();
  const bool isBegun = sqlite3_get_autocommit(database_.get()) == 0;
  if (batch.empty() && !isBegun) return SQLITE_OK;
  if (!isBegun)
    if (const int code = execute("BEGIN IMMEDIATE"); code != SQLITE_OK) return code;
  for (; !batch.empty(); batch = next())
    for (const Registration& registration : batch)
      if (const int code = write(registration); code != SQLITE_OK) return code;
  return execute("COMMIT");
}

Store::Saved Store::save(const std::function<std::vector<Registration>()>& next) {
  const int code = writeAll(next);
  if (code == SQLITE_OK) return Saved::yes;
  const std::string text = reason(code);
  if (isDamage(code)) {
    setAside(text.c_str(), "it is written anew from memory");
    return Saved::restart;
  }
  systemLog("cannot save registrations to %@: %s", path_, text);
  close();  // rolls back, and begins anew with the next save
  return Saved::no;
}

}  // namespace platform::hollin
