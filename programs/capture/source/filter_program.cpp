#include "source/filter_program.h"

#include <algorithm>
#include <list>
#include <mutex>
#include <new>
#include <set>

#include "source/packet_source.h"
#include "source/pcap_support.h"

namespace kp::capture {

namespace {

struct Entry {
    std::string filter;
    int linkType;
    FilterProgram program;
};

// The latest programs, the newest first, and the types of links that there are.
struct Kept {
    std::mutex mutex;
    std::list<Entry> entries;
    std::set<int> linkTypes;
};
constexpr std::size_t kMostKept = 64;

Kept& kept() {
    static Kept kept;
    return kept;
}

// Nobody waits for the names that another one looks up: no lock is held.
FilterProgram compile(const std::string& filter, int linkType) {
    if (filter.empty())
        return nullptr;
    const std::unique_ptr<pcap_t, void (*)(pcap_t*)> dead(pcap_open_dead(linkType, kSnapLength),
                                                          pcap_close);
    if (!dead)
        throw std::bad_alloc();
    auto code = std::make_unique<bpf_program>();
    if (pcap_compile(dead.get(), code.get(), filter.c_str(), 1, PCAP_NETMASK_UNKNOWN) != 0)
        throw PacketSourceError(pcap_geterr(dead.get()));
    return {code.release(), [](const bpf_program* program) {
                auto* const mine = const_cast<bpf_program*>(program);
                pcap_freecode(mine);
                delete mine;
            }};
}

void keep(const std::string& filter, int linkType, const FilterProgram& program) {
    const std::lock_guard<std::mutex> lock(kept().mutex);
    auto& entries = kept().entries;
    entries.remove_if(
        [&](const Entry& entry) { return entry.filter == filter && entry.linkType == linkType; });
    entries.push_front({filter, linkType, program});
    if (entries.size() > kMostKept)
        entries.pop_back();
}

}  // namespace

FilterProgram compileFilter(const std::string& filter, int linkType) {
    FilterProgram program = compile(filter, linkType);
    keep(filter, linkType, program);
    std::set<int> others;
    {
        const std::lock_guard<std::mutex> lock(kept().mutex);
        others = kept().linkTypes;
    }
    others.erase(linkType);
    for (const int other : others) {
        try {
            keep(filter, other, compile(filter, other));
        } catch (const PacketSourceError&) {
            // It has none for these links, as their reader will find.
        }
    }
    return program;
}

FilterProgram filterProgram(const std::string& filter, int linkType) {
    {
        const std::lock_guard<std::mutex> lock(kept().mutex);
        kept().linkTypes.insert(linkType);
        for (const Entry& entry : kept().entries) {
            if (entry.filter == filter && entry.linkType == linkType)
                return entry.program;
        }
    }
    FilterProgram program = compile(filter, linkType);
    keep(filter, linkType, program);
    return program;
}

bool needsDevice(const std::string& filter) {
    return filter.find("vlan") != std::string::npos;
}

}  // namespace kp::capture
