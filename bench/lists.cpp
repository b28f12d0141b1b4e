// Lists: a locked one used by one thread, finding by name, sorting by collation.
#include <benchmark/benchmark.h>
#include <kp/text/list.h>
#include <kp/text/named_list.h>
#include <kp/text/string.h>

#include <algorithm>
#include <cstring>
#include <list>
#include <mutex>
#include <random>
#include <string>
#include <vector>

#if defined(KP_PEER_QT)
#include <QList>
#include <QMutex>
#endif
#if defined(KP_PEER_GLIB)
#include <glib.h>
#endif

namespace {

constexpr int kElements = 1000;

struct Plain {
    virtual ~Plain() = default;
    int number = 0;
};

class Element : public KP_Object {
public:
    int number = 0;
};

// Append, step, remove: each operation under the list's own lock. Times are per element.
void kpLocked(benchmark::State& state) {
    KP_List<KP_Object> list;
    list.setOwner(1);
    list.setRecycle(1);
    for (auto _ : state) {
        for (int i = 0; i < kElements; ++i) {
            list.append(new Element);
        }
        for (KP_Object* element = list.first(); element != nullptr; element = list.next()) {
            benchmark::DoNotOptimize(element);
        }
        list.first();
        for (int i = 0; i < kElements; ++i) {
            list.removeCurrent();
        }
    }
    state.SetItemsProcessed(state.iterations() * kElements);
}
BENCHMARK(kpLocked)->Name("list_locked/KP_List");

template <class List, class Mutex>
void peerLocked(benchmark::State& state) {
    List list;
    Mutex mutex;
    for (auto _ : state) {
        for (int i = 0; i < kElements; ++i) {
            auto* element = new Plain;
            const std::lock_guard<Mutex> guard(mutex);
            list.push_back(element);
        }
        typename List::iterator step;
        {
            const std::lock_guard<Mutex> guard(mutex);
            step = list.begin();
        }
        for (;;) {
            const std::lock_guard<Mutex> guard(mutex);
            if (step == list.end()) {
                break;
            }
            benchmark::DoNotOptimize(*step);
            ++step;
        }
        for (int i = 0; i < kElements; ++i) {
            Plain* element = nullptr;
            {
                const std::lock_guard<Mutex> guard(mutex);
                element = list.front();
                list.pop_front();
            }
            delete element;
        }
    }
    state.SetItemsProcessed(state.iterations() * kElements);
}
BENCHMARK(peerLocked<std::list<Plain*>, std::recursive_mutex>)->Name("list_locked/std::list");
#if defined(KP_PEER_QT)
BENCHMARK(peerLocked<QList<Plain*>, QRecursiveMutex>)->Name("list_locked/QList");
#endif

// Finding the last of a thousand names. Times are per element passed.
std::vector<std::string> names() {
    std::vector<std::string> result;
    for (int i = 0; i < kElements; ++i) {
        result.push_back("option-" + std::to_string(i));
    }
    return result;
}

void kpFind(benchmark::State& state) {
    KP_NamedList<KP_Object> list;
    list.setOwner(1);
    for (const std::string& name : names()) {
        list.append(new Element, name.c_str());
    }
    const std::string wanted = names().back();
    for (auto _ : state) {
        benchmark::DoNotOptimize(list.findByName(wanted.c_str()));
    }
    state.SetItemsProcessed(state.iterations() * kElements);
}
BENCHMARK(kpFind)->Name("find_by_name/KP_NamedList");

void stdFind(benchmark::State& state) {
    std::list<std::pair<std::string, Plain*>> list;
    for (const std::string& name : names()) {
        list.emplace_back(name, new Plain);
    }
    const std::string wanted = names().back();
    for (auto _ : state) {
        benchmark::DoNotOptimize(std::find_if(list.begin(), list.end(), [&](const auto& entry) {
            return std::strcmp(entry.first.c_str(), wanted.c_str()) == 0;
        }));
    }
    for (auto& entry : list) {
        delete entry.second;
    }
    state.SetItemsProcessed(state.iterations() * kElements);
}
BENCHMARK(stdFind)->Name("find_by_name/std::list, no lock");

// Sorting a thousand random texts by strcoll.
std::vector<std::string> randomTexts() {
    std::mt19937 random(7);
    std::vector<std::string> result;
    for (int i = 0; i < kElements; ++i) {
        std::string text;
        for (int k = 0; k < 12; ++k) {
            text += static_cast<char>('a' + random() % 26);
        }
        result.push_back(text);
    }
    return result;
}

void kpSort(benchmark::State& state) {
    const std::vector<std::string> texts = randomTexts();
    for (auto _ : state) {
        state.PauseTiming();
        KP_List<KP_String> list;
        list.setOwner(1);
        list.setSelfLinked(1);
        for (const std::string& text : texts) {
            list.append(new KP_String(text.c_str(), 0));
        }
        state.ResumeTiming();
        list.sort();
        state.PauseTiming();
        list.clear();
        state.ResumeTiming();
    }
}
BENCHMARK(kpSort)->Name("sort/KP_List");

void stdSort(benchmark::State& state) {
    const std::vector<std::string> texts = randomTexts();
    for (auto _ : state) {
        state.PauseTiming();
        std::list<std::string> list(texts.begin(), texts.end());
        state.ResumeTiming();
        list.sort([](const std::string& a, const std::string& b) {
            return std::strcoll(a.c_str(), b.c_str()) < 0;
        });
        state.PauseTiming();
        list.clear();
        state.ResumeTiming();
    }
}
BENCHMARK(stdSort)->Name("sort/std::list");

}  // namespace
