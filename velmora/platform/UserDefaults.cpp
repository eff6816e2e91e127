#include "velmora/platform/UserDefaults.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <ctime>
#include <filesystem>
#include <functional>
#include <limits>
#include <map>
#include <mutex>
#include <set>

#include "velmora/platform/Environment.h"
#include "velmora/platform/FileManager.h"
#include "velmora/platform/Format.h"
#include "velmora/platform/SystemLog.h"

namespace velmora::platform {

namespace fs = std::filesystem;

namespace {

// Values by suite and key; no value: the key is removed.
using SuiteRows =
    std::map<std::string, std::map<std::string, std::optional<PropertyValue>, std::less<>>, std::less<>>;

// The changes of a transaction under way, kept apart from the shared view until they are committed.
struct StagedChanges {
    std::set<std::string, std::less<>> removedSuites;
    SuiteRows values;
};

using Values = std::map<std::string, PropertyValue, std::less<>>;

// The transaction this thread runs, if any: the user defaults it touches go through its changes.
struct ActiveTransaction {
    const DefaultsDatabase* database = nullptr;
    StagedChanges* changes = nullptr;
};
thread_local ActiveTransaction activeTransaction;

// How late a read may be to see what another process committed. Writes are never late.
constexpr std::chrono::milliseconds readRefreshInterval{10};

// A monotonic clock that costs a few nanoseconds to read and is exact to a few milliseconds.
std::int64_t coarseMilliseconds() {
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return static_cast<std::int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1'000'000;
}

}  // namespace

// The in-memory view of every suite of one database file and the connection that persists it. The view
// follows the file: every read and every write first loads what other connections (other processes) have
// committed since, and every write is a read-modify-write under the database's write lock.
// Lock order: connectionMutex_ before stateMutex_.
class DefaultsDatabase {
  public:
    explicit DefaultsDatabase(std::optional<fs::path> file) : file_(std::move(file)) {
        if (!file_) {
            systemLogLine(LogLevel::warn, "UserDefaults: no data directory; values are kept in memory only");
            return;
        }
        // No lock: no other thread can see the object yet, and the registry's lock is held while it is made,
        // which a transaction (holding connectionMutex_) takes too when it opens a store.
        openConnection(true);
    }

    ~DefaultsDatabase() { closeConnection(); }

    DefaultsDatabase(const DefaultsDatabase&) = delete;
    DefaultsDatabase& operator=(const DefaultsDatabase&) = delete;

    UserDefaults::Lookup lookup(std::string_view suite, std::string_view key) {
        if (const auto* staged = stagedHere()) {
            UserDefaults::Lookup found{std::unique_lock(stateMutex_), nullptr};
            if (const auto s = staged->values.find(suite); s != staged->values.end()) {
                if (const auto v = s->second.find(key); v != s->second.end()) {
                    found.value = v->second ? &*v->second : nullptr;
                    return found;
                }
            }
            if (staged->removedSuites.contains(suite)) {
                return found;
            }
            return lookupInView(std::move(found.lock), suite, key);
        }
        // Asking the file costs microseconds, a read from memory nanoseconds: a read asks at most every
        // readRefreshInterval, so it sees another process's commits that much late at most. It never waits
        // for a write of this process, which loads the file's news itself.
        if (const auto now = coarseMilliseconds();
            now - lastReadRefresh_.load(std::memory_order_relaxed) >= readRefreshInterval.count()) {
            const LogsAfterUnlock logs;
            if (std::unique_lock connection(connectionMutex_, std::try_to_lock); connection.owns_lock()) {
                lastReadRefresh_.store(now, std::memory_order_relaxed);
                refreshOrLog();
            }
        }
        return lookupInView(std::unique_lock(stateMutex_), suite, key);
    }

    UserDefaults::Lookup lookupInView(std::unique_lock<std::mutex> lock, std::string_view suite,
                                      std::string_view key) {
        UserDefaults::Lookup found{std::move(lock), nullptr};
        if (const auto s = suites_.find(suite); s != suites_.end()) {
            if (const auto v = s->second.values.find(key); v != s->second.values.end()) {
                found.value = &v->second;
            }
        }
        return found;
    }

    void set(std::string_view suite, std::string_view key, std::optional<PropertyValue> value) {
        if (auto* staged = stagedHere()) {
            staged->values[std::string(suite)].insert_or_assign(std::string(key), std::move(value));
            return;
        }
        std::lock_guard state(stateMutex_);
        auto& s = suites_[std::string(suite)];
        setOrRemove(s.values, std::string(key), value);
        s.pending.insert_or_assign(std::string(key), Pending{std::move(value), ++generation_});
    }

    bool synchronize(std::string_view suite) {
        if (stagedHere() != nullptr) {
            return true;  // the enclosing transaction commits the changes, or none of them
        }
        const LogsAfterUnlock logs;  // a host log sink may use the store
        std::lock_guard connection(connectionMutex_);
        std::map<std::string, Pending, std::less<>> snapshot;
        {
            std::lock_guard state(stateMutex_);
            const auto s = suites_.find(suite);
            if (s == suites_.end() || s->second.pending.empty()) {
                return true;
            }
            snapshot = s->second.pending;
        }
        if (!writeWithRecovery([&] {
                return inTransaction([&] {
                    std::vector<std::pair<std::string_view, const std::optional<PropertyValue>&>> rows;
                    for (const auto& [key, change] : snapshot) {
                        rows.emplace_back(key, change.value);
                    }
                    return writeRows(suite, rows);
                });
            })) {
            return false;
        }
        std::lock_guard state(stateMutex_);
        auto& pending = suites_[std::string(suite)].pending;
        for (const auto& [key, written] : snapshot) {
            // A change made while the transaction ran is still pending; it goes with the next synchronize.
            if (const auto it = pending.find(key);
                it != pending.end() && it->second.generation == written.generation) {
                pending.erase(it);
            }
        }
        return true;
    }

    void removeDomain(std::string_view suite) {
        if (auto* staged = stagedHere()) {
            staged->values.erase(std::string(suite));
            staged->removedSuites.emplace(suite);
            return;
        }
        const LogsAfterUnlock logs;  // a host log sink may use the store
        std::lock_guard connection(connectionMutex_);
        {
            std::lock_guard state(stateMutex_);
            suites_.erase(std::string(suite));
        }
        writeWithRecovery([&] { return inTransaction([&] { return removeSuite(suite); }); });
    }

    // Runs `body` with every change it makes through the user defaults staged, then commits them at once.
    // The write lock is held from before the body reads anything, so what it read is what it changes.
    bool transaction(const std::function<void()>& body) {
        if (stagedHere() != nullptr) {
            body();  // part of the enclosing transaction
            return true;
        }
        const LogsAfterUnlock logs;  // a host log sink may use the store
        std::lock_guard connection(connectionMutex_);
        StagedChanges staged;
        const int beginning = db_ != nullptr ? begin() : SQLITE_CANTOPEN;
        const bool began = beginning == SQLITE_OK;
        activeTransaction = {this, &staged};
        try {
            body();
        } catch (...) {
            activeTransaction = {};
            if (began) {
                sqlite3_exec(db_, "ROLLBACK", nullptr, nullptr, nullptr);
            }
            throw;
        }
        activeTransaction = {};
        if (staged.values.empty() && staged.removedSuites.empty()) {
            if (began) {
                sqlite3_exec(db_, "COMMIT", nullptr, nullptr, nullptr);
            }
            return true;  // nothing to store, so nothing can be lost: even a file that cannot be written will
                          // do
        }
        const auto writeStaged = [&] {
            for (const auto& suite : staged.removedSuites) {
                if (const int code = removeSuite(suite); code != SQLITE_OK) {
                    return code;
                }
            }
            return writeSuites(staged.values);
        };
        bool committed = false;
        if (began) {
            int code = writeStaged();
            code = code == SQLITE_OK ? commit() : rollback();
            committed = code == SQLITE_OK ||
                        (isCorruption(code) && recoverAndRetry([&] { return inTransaction(writeStaged); }));
            if (!committed && !isCorruption(code)) {
                logWriteFailure(code);
            }
        } else if (db_ != nullptr) {
            logWriteFailure(beginning);
        } else if (!file_) {
            committed = true;  // a host without a data directory keeps its values in memory by choice
        }
        if (committed) {
            apply(staged);
        }
        return committed;
    }

  private:
    struct Pending {
        std::optional<PropertyValue> value;  // empty: removed
        std::uint64_t generation;
    };
    struct Suite {
        Values values;
        std::map<std::string, Pending, std::less<>> pending;
    };

    bool isCorruption(int code) const { return code == SQLITE_CORRUPT || code == SQLITE_NOTADB; }

    // Runs a write; when the file turns out to be damaged, moves it aside, starts a fresh file holding
    // everything the process knows, and tries once more.
    template <class Write>
    bool writeWithRecovery(Write&& write) {
        if (db_ == nullptr) {
            return false;
        }
        const int code = write();
        if (code == SQLITE_OK) {
            return true;
        }
        if (!isCorruption(code)) {
            logWriteFailure(code);
            return false;
        }
        return recoverAndRetry(write);
    }

    void logWriteFailure(int code) const {
        systemLogLine(LogLevel::error,
                      format("UserDefaults: writing %@ failed: %@", file_->string(), sqlite3_errstr(code)));
    }

    template <class Write>
    bool recoverAndRetry(Write&& write) {
        moveAside("the file is damaged");
        if (!openConnection(false)) {
            return false;
        }
        return rewriteEverything() == SQLITE_OK && write() == SQLITE_OK;
    }

    StagedChanges* stagedHere() const {
        return activeTransaction.database == this ? activeTransaction.changes : nullptr;
    }

    // Called with connectionMutex_ held: loads the file again when another connection committed to it since
    // this one last loaded it, and the first time. Changes of this process not yet synchronized stay on top.
    int refresh() {
        auto* statement = prepared(dataVersion_);
        if (statement == nullptr) {
            return sqlite3_errcode(db_);
        }
        const int code = sqlite3_step(statement);
        const auto version = code == SQLITE_ROW ? sqlite3_column_int64(statement, 0) : -1;
        sqlite3_reset(statement);
        if (version >= 0 && version == loadedVersion_) {
            return SQLITE_OK;
        }
        const int loaded = loadAll();
        if (loaded == SQLITE_OK) {
            loadedVersion_ = version;
        }
        return loaded;
    }

    // A refresh whose failure leaves the view as it is, with an error line.
    void refreshOrLog() {
        if (db_ == nullptr) {
            return;
        }
        if (const int code = refresh(); code != SQLITE_OK) {
            systemLogLine(LogLevel::error, format("UserDefaults: reading %@ failed: %@", file_->string(),
                                                  sqlite3_errstr(code)));
        }
    }

    // Applies committed changes to the shared view; they replace any pending change of the same key.
    void apply(const StagedChanges& staged) {
        std::lock_guard state(stateMutex_);
        for (const auto& suite : staged.removedSuites) {
            suites_.erase(suite);
        }
        for (const auto& [suite, rows] : staged.values) {
            auto& s = suites_[suite];
            for (const auto& [key, value] : rows) {
                setOrRemove(s.values, key, value);
                s.pending.erase(key);
            }
        }
    }

    // Called with connectionMutex_ held. `load`: read every stored suite into memory.
    bool openConnection(bool load) {
        std::error_code ignored;
        if (auto error = FileManager::createDirectory(file_->parent_path(), fs::perms::owner_all)) {
            systemLogLine(LogLevel::error,
                          "UserDefaults: cannot create the data directory: " + error->localizedDescription());
            return false;
        }
        for (int attempt = 0; attempt < 2; ++attempt) {
            // Created by hand, also after a corrupt file was moved aside, so that neither the file nor the
            // -wal and -shm files SQLite gives its permissions ever exist with wider ones.
            FileManager::makePrivateFile(*file_);
            int code =
                sqlite3_open_v2(file_->c_str(), &db_, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr);
            if (code == SQLITE_OK) {
                // Another process's write is waited for, polling often so that a process writing again
                // and again cannot keep this one out, and for 5 s at most.
                sqlite3_busy_handler(
                    db_,
                    [](void*, int tries) {
                        constexpr int attempts = 10'000;
                        if (tries >= attempts) {
                            return 0;
                        }
                        ::usleep(500);
                        return 1;
                    },
                    nullptr);
                code = setUp(load);
                // Some lock conflicts of a file being set up by another process at the same moment (its
                // journal mode changing, its log being recovered) come back at once, without the busy
                // handler: try again, for 5 s at most.
                for (int tries = 0; code == SQLITE_BUSY && tries < 5000; ++tries) {
                    ::usleep(1000);
                    code = setUp(load);
                }
            }
            if (code == SQLITE_OK) {
                return true;
            }
            const std::string reason = db_ != nullptr ? sqlite3_errmsg(db_) : sqlite3_errstr(code);
            if (!isCorruption(code) || attempt > 0) {
                systemLogLine(LogLevel::error,
                              format("UserDefaults: cannot open %@: %@", file_->string(), reason));
                closeConnection();
                return false;
            }
            moveAside(reason);
        }
        return false;
    }

    // Prepares a fresh connection; with `load`, reads every stored suite into memory.
    int setUp(bool load) {
        int code = sqlite3_exec(db_, "PRAGMA synchronous = FULL", nullptr, nullptr, nullptr);
        if (code == SQLITE_OK && load) {
            code = refresh();
        }
        if (code == SQLITE_ERROR || (code == SQLITE_OK && !load)) {
            // A new file (no table to load from yet), or a fresh one after recovery: set it up. A file this
            // library made is set up already, and asking again costs a launch more than the load.
            code = prepareSchema();
            if (code == SQLITE_OK && load) {
                code = refresh();
            }
        }
        return code;
    }

    void closeConnection() {
        for (auto* statement : {&dataVersion_, &upsert_, &removeKey_, &removeSuite_}) {
            sqlite3_finalize(statement->handle);
            statement->handle = nullptr;
        }
        loadedVersion_ = -1;
        if (db_ != nullptr) {
            sqlite3_close_v2(db_);
            db_ = nullptr;
        }
    }

    void moveAside(const std::string& reason) {
        closeConnection();
        const auto stamp = std::to_string(Date::now().millisecondsSince1970());
        const fs::path aside = file_->string() + ".corrupt-" + stamp;
        std::error_code error;
        fs::rename(*file_, aside, error);
        std::error_code ignored;
        fs::permissions(aside, fs::perms::owner_read | fs::perms::owner_write, ignored);
        for (const char* suffix : {"-wal", "-shm"}) {
            fs::rename(file_->string() + suffix, aside.string() + suffix, ignored);
            fs::permissions(aside.string() + suffix, fs::perms::owner_read | fs::perms::owner_write, ignored);
        }
        systemLogLine(
            LogLevel::error,
            format("UserDefaults error: %@ is not a valid database (%@); moved it to %@ and started "
                   "an empty one",
                   file_->string(), reason,
                   error ? std::string("nowhere: ") + error.message() : aside.string()));
        if (error) {
            fs::remove(*file_, error);
        }
    }

    int prepareSchema() {
        // WAL with full sync: one fsync per commit, and readers of the file never block the writer.
        for (const char* sql :
             {"PRAGMA journal_mode = WAL",
              "CREATE TABLE IF NOT EXISTS defaults (suite TEXT NOT NULL, key TEXT NOT NULL, "
              "value BLOB NOT NULL, PRIMARY KEY (suite, key)) WITHOUT ROWID"}) {
            if (const int code = sqlite3_exec(db_, sql, nullptr, nullptr, nullptr); code != SQLITE_OK) {
                return sqlite3_errcode(db_);
            }
        }
        return SQLITE_OK;
    }

    int loadAll() {
        sqlite3_stmt* statement = nullptr;
        int code = sqlite3_prepare_v2(db_, "SELECT suite, key, value FROM defaults", -1, &statement, nullptr);
        std::map<std::string, Suite, std::less<>> loaded;
        while (code == SQLITE_OK || code == SQLITE_ROW) {
            code = sqlite3_step(statement);
            if (code != SQLITE_ROW) {
                break;
            }
            const auto* suite = reinterpret_cast<const char*>(sqlite3_column_text(statement, 0));
            const auto* key = reinterpret_cast<const char*>(sqlite3_column_text(statement, 1));
            const Data bytes(sqlite3_column_blob(statement, 2),
                             static_cast<std::size_t>(sqlite3_column_bytes(statement, 2)));
            auto value = decodeBinaryPropertyList(bytes);
            if (suite == nullptr || key == nullptr || !value) {
                systemLogLine(LogLevel::error,
                              format("UserDefaults: skipped an unreadable value in %@", file_->string()));
                continue;
            }
            loaded[suite].values.insert_or_assign(key, std::move(*value));
        }
        sqlite3_finalize(statement);
        if (code != SQLITE_DONE) {
            return code == SQLITE_OK ? SQLITE_ERROR : code;
        }
        std::lock_guard state(stateMutex_);
        for (auto& [name, suite] : suites_) {
            if (suite.pending.empty()) {
                continue;
            }
            auto& fresh = loaded[name];
            for (const auto& [key, change] : suite.pending) {
                setOrRemove(fresh.values, key, change.value);
            }
            fresh.pending = std::move(suite.pending);
        }
        suites_ = std::move(loaded);
        return SQLITE_OK;
    }

    // A statement of the connection, prepared on its first use and kept until the connection closes; null
    // when it cannot be prepared (the connection's error code says why).
    struct Statement {
        explicit Statement(const char* text) : sql(text) {}
        const char* sql;
        sqlite3_stmt* handle = nullptr;
    };

    sqlite3_stmt* prepared(Statement& statement) {
        if (statement.handle == nullptr) {
            sqlite3_prepare_v2(db_, statement.sql, -1, &statement.handle, nullptr);
        }
        return statement.handle;
    }

    // Runs a statement that returns no rows, and resets it for its next use.
    int run(sqlite3_stmt* statement) {
        const int code = sqlite3_step(statement) == SQLITE_DONE ? SQLITE_OK : sqlite3_errcode(db_);
        sqlite3_reset(statement);
        return code;
    }

    int removeSuite(std::string_view suite) {
        auto* statement = prepared(removeSuite_);
        if (statement == nullptr) {
            return sqlite3_errcode(db_);
        }
        sqlite3_bind_text(statement, 1, suite.data(), static_cast<int>(suite.size()), SQLITE_STATIC);
        return run(statement);
    }

    template <class Rows>
    int writeRows(std::string_view suite, const Rows& rows) {
        for (const auto& [key, value] : rows) {
            auto* statement = prepared(value ? upsert_ : removeKey_);
            if (statement == nullptr) {
                return sqlite3_errcode(db_);
            }
            sqlite3_bind_text(statement, 1, suite.data(), static_cast<int>(suite.size()), SQLITE_STATIC);
            sqlite3_bind_text(statement, 2, key.data(), static_cast<int>(key.size()), SQLITE_STATIC);
            Data bytes;
            if (value) {
                bytes = encodeBinaryPropertyList(*value);
                sqlite3_bind_blob(statement, 3, bytes.data(), static_cast<int>(bytes.size()), SQLITE_STATIC);
            }
            if (const int code = run(statement); code != SQLITE_OK) {
                return code;
            }
        }
        return SQLITE_OK;
    }

    int writeSuites(const SuiteRows& suites) {
        for (const auto& [suite, rows] : suites) {
            if (const int code = writeRows(suite, rows); code != SQLITE_OK) {
                return code;
            }
        }
        return SQLITE_OK;
    }

    // Takes the write lock (waiting a bounded time for another process's write) and loads what was
    // committed before it, so that nothing written afterwards rests on an old view.
    int begin() {
        if (sqlite3_exec(db_, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr) != SQLITE_OK) {
            return sqlite3_extended_errcode(db_) & 0xFF;
        }
        // A view that could not be brought up to date must not be written back.
        if (const int code = refresh(); code != SQLITE_OK) {
            sqlite3_exec(db_, "ROLLBACK", nullptr, nullptr, nullptr);
            return code;
        }
        return SQLITE_OK;
    }

    int commit() {
        return sqlite3_exec(db_, "COMMIT", nullptr, nullptr, nullptr) == SQLITE_OK ? SQLITE_OK : rollback();
    }

    int rollback() {
        const int code = sqlite3_extended_errcode(db_) & 0xFF;
        sqlite3_exec(db_, "ROLLBACK", nullptr, nullptr, nullptr);
        return code == SQLITE_OK ? SQLITE_ERROR : code;
    }

    template <class Body>
    int inTransaction(Body&& body) {
        int code = begin();
        if (code == SQLITE_OK) {
            code = body();
        }
        return code == SQLITE_OK ? commit() : (code == SQLITE_BUSY ? code : rollback());
    }

    // After recovery: the fresh file gets every value this process holds, pending or not.
    int rewriteEverything() {
        SuiteRows copy;
        {
            std::lock_guard state(stateMutex_);
            for (const auto& [suite, s] : suites_) {
                for (const auto& [key, value] : s.values) {
                    copy[suite].emplace(key, value);
                }
            }
        }
        return inTransaction([&] { return writeSuites(copy); });
    }

    const std::optional<fs::path> file_;
    std::mutex connectionMutex_;
    sqlite3* db_ = nullptr;
    std::mutex stateMutex_;
    std::map<std::string, Suite, std::less<>> suites_;
    std::uint64_t generation_ = 0;
    Statement dataVersion_{"PRAGMA data_version"};
    Statement upsert_{"INSERT OR REPLACE INTO defaults (suite, key, value) VALUES (?1, ?2, ?3)"};
    Statement removeKey_{"DELETE FROM defaults WHERE suite = ?1 AND key = ?2"};
    Statement removeSuite_{"DELETE FROM defaults WHERE suite = ?1"};
    std::atomic<std::int64_t> lastReadRefresh_{std::numeric_limits<std::int64_t>::min() / 2};
    sqlite3_int64 loadedVersion_ = -1;
};

namespace {

// One database per file for the whole process, so every handle on a suite sees the same values. Kept open
// until the process ends: closing it when the last handle goes would drop changes not yet synchronized.
std::shared_ptr<DefaultsDatabase> databaseForCurrentEnvironment() {
    static auto* mutex = new std::mutex();
    static auto* databases = new std::map<std::string, std::shared_ptr<DefaultsDatabase>>();
    static auto* memoryOnly = new std::shared_ptr<DefaultsDatabase>();
    // Every store a request builds asks for its database: the last environment's is kept, so that only a
    // replaced environment costs a path and a lookup. A weak reference, so that the host's callbacks in a
    // replaced environment are not kept alive, and an expired one never matches a new one at its address.
    static auto* lastEnvironment = new std::weak_ptr<const Environment>();
    static auto* lastDatabase = new std::shared_ptr<DefaultsDatabase>();

    auto env = Environment::current();
    const LogsAfterUnlock logs;  // opening a database may report on it; a host log sink may use the store
    std::lock_guard lock(*mutex);
    if (lastEnvironment->lock() == env) {
        return *lastDatabase;
    }
    std::shared_ptr<DefaultsDatabase> database;
    if (!env->dataDirectory) {
        if (!*memoryOnly) {
            *memoryOnly = std::make_shared<DefaultsDatabase>(std::nullopt);
        }
        database = *memoryOnly;
    } else {
        const fs::path file = *env->dataDirectory / "UserDefaults.sqlite";
        auto& kept = (*databases)[file.string()];
        if (!kept) {
            kept = std::make_shared<DefaultsDatabase>(file);
        }
        database = kept;
    }
    *lastEnvironment = env;
    *lastDatabase = database;
    return database;
}

}  // namespace

UserDefaults::UserDefaults(std::string name, std::shared_ptr<DefaultsDatabase> database)
    : name_(std::move(name)), database_(std::move(database)) {}

std::shared_ptr<UserDefaults> UserDefaults::standard() {
    return std::make_shared<UserDefaults>(Environment::current()->applicationDomainName,
                                          databaseForCurrentEnvironment());
}

std::shared_ptr<UserDefaults> UserDefaults::suite(std::string_view name) {
    if (name.empty()) {
        return nullptr;
    }
    return std::make_shared<UserDefaults>(std::string(name), databaseForCurrentEnvironment());
}

std::optional<PropertyValue> UserDefaults::object(std::string_view key) const {
    std::optional<PropertyValue> copy;
    inspect(key, [&](const PropertyValue* value) {
        if (value != nullptr) {
            copy = *value;
        }
    });
    return copy;
}

UserDefaults::Lookup UserDefaults::lookup(std::string_view key) const {
    return database_->lookup(name_, key);
}

void UserDefaults::set(std::string_view key, PropertyValue value) {
    database_->set(name_, key, std::move(value));
}

void UserDefaults::removeObject(std::string_view key) {
    database_->set(name_, key, std::nullopt);
}

bool UserDefaults::synchronize() {
    return database_->synchronize(name_);
}

void UserDefaults::removePersistentDomain(std::string_view name) {
    database_->removeDomain(name);
}

bool UserDefaults::transaction(const std::function<void()>& body) const {
    return database_->transaction(body);
}

}  // namespace velmora::platform
