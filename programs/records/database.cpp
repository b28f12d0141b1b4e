#include "database.h"

#include <sqlite3.h>

#include <new>
#include <system_error>

namespace kp::records {

namespace {

// The path as a URI that says that the file does not change.
std::string frozenName(const std::string& path) {
    std::string name = path.front() == '/' ? "file://" : "file:";  // "//" would begin a host.
    for (const char c : path)
        name += c == '%' ? "%25" : c == '?' ? "%3f" : c == '#' ? "%23" : std::string(1, c);
    return name + "?immutable=1";
}

// A null pointer would be NULL, an empty text is one.
const char* startOf(std::string_view text) {
    return text.data() != nullptr ? text.data() : "";
}

}  // namespace

void Database::Close::operator()(sqlite3* handle) const {
    sqlite3_close_v2(handle);
}

Database::Database(const std::string& path, Access access, std::chrono::milliseconds patience)
    : path_(path) {
    const bool isFrozen = access == Access::kReadFrozen;
    const int flags = access == Access::kWrite ? SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE
                                               : SQLITE_OPEN_READONLY;
    sqlite3* handle = nullptr;
    const int result =
        sqlite3_open_v2((isFrozen ? frozenName(path) : path).c_str(), &handle,
                        flags | SQLITE_OPEN_NOMUTEX | (isFrozen ? SQLITE_OPEN_URI : 0), nullptr);
    handle_.reset(handle);
    if (!handle_)
        throw std::bad_alloc();
    if (result != SQLITE_OK)
        fail();
    sqlite3_busy_timeout(handle, static_cast<int>(patience.count()));
    sqlite3_db_config(handle, SQLITE_DBCONFIG_DEFENSIVE, 1, nullptr);
    sqlite3_db_config(handle, SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0, nullptr);
}

Database::Database(Database&&) noexcept = default;
Database::~Database() = default;

void Database::fail() const {
    sqlite3* const handle = handle_.get();
    const int code = sqlite3_errcode(handle);
    std::string text = path_ + ": " + sqlite3_errmsg(handle);
    // Where the system has refused something, its reason says more.
    const int reason = sqlite3_system_errno(handle);
    if ((code == SQLITE_IOERR || code == SQLITE_CANTOPEN) && reason != 0)
        text += " (" + std::generic_category().message(reason) + ")";
    throw DatabaseError(text, code == SQLITE_BUSY);
}

void Database::execute(const std::string& sql) {
    if (sqlite3_exec(handle_.get(), sql.c_str(), nullptr, nullptr, nullptr) != SQLITE_OK)
        fail();
}

std::int64_t Database::number(const std::string& sql) {
    Statement statement(*this, sql);
    return statement.step() ? statement.number(0) : 0;
}

bool Database::isInTransaction() const {
    return sqlite3_get_autocommit(handle_.get()) == 0;
}

bool Database::hasMoved() const {
    int moved = 0;
    sqlite3_file_control(handle_.get(), "main", SQLITE_FCNTL_HAS_MOVED, &moved);
    return moved != 0;
}

void Statement::Finalize::operator()(sqlite3_stmt* handle) const {
    sqlite3_finalize(handle);
}

Statement::Statement(Database& database, const std::string& sql) : database_(&database) {
    sqlite3_stmt* handle = nullptr;
    const int result =
        sqlite3_prepare_v2(database.handle_.get(), sql.c_str(), -1, &handle, nullptr);
    handle_.reset(handle);
    check(result);
}

void Statement::check(int result) const {
    if (result != SQLITE_OK)
        database_->fail();
}

void Statement::bind(int parameter, std::int64_t value) {
    check(sqlite3_bind_int64(handle_.get(), parameter, value));
}

void Statement::bind(int parameter, std::string_view text) {
    check(sqlite3_bind_text(handle_.get(), parameter, startOf(text), static_cast<int>(text.size()),
                            SQLITE_STATIC));
}

void Statement::bindCopy(int parameter, std::string_view text) {
    check(sqlite3_bind_text(handle_.get(), parameter, startOf(text), static_cast<int>(text.size()),
                            SQLITE_TRANSIENT));
}

void Statement::bindNull(int parameter) {
    check(sqlite3_bind_null(handle_.get(), parameter));
}

bool Statement::step() {
    const int result = sqlite3_step(handle_.get());
    if (result != SQLITE_ROW && result != SQLITE_DONE)
        database_->fail();
    return result == SQLITE_ROW;
}

void Statement::reset() {
    sqlite3_reset(handle_.get());  // repeats only what step() has told
}

void Statement::run() {
    try {
        step();
    } catch (...) {
        reset();
        throw;
    }
    reset();
}

bool Statement::isNull(int column) const {
    return sqlite3_column_type(handle_.get(), column) == SQLITE_NULL;
}

std::int64_t Statement::number(int column) const {
    return sqlite3_column_int64(handle_.get(), column);
}

std::string_view Statement::text(int column) const {
    const auto* const text =
        reinterpret_cast<const char*>(sqlite3_column_text(handle_.get(), column));
    if (text == nullptr)
        return {};
    return {text, static_cast<std::size_t>(sqlite3_column_bytes(handle_.get(), column))};
}

}  // namespace kp::records
