// SQLite behind two small classes that close what they opened and throw what went wrong.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>

struct sqlite3;
struct sqlite3_stmt;

namespace kp::records {

/// What SQLite refused, with the file's path; what() is for the user.
class DatabaseError : public std::runtime_error {
public:
    explicit DatabaseError(const std::string& text, bool isBusy = false)
        : std::runtime_error(text), isBusy_(isBusy) {}

    /// Somebody else had the file locked, and nothing else is wrong.
    bool isBusy() const { return isBusy_; }

private:
    bool isBusy_;
};

class Statement;

/// An open database file.
///
/// Threads: one at a time.
class Database {
public:
    enum class Access {
        kRead,
        kReadFrozen,  ///< nobody can change the file, and nothing is written beside it
        kWrite        ///< makes the file when there is none
    };

    /// Opens a file; waits up to @p patience whenever somebody else has it locked.
    ///
    /// Nothing but a regular file is opened, nor beside one that is not; what is written is no
    /// symbolic link either. What its schema tells SQLite to run is not trusted, texts have at most
    /// kLongestText bytes, and all open files together get at most kMostMemory bytes.
    static constexpr int kLongestText = 1024 * 1024;
    static constexpr std::int64_t kMostMemory = std::int64_t{512} * 1024 * 1024;
    Database(const std::string& path, Access access,
             std::chrono::milliseconds patience = std::chrono::seconds(5));
    Database(Database&&) noexcept;  // before it has statements
    Database& operator=(Database&&) = delete;
    ~Database();

    const std::string& path() const { return path_; }

    /// Runs statements that give no rows, or whose rows nobody needs.
    void execute(const std::string& sql);
    /// The first column of the first row; 0 without a row.
    std::int64_t number(const std::string& sql);
    /// Whether a transaction has begun and not ended.
    bool isInTransaction() const;
    /// Whether the file has been moved or deleted since it was opened.
    bool hasMoved() const;
    /// The size of what it holds, with what is still in the log beside it.
    std::int64_t bytes();
    /// From here on the statements may take no more steps altogether than reading a file of this
    /// size needs. Pages that refer to each other in a damaged file can make billions of rows.
    void limitSteps();

    /// The first 100 bytes of a file as they are on the disk; zeroes where it is shorter.
    static std::array<char, 100> headerOf(const std::string& path);

private:
    friend class Statement;
    [[noreturn]] void fail() const;

    struct Close {
        void operator()(sqlite3* handle) const;
    };
    std::string path_;
    std::unique_ptr<sqlite3, Close> handle_;
    std::unique_ptr<std::int64_t> steps_;  // that are left
};

/// A prepared statement: bind its parameters (from 1 on), step through its rows, read their columns
/// (from 0 on), reset.
///
/// The database must outlive it. All operations throw DatabaseError.
class Statement {
public:
    /// Prepares nothing yet, so that it can be a member.
    Statement() = default;
    Statement(Database& database, const std::string& sql);

    void bind(int parameter, std::int64_t value);
    /// The text must stay as it is until the statement is reset.
    void bind(int parameter, std::string_view text);
    /// The statement keeps a copy.
    void bindCopy(int parameter, std::string_view text);
    void bindNull(int parameter);

    /// Goes to the next row; false when there is none.
    bool step();
    /// Makes it ready to run again; parameters keep their values.
    void reset();
    /// Runs a statement without rows, and resets it.
    void run();

    bool isNull(int column) const;
    /// Whether the column holds a whole number, and not a text or anything else.
    bool isNumber(int column) const;
    std::int64_t number(int column) const;
    /// Valid until the next step or reset.
    std::string_view text(int column) const;

private:
    void check(int result) const;

    struct Finalize {
        void operator()(sqlite3_stmt* handle) const;
    };
    Database* database_ = nullptr;
    std::unique_ptr<sqlite3_stmt, Finalize> handle_;
};

}  // namespace kp::records
