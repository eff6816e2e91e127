#include "velmora/platform/UserDefaults.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <map>
#include <mutex>

#include "velmora/platform/Environment.h"
#include "velmora/platform/FileManager.h"
#include "velmora/platform/Format.h"
#include "velmora/platform/SystemLog.h"

namespace velmora::platform {

namespace fs = std::filesystem;

// The in-memory view of every suite of one database file and the connection that persists it.
// Lock order: connectionMutex_ before stateMutex_.
class DefaultsDatabase {
  public:
    explicit DefaultsDatabase(std::optional<fs::path> file) : file_(std::move(file)) {
        if (!file_) {
            systemLogLine(LogLevel::warn, "UserDefaults: no data directory; values are kept in memory only");
            return;
        }
        std::lock_guard connection(connectionMutex_);
        openConnection(true);
    }

    ~DefaultsDatabase() { closeConnection(); }

    DefaultsDatabase(const DefaultsDatabase&) = delete;
    DefaultsDatabase& operator=(const DefaultsDatabase&) = delete;

    UserDefaults::Lookup lookup(std::string_view suite, std::string_view key) {
        UserDefaults::Lookup found{std::unique_lock(stateMutex_), nullptr};
        if (const auto s = suites_.find(suite); s != suites_.end()) {
            if (const auto v = s->second.values.find(key); v != s->second.values.end()) {
                found.value = &v->second;
            }
        }
        return found;
    }

    void set(std::string_view suite, std::string_view key, std::optional<PropertyValue> value) {
        std::lock_guard state(stateMutex_);
        auto& s = suites_[std::string(suite)];
        if (value) {
            s.values.insert_or_assign(std::string(key), *value);
        } else {
            s.values.erase(std::string(key));
        }
        s.pending.insert_or_assign(std::string(key), Pending{std::move(value), ++generation_});
    }

    bool synchronize(std::string_view suite) {
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
        if (!writeWithRecovery([&] { return writeChanges(suite, snapshot); })) {
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
        std::lock_guard connection(connectionMutex_);
        {
            std::lock_guard state(stateMutex_);
            suites_.erase(std::string(suite));
        }
        writeWithRecovery([&] { return execute("DELETE FROM defaults WHERE suite = ?1", suite); });
    }

  private:
    struct Pending {
        std::optional<PropertyValue> value;  // empty: removed
        std::uint64_t generation;
    };
    struct Suite {
        std::map<std::string, PropertyValue, std::less<>> values;
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
            systemLogLine(LogLevel::error, format("UserDefaults: writing %@ failed: %@", file_->string(),
                                                  sqlite3_errstr(code)));
            return false;
        }
        moveAside(sqlite3_errstr(code));
        if (!openConnection(false)) {
            return false;
        }
        return rewriteEverything() == SQLITE_OK && write() == SQLITE_OK;
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
                sqlite3_busy_timeout(db_, 5000);
                code = prepareSchema();
            }
            if (code == SQLITE_OK && load) {
                code = loadAll();
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

    void closeConnection() {
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
             {"PRAGMA journal_mode = WAL", "PRAGMA synchronous = FULL",
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
        suites_ = std::move(loaded);
        return SQLITE_OK;
    }

    int execute(const char* sql, std::string_view suite) {
        sqlite3_stmt* statement = nullptr;
        int code = sqlite3_prepare_v2(db_, sql, -1, &statement, nullptr);
        if (code == SQLITE_OK) {
            sqlite3_bind_text(statement, 1, suite.data(), static_cast<int>(suite.size()), SQLITE_TRANSIENT);
            code = sqlite3_step(statement) == SQLITE_DONE ? SQLITE_OK : sqlite3_errcode(db_);
        }
        sqlite3_finalize(statement);
        return code;
    }

    template <class Rows>
    int writeRows(std::string_view suite, const Rows& rows) {
        sqlite3_stmt* upsert = nullptr;
        sqlite3_stmt* remove = nullptr;
        int code =
            sqlite3_prepare_v2(db_, "INSERT OR REPLACE INTO defaults (suite, key, value) VALUES (?1, ?2, ?3)",
                               -1, &upsert, nullptr);
        if (code == SQLITE_OK) {
            code = sqlite3_prepare_v2(db_, "DELETE FROM defaults WHERE suite = ?1 AND key = ?2", -1, &remove,
                                      nullptr);
        }
        for (const auto& [key, value] : rows) {
            if (code != SQLITE_OK) {
                break;
            }
            sqlite3_stmt* statement = value ? upsert : remove;
            sqlite3_reset(statement);
            sqlite3_bind_text(statement, 1, suite.data(), static_cast<int>(suite.size()), SQLITE_STATIC);
            sqlite3_bind_text(statement, 2, key.data(), static_cast<int>(key.size()), SQLITE_STATIC);
            Data bytes;
            if (value) {
                bytes = encodeBinaryPropertyList(*value);
                sqlite3_bind_blob(statement, 3, bytes.data(), static_cast<int>(bytes.size()), SQLITE_STATIC);
            }
            code = sqlite3_step(statement) == SQLITE_DONE ? SQLITE_OK : sqlite3_errcode(db_);
        }
        sqlite3_finalize(upsert);
        sqlite3_finalize(remove);
        return code;
    }

    int inTransaction(const std::function<int()>& body) {
        int code = sqlite3_exec(db_, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr);
        if (code == SQLITE_OK) {
            code = body();
        }
        if (code == SQLITE_OK) {
            code = sqlite3_exec(db_, "COMMIT", nullptr, nullptr, nullptr);
        }
        if (code != SQLITE_OK) {
            code = sqlite3_extended_errcode(db_) & 0xFF;
            sqlite3_exec(db_, "ROLLBACK", nullptr, nullptr, nullptr);
        }
        return code;
    }

    int writeChanges(std::string_view suite, const std::map<std::string, Pending, std::less<>>& changes) {
        std::vector<std::pair<std::string_view, const std::optional<PropertyValue>&>> rows;
        for (const auto& [key, change] : changes) {
            rows.emplace_back(key, change.value);
        }
        return inTransaction([&] { return writeRows(suite, rows); });
    }

    // After recovery: the fresh file gets every value this process holds, pending or not.
    int rewriteEverything() {
        std::map<std::string, std::map<std::string, std::optional<PropertyValue>, std::less<>>, std::less<>>
            copy;
        {
            std::lock_guard state(stateMutex_);
            for (const auto& [suite, s] : suites_) {
                for (const auto& [key, value] : s.values) {
                    copy[suite].emplace(key, value);
                }
            }
        }
        return inTransaction([&] {
            for (const auto& [suite, rows] : copy) {
                if (const int code = writeRows(suite, rows); code != SQLITE_OK) {
                    return code;
                }
            }
            return SQLITE_OK;
        });
    }

    const std::optional<fs::path> file_;
    std::mutex connectionMutex_;
    sqlite3* db_ = nullptr;
    std::mutex stateMutex_;
    std::map<std::string, Suite, std::less<>> suites_;
    std::uint64_t generation_ = 0;
};

namespace {

// One database per file for the whole process, so every handle on a suite sees the same values. Kept open
// until the process ends: closing it when the last handle goes would drop changes not yet synchronized.
std::shared_ptr<DefaultsDatabase> databaseForCurrentEnvironment() {
    static auto* mutex = new std::mutex();
    static auto* databases = new std::map<std::string, std::shared_ptr<DefaultsDatabase>>();
    static auto* memoryOnly = new std::shared_ptr<DefaultsDatabase>();

    const auto env = Environment::current();
    std::lock_guard lock(*mutex);
    if (!env->dataDirectory) {
        if (!*memoryOnly) {
            *memoryOnly = std::make_shared<DefaultsDatabase>(std::nullopt);
        }
        return *memoryOnly;
    }
    const fs::path file = *env->dataDirectory / "UserDefaults.sqlite";
    auto& database = (*databases)[file.string()];
    if (!database) {
        database = std::make_shared<DefaultsDatabase>(file);
    }
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

}  // namespace velmora::platform
