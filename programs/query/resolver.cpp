#include "resolver.h"

#include <algorithm>
#include <atomic>

#include "groups.h"
#include "kp/kp.h"

namespace kp::query {

namespace {

constexpr int kAtATime = 8;
constexpr std::size_t kNameSize = 256;

struct Lookup {
    std::int64_t address;
    std::string* name;
    std::atomic<std::size_t>* left;
    KP_Event* done;

    void run() const {
        const auto number = static_cast<unsigned long>(address);
        char text[kNameSize];
        KP_Tools::resolveIP(&number, text);
        if (addressText(address) != text)
            *name = text;
        --*left;
        done->signal();
    }
};

}  // namespace

void Resolver::resolve(const std::vector<std::int64_t>& addresses) {
    std::atomic<std::size_t> left{0};
    KP_Event done;
    std::vector<Lookup> lookups;
    for (const std::int64_t address : addresses) {
        const auto [place, isNew] = names_.try_emplace(address);
        if (isNew)
            lookups.push_back({address, &place->second, &left, &done});
    }
    if (lookups.empty())
        return;
    left = lookups.size();
    KP_ThreadPool pool(kAtATime);
    for (Lookup& lookup : lookups) {
        pool.addTask([](void* argument) { static_cast<const Lookup*>(argument)->run(); }, &lookup,
                     0);
    }
    pool.start();
    done.waitUntil([&] { return left == 0; });
    pool.stop();
    pool.join(nullptr, 0);
}

}  // namespace kp::query
