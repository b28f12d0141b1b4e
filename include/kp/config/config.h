// libkp: the configuration of an engine, its queries, and its general configuration file.
#pragma once

#include <cstdint>
#include <cstdio>

#include "kp/config/config_base.h"

/// What an engine watches, for how long it keeps it, and who may administer it.
///
/// The fields are public: the queries and the files work on them. Addresses are IPv4 in host byte
/// order, so that 10.0.0.1 is 0x0A000001; of arguments the low 32 bits count. Texts are terminated.
/// A new configuration is empty in every field; setName() and then init() of KP_ConfigAdmin or
/// KP_ConfigDef fill it from the files. It has the identity of KP_Object, and so have these two:
/// dynamic_cast tells which one it is.
///
/// The general configuration file is machine-generated text of fixed lines; save() writes it and
/// readGeneralConfigFile() reads it. Comment lines are counted, not looked at. With n mappings:
///
///     1-5    banner, empty line, "# Config version"     21 to 20+n  type, three tabs, extensions,
///     6      1                                                      each followed by a blank
///     9      network statistics, 1 or 0                 23+n  password{...}
///     12     packet filter program                      24+n  applyNetAddress{number}
///     15     days of data to keep                       25+n  numOfNets{k}
///     18     n                                          26+n  exampleAddress{k addresses}
///                                                       27+n  maskAddress{k masks}
///
/// Faults: what is wrong with a file ends the process with status 1 and a message in the log, also
/// a file that ends too early, and a number of days or of mappings that is missing. The log has to
/// be open for that; otherwise nobody is told. Elsewhere a missing number is 0 (for
/// applyNetAddress: administration from everywhere), and an empty mapping line is an empty type.
/// Texts that are too long for their field are cut, a filter and a password with a log line.
///
/// What the file cannot hold: braces and line feeds in the password, line feeds in the filter,
/// blanks in types and extensions, lines of 1024 characters or more. Whoever takes such values from
/// people refuses them.
///
/// Threads: no lock is taken. Load it before the engine's threads start. Then any number of them
/// may ask isInIPRanges(), isValidSourceIP(), isValidPassword(), print() and writeJ() at once. A
/// host that changes it while they run guards it itself; save() is a change, too. What opens a file
/// uses the one buffer of KP_Tools::getInstallDir(): one thread at a time, whatever the
/// configuration.
class KP_API KP_Config : public KP_ConfigBase {
public:
    /// How many ranges, networks, and extensions of a mapping there can be.
    static constexpr int kMaxIPRanges = 64;
    static constexpr int kMaxNets = 5;
    static constexpr int kMaxPostfixes = 16;

    /// A range of addresses.
    struct IPRange {
        std::uint32_t min;  ///< The lowest address of it, never above max.
        std::uint32_t max;  ///< The highest address of it.
    };

    /// A MIME type and the file extensions that stand for it.
    struct MimeType {
        char type[64];                      ///< At most 63 characters, case kept.
        unsigned char numOfPostfixes;       ///< Used entries of postfixes, at most 16.
        char postfixes[kMaxPostfixes][16];  ///< At most 15 characters each.
    };

    KP_Config() = default;
    /// A copy has its own MIME mappings. KP_NoMoreMemoryException when they cannot be had.
    KP_Config(const KP_Config& other);
    /// The same; when memory runs out the target is as it was.
    KP_Config& operator=(const KP_Config& other);
    ~KP_Config() override;

    /// Writes the general configuration file `admin/<name>_prvt.cfg`, also for KP_ConfigDef.
    /// Extensions become lower case, here and in the file. A file that does not exist yet is
    /// created for its owner alone, since it holds the password in clear text. The file is
    /// rewritten in place, and flushed as a whole and not line by line: a process that is stopped
    /// meanwhile leaves it cut off. Returns 0; a file
    /// that cannot be opened ends the process; a disk that is full is not noticed here.
    virtual int save();
    /// The same to @p file, which is open for writing and stays the caller's, who flushes it, too:
    /// for a host that must not end when a file cannot be opened, or that replaces its file by one
    /// that is whole. Returns 0, or -1 when something was not taken.
    int saveTo(std::FILE* file);
    /// 1 when @p user is "root" and @p typed is the stored password, else 0. Neither is null. While
    /// the password is empty, as in a new configuration, an empty one is right. The time that it
    /// takes does not depend on how much of the password is right.
    virtual int isValidPassword(const char* user, const char* typed);
    /// 1 when administration is accepted from @p address, else 0: from everywhere while
    /// applyNetAddress is 0, else from the networks (from nowhere when there are none).
    virtual int isValidSourceIP(unsigned long address);
    /// 1 when one of the ranges contains @p address, else 0. Takes a few nanoseconds for 64 ranges:
    /// every packet asks.
    virtual int isInIPRanges(unsigned long address);
    /// Sets the prefix of the configuration's file names to a copy of @p newName, which is not null
    /// and has at most 127 characters; returns 0. A longer name, which would name other files if it
    /// were cut, is refused with -1 and a log line.
    virtual int setName(const char* newName);

    /// Gives the MIME mappings back, and leaves the other fields as they are. Returns 0.
    int reset() override;
    /// Writes a summary, the password included, to @p file (null: the log); returns 0.
    int print(std::FILE* file) override;
    /// Sends the configuration to the front end on the connected @p socket, in this order and the
    /// forms of kp/wire/primitives.h: version (UInt32), device (line), port (UInt32), filter
    /// (line), days (UInt32), number of mappings (UInt16), of each its type (line), number of
    /// extensions (UInt8) and extensions (lines), password (line), applyNetAddress (UInt8), number
    /// of networks (UInt16), of each its address and its mask (lines in dotted form). The other
    /// fields do not travel. Returns 0, or -1 at the first value that does not go through.
    int writeJ(int socket) override;
    /// Receives the same from the front end, which sends applyNetAddress as one byte (Boolean), so
    /// that what writeJ() has sent cannot be read here.
    ///
    /// The mappings come in a new array: the one before stays the caller's, and is lost unless the
    /// caller calls reset() first or has kept its address. After a failure within the mappings the
    /// rest of the array is empty records; without memory for it ("hcommand_SET_CONFIG: Not enough
    /// memory." in the log) the array before and its number stay. Of a mapping the first 63
    /// characters of the type and the first 16 extensions, 15 characters each, are kept. More than
    /// 5 networks, addresses that are none, a device, filter or password that is too long, any line
    /// of more than 2047 characters, and a message that ends too early are refused. Returns 0; -1
    /// at the first failure: what came before it is changed then, and the rest is still unread, so
    /// a host receives into a copy and gives such a connection up. netAddress stays as it was: the
    /// host sets it, or saves the configuration and reads it again.
    int readJ(int socket) override;

    /// Opens @p fileName in the sub-directory @p dir of the installation directory, as fopen()
    /// does with @p mode; the caller closes it with fclose().
    /// @p dir begins with a slash, as in "/admin". Files that it creates are their owner's alone.
    /// Never returns null: every failure ends the process with status 1 and a message in the log.
    static std::FILE* openConfigFile(const char* dir, const char* fileName, const char* mode);

    /// Name of the Ethernet device to capture from; empty for none.
    char device[256] = {};
    /// Used entries of ipRanges, at most 64.
    std::uint16_t numOfIPRanges = 0;
    /// The addresses that are watched.
    IPRange ipRanges[kMaxIPRanges] = {};
    /// Network statistics: 0 off, else on.
    std::int32_t netStatsEnabled = 0;
    /// Packet filter program in BPF syntax.
    char filterProgram[512] = {};
    /// Days of data that the database keeps.
    std::uint32_t daysOfDataToKeep = 0;
    /// Records in mimeTypes.
    std::uint16_t numOfMimeTypes = 0;
    /// Exactly numOfMimeTypes records from malloc(), owned; null when there are none.
    MimeType* mimeTypes = nullptr;
    /// Password of the administrator "root".
    char password[512] = {};
    /// Non-zero: administration is accepted from the networks below only.
    std::int32_t applyNetAddress = 0;
    /// Networks used, at most 5.
    std::uint16_t numOfNets = 0;
    /// One address of each network.
    std::uint32_t exampleAddress[kMaxNets] = {};
    /// The mask of each network.
    std::uint32_t maskAddress[kMaxNets] = {};
    /// exampleAddress & maskAddress, derived when a general configuration file is read, and only
    /// then. isValidSourceIP() compares with it.
    std::uint32_t netAddress[kMaxNets] = {};
    /// Prefix of the file names.
    char name[128] = {};

protected:
    /// Reads a general configuration file from @p file, which is open and stays the caller's;
    /// touches neither name, database directory, port, device nor ranges. Mappings held before are
    /// given back. Returns 0; a fault ends the process.
    virtual int readGeneralConfigFile(std::FILE* file);
    /// Writes the block with the password and the networks to @p file (null: the log); returns 0.
    virtual int writeUser(std::FILE* file);

private:
    void copyFields(const KP_Config& other);
};
