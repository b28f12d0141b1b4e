// libkp: the configuration of an engine, its queries, and its general configuration file.
#pragma once

#include <cstdint>
#include <cstdio>

#include "kp/config/config_base.h"

/// What an engine watches, for how long it keeps it, and who may administer it.
///
/// The fields are public: the queries and the files work on them. Addresses are IPv4 in host byte
/// order. A new configuration is empty in every field; setName() and then init() of KP_ConfigAdmin
/// or KP_ConfigDef fill it from the files.
///
/// The general configuration file is machine-generated text of fixed lines; save() writes it and
/// readGeneralConfigFile() reads it. Comment lines are counted, not looked at. With n mappings:
///
///     1-5    banner, empty line, "# Config version"     21 to 20+n  type, three tabs, extensions,
///     6      1                                                      each followed by a blank
///     9      network statistics, 1 or 0                 23+n  password{...}
///     12     packet filter program                      24+n  applyNetAddress{1 or 0}
///     15     days of data to keep                       25+n  numOfNets{k}
///     18     n                                          26+n  exampleAddress{k addresses}
///                                                       27+n  maskAddress{k masks}
///
/// Faults: what is wrong with a file ends the process with status 1 and a message in the log, also
/// a file that ends too early, and a number of days or of mappings that is missing. Elsewhere a
/// missing number is 0 (for applyNetAddress: administration from everywhere), and an empty mapping
/// line is an empty type. Texts that are too long for their field are cut, a filter and a password
/// with a log line.
///
/// What the file cannot hold: braces and line feeds in the password, line feeds in the filter,
/// blanks in types and extensions, lines of more than 1024 characters. Whoever takes such values
/// from people refuses them.
///
/// Threads: no lock is taken. Load it before the engine's threads start; then they only query it.
/// A host that changes it while they run guards it itself.
class KP_API KP_Config : public KP_ConfigBase {
public:
    static constexpr int kMaxIPRanges = 64;
    static constexpr int kMaxNets = 5;
    static constexpr int kMaxPostfixes = 16;

    /// A range of addresses; both bounds belong to it, and min is never above max.
    struct IPRange {
        std::uint32_t min;
        std::uint32_t max;
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
    /// rewritten in place: a process that is stopped meanwhile leaves it cut off. Returns 0; a file
    /// that cannot be opened ends the process; a disk that is full is not noticed here.
    virtual int save();
    /// 1 when @p user is "root" and @p typed is the stored password, else 0.
    virtual int isValidPassword(const char* user, const char* typed);
    /// 1 when administration is accepted from @p address, else 0: from everywhere while
    /// applyNetAddress is 0, else from the networks (from nowhere when there are none).
    virtual int isValidSourceIP(unsigned long address);
    /// 1 when one of the ranges contains @p address, else 0. Stands in the path of every packet:
    /// a few nanoseconds for 64 ranges.
    virtual int isInIPRanges(unsigned long address);
    /// Sets the prefix of the configuration's file names, at most 127 characters; returns 0.
    /// A longer name, which would name other files if it were cut, is refused with -1 and a log
    /// line.
    virtual int setName(const char* newName);

    /// Gives the MIME mappings back; there are none afterwards. Returns 0.
    int reset() override;
    /// Writes a summary, the password included, to @p file (null: the log); returns 0.
    int print(std::FILE* file) override;
    /// Sends version, device, port, filter, days, mappings, password and networks to the front end.
    /// Returns 0, or -1 at the first value that does not go through.
    int writeJ(int socket) override;
    /// Receives the same from the front end, which sends applyNetAddress as one byte.
    /// Mappings held before are given back. Of a mapping the first 63 characters of the type and
    /// the first 16 extensions, 15 characters each, are kept. More than 5 networks, addresses that
    /// are none, a device, filter or password that is too long, and a message that ends within a
    /// line are refused. Returns 0; -1 at the first failure: what came before it is changed then,
    /// and the rest is still unread, so a host receives into a copy and gives such a connection up.
    /// netAddress follows when the configuration was saved and read again.
    int readJ(int socket) override;

    /// Opens @p fileName in the sub-directory @p dir of the installation directory, as fopen()
    /// does.
    /// @p dir begins with a slash, as in "/admin". Files that it creates are their owner's alone.
    /// Never returns null: every failure ends the process with status 1 and a message in the log.
    static std::FILE* openConfigFile(const char* dir, const char* fileName, const char* mode);

    /// Name of the Ethernet device to capture from.
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
    /// exampleAddress & maskAddress, derived when a general configuration file is read.
    std::uint32_t netAddress[kMaxNets] = {};
    /// Prefix of the file names.
    char name[128] = {};

protected:
    /// Reads a general configuration file; touches neither name, database directory, port, device
    /// nor ranges. Mappings held before are given back. Returns 0; a fault ends the process.
    virtual int readGeneralConfigFile(std::FILE* file);
    /// Writes the block with the password and the networks to @p file (null: the log); returns 0.
    virtual int writeUser(std::FILE* file);

private:
    void copyFields(const KP_Config& other);
};
