#pragma once

// The registrations on disk, state/Hollin/Registry.sqlite: one connection, each save one transaction that
// survives power loss. A damaged database is set aside under another name and begun anew. Used by one thread
// at a time (its owner has a lock for it, which no query ever waits for).

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/hollin/Registration.h"
#include "platform/value/Error.h"

struct sqlite3;
struct sqlite3_stmt;

namespace platform::hollin {

class Store {
 public:
  /// `path` is the database's file; its directory exists.
  explicit Store(std::string path) : path_(std::move(path)) {}
  ~Store();
  Store(const Store&) = delete;
  Store& operator=(const Store&) = delete;

  /// Opens the database, making it when there is none, and answers what it holds. What was gone for long is
  /// forgotten. A damaged database is set aside, and the log says what was lost. An error when the place
  /// cannot be used.
  std::optional<Error> open(double now, std::vector<Registration>& registrations);

  /// Whether open() found no database, or a damaged one.
  bool isNew() const { return isNew_; }

  enum class Saved { yes, no, restart };
  /// Writes in one transaction what `next` answers until that is nothing. A new database appears with the
  /// first. `no`: nothing was written, and the log says why. `restart`: the database was damaged and is now
  /// empty; everything is to be saved again.
  Saved save(const std::function<std::vector<Registration>()>& next);

 private:
  struct Closer {
    void operator()(sqlite3* database) const;
    void operator()(sqlite3_stmt* statement) const;
  };
  using Statement = std::unique_ptr<sqlite3_stmt, Closer>;

  /// Facts of the registrations being loaded, while they lack their plug-ins.
  using Drafts = std::vector<std::shared_ptr<BundleFacts>>;

  // Results are SQLite's codes.
  int connect();
  int prepareStatements();
  int load(double now, std::vector<Registration>& registrations);
  int loadBundles(std::vector<Registration>& registrations, Drafts& drafts);
  int loadPlugIns(std::vector<Registration>& registrations, const Drafts& drafts);
  int write(const Registration& registration);
  int writeAll(const std::function<std::vector<Registration>()>& next);
  int execute(const char* statements);
  int readNumber(const char* query, int64_t& number);
  int checkLength();
  void close();
  void setAside(const char* reason, const char* loss);
  std::string reason(int code) const;

  const std::string path_;
  bool isNew_ = false;
  std::unique_ptr<sqlite3, Closer> database_;
  Statement writeBundle_, removePlugIns_, writePlugIn_;
};

}  // namespace platform::hollin
