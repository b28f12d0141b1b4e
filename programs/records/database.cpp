#include "database.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <mutex>
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

// How SQLite opens files in our programs. Whoever can write to the directory can put anything in the
// place of a file, or of what SQLite keeps beside it: opening a pipe would wait for its other end,
// opening a device can do anything. New files tell who has visited which site, so they are their
// owner's; SQLite gives the files beside an old one the permissions of that.
int openFile(const char* path, int flags, int mode) {
    const int descriptor = ::open(path, flags | O_NONBLOCK | O_CLOEXEC, mode & 0600);
    struct stat status {};
    if (descriptor < 0 || ::fstat(descriptor, &status) != 0)
        return descriptor;
    // Directories are opened to be synced, and /dev/urandom is read.
    if (S_ISREG(status.st_mode) || S_ISDIR(status.st_mode) ||
        (S_ISCHR(status.st_mode) && std::string_view(path).substr(0, 5) == "/dev/"))
        return descriptor;
    ::close(descriptor);
    errno = ENXIO;
    return -1;
}

void prepareSqlite() {
    static std::once_flag once;
    std::call_once(once, [] {
        sqlite3_initialize();
        if (sqlite3_vfs* const vfs = sqlite3_vfs_find(nullptr)) {
            vfs->xSetSystemCall(vfs, "open", reinterpret_cast<sqlite3_syscall_ptr>(openFile));
        }
        sqlite3_hard_heap_limit64(Database::kMostMemory);
    });
}

// As openFile(), in words. What vanishes meanwhile is SQLite's to tell.
void checkFiles(const std::string& path, bool isToWrite) {
    for (const char* ending : {"", "-wal", "-shm", "-journal"}) {
        const std::string each = path + ending;
        struct stat status {};
        const bool isFollowed = *ending == '\0' && !isToWrite;
        const int result =
            isFollowed ? ::stat(each.c_str(), &status) : ::lstat(each.c_str(), &status);
        if (result == 0 && !S_ISREG(status.st_mode))
            throw DatabaseError(each + " is not a regular file and is left alone");
    }
}

// The same path without symbolic links but for its last part, which SQLite refuses then.
std::string withoutLinks(const std::string& path) {
    const std::filesystem::path whole(path);
    std::error_code error;
    const std::filesystem::path directory = std::filesystem::canonical(
        whole.has_parent_path() ? whole.parent_path() : std::filesystem::path("."), error);
    return error ? path : (directory / whole.filename()).string();
}

void limit(sqlite3* handle) {
    // Ours are far below: 20 columns, statements of 1.5 KB, no compound ones, no attached files.
    constexpr struct {
        int id;
        int most;
    } kLimits[] = {{SQLITE_LIMIT_LENGTH, Database::kLongestText},
                   {SQLITE_LIMIT_SQL_LENGTH, 100000},
                   {SQLITE_LIMIT_COLUMN, 100},
                   {SQLITE_LIMIT_EXPR_DEPTH, 100},
                   {SQLITE_LIMIT_COMPOUND_SELECT, 3},
                   {SQLITE_LIMIT_VDBE_OP, 25000},
                   {SQLITE_LIMIT_FUNCTION_ARG, 10},
                   {SQLITE_LIMIT_ATTACHED, 0},
                   {SQLITE_LIMIT_LIKE_PATTERN_LENGTH, 1000},
                   {SQLITE_LIMIT_VARIABLE_NUMBER, 100},
                   {SQLITE_LIMIT_TRIGGER_DEPTH, 1},
                   {SQLITE_LIMIT_WORKER_THREADS, 0}};
    for (const auto& each : kLimits)
        sqlite3_limit(handle, each.id, each.most);
    sqlite3_db_config(handle, SQLITE_DBCONFIG_DEFENSIVE, 1, nullptr);
    sqlite3_db_config(handle, SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0, nullptr);
}

constexpr int kStepsATime = 4096;  // between two looks at how many are left

}  // namespace

void Database::Close::operator()(sqlite3* handle) const {
    sqlite3_close_v2(handle);
}

Database::Database(const std::string& path, Access access, std::chrono::milliseconds patience)
    : path_(path) {
    prepareSqlite();
    checkFiles(path, access == Access::kWrite);
    const bool isFrozen = access == Access::kReadFrozen;
    const int flags = access == Access::kWrite
                          ? SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOFOLLOW
                          : SQLITE_OPEN_READONLY;
    const std::string name = isFrozen                   ? frozenName(path)
                             : access == Access::kWrite ? withoutLinks(path)
                                                        : path;
    sqlite3* handle = nullptr;
    const int result =
        sqlite3_open_v2(name.c_str(), &handle,
                        flags | SQLITE_OPEN_NOMUTEX | (isFrozen ? SQLITE_OPEN_URI : 0), nullptr);
    handle_.reset(handle);
    if (!handle_)
        throw std::bad_alloc();
    if (result != SQLITE_OK)
        fail();
    sqlite3_busy_timeout(handle, static_cast<int>(patience.count()));
    limit(handle);
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

std::int64_t Database::bytes() {
    return number("PRAGMA page_count") * number("PRAGMA page_size");
}

// A row of the smallest kind has 20 bytes and takes less than 200 steps.
void Database::limitSteps() {
    constexpr std::int64_t kLeast = 10000000;
    constexpr std::int64_t kStepsAByte = 20;
    steps_ = std::make_unique<std::int64_t>(kLeast);
    sqlite3_progress_handler(
        handle_.get(), kStepsATime,
        [](void* left) {
            return static_cast<int>((*static_cast<std::int64_t*>(left) -= kStepsATime) < 0);
        },
        steps_.get());
    *steps_ += kStepsAByte * bytes();  // which reads the schema, within the limit
}

// Through SQLite: the system drops all locks that a process has on a file as soon as the process
// closes any descriptor of it, and SQLite is the one who knows when that may be.
std::array<char, 100> Database::headerOf(const std::string& path) {
    const Database database(path, Access::kRead);
    sqlite3_file* file = nullptr;
    sqlite3_file_control(database.handle_.get(), "main", SQLITE_FCNTL_FILE_POINTER, &file);
    std::array<char, 100> header = {};
    if (file != nullptr && file->pMethods != nullptr)
        file->pMethods->xRead(file, header.data(), static_cast<int>(header.size()), 0);
    return header;
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

bool Statement::isNumber(int column) const {
    return sqlite3_column_type(handle_.get(), column) == SQLITE_INTEGER;
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
