// Addresses, time, waiting, characters, sorting, and two operations on devices and sockets.
#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <typeinfo>
#include <utility>

#include "kp/core/compare.h"
#include "kp/text/string.h"
#include "kp/tools/tools.h"
#include "platform/platform.h"

namespace {

constexpr std::size_t kAddressSize = 16;
constexpr std::size_t kHostNameSize = 256;

// An entry with its view as something comparable, asked for once and not at each comparison.
struct Comparable {
    KP_Object* object;
    KP_Compare* view;
};

// Whether the first of two entries belongs behind the second. Some classes of hosts know one side
// only: 0 is asked about again the other way around.
bool isAfter(const Comparable& first, const Comparable& second) {
    if (first.view == nullptr || second.view == nullptr) {
        return false;
    }
    const int order = first.view->compare(second.view, 0);
    return order != 0 ? order > 0 : second.view->compare(first.view, 0) < 0;
}

bool isAfter(KP_Object* first, KP_Object* second) {
    const int order = kp::detail::compareObjects(first, second, 0);
    return order != 0 ? order > 0 : kp::detail::compareObjects(second, first, 0) < 0;
}

// Merges the sorted runs [begin, middle) and [middle, end) of from into to. An order that
// contradicts itself gives some order, and never leads out of the runs.
void merge(const Comparable* from, Comparable* to, std::size_t begin, std::size_t middle,
           std::size_t end) {
    std::size_t left = begin;
    std::size_t right = middle;
    for (std::size_t i = begin; i < end; ++i) {
        const bool takeRight = left == middle || (right < end && isAfter(from[left], from[right]));
        to[i] = takeRight ? from[right++] : from[left++];
    }
}

// Sorts objects of any classes by their compare(), from runs of one up; false without the memory.
bool sortObjects(KP_Object** objects, std::size_t count) {
    // Freed also when the comparison of a host's class throws.
    const std::unique_ptr<void, decltype(&std::free)> memory(
        std::malloc(2 * count * sizeof(Comparable)), std::free);
    if (!memory) {
        return false;
    }
    auto* from = static_cast<Comparable*>(memory.get());
    Comparable* to = from + count;
    for (std::size_t i = 0; i < count; ++i) {
        void* view = nullptr;
        if (objects[i] != nullptr) {
            objects[i]->queryInterface(KP_Compare::getClassID(), &view);
        }
        from[i] = {objects[i], static_cast<KP_Compare*>(view)};
    }
    for (std::size_t run = 1; run < count; run *= 2) {
        for (std::size_t begin = 0; begin < count; begin += 2 * run) {
            merge(from, to, begin, std::min(begin + run, count), std::min(begin + 2 * run, count));
        }
        std::swap(from, to);
    }
    for (std::size_t i = 0; i < count; ++i) {
        objects[i] = from[i].object;
    }
    return true;
}

// Sorts in place, for when there is no memory: slower, and as careful.
void heapSort(KP_Object** objects, std::size_t count) {
    const auto sink = [objects](std::size_t root, std::size_t end) {
        for (std::size_t child = 2 * root + 1; child < end; child = 2 * root + 1) {
            if (child + 1 < end && isAfter(objects[child + 1], objects[child])) {
                ++child;
            }
            if (!isAfter(objects[child], objects[root])) {
                return;
            }
            std::swap(objects[root], objects[child]);
            root = child;
        }
    };
    for (std::size_t root = count / 2; root-- > 0;) {
        sink(root, count);
    }
    for (std::size_t end = count; --end > 0;) {
        std::swap(objects[0], objects[end]);
        sink(0, end);
    }
}

struct Text {
    const char* text;
    KP_Object* object;
};

// Sorts objects that are all strings by what their compare() asks, the collation of their texts;
// false when one is none, or without the memory. An order that is known to be one needs no care.
bool sortTexts(KP_Object** objects, std::size_t count) {
    auto* texts = static_cast<Text*>(std::malloc(count * sizeof(Text)));
    std::size_t known = 0;
    for (; texts != nullptr && known < count; ++known) {
        KP_Object* const object = objects[known];
        if (object == nullptr || typeid(*object) != typeid(KP_String)) {
            break;
        }
        texts[known] = {*kp::detail::castTo<KP_String>(object), object};
    }
    const bool allTexts = known == count;
    if (allTexts) {
        std::sort(texts, texts + count, [](const Text& first, const Text& second) {
            return std::strcoll(first.text, second.text) < 0;
        });
        for (std::size_t i = 0; i < count; ++i) {
            objects[i] = texts[i].object;
        }
    }
    std::free(texts);
    return allTexts;
}

}  // namespace

void KP_Tools::IPAddressString(unsigned long address, char* dst) {
    const auto bits = static_cast<std::uint32_t>(address);
    std::snprintf(dst, kAddressSize, "%d.%d.%d.%d", static_cast<int>(bits >> 24),
                  static_cast<int>(bits >> 16 & 0xFF), static_cast<int>(bits >> 8 & 0xFF),
                  static_cast<int>(bits & 0xFF));
}

void KP_Tools::resolveIP(const unsigned long* address, char* dst) {
    dst[0] = '\0';
    if (kp::platform::hostName(static_cast<std::uint32_t>(*address), dst, kHostNameSize)) {
        toLowerCase(dst);
    } else {
        dst[0] = '\0';
    }
    if (dst[0] == '\0') {
        IPAddressString(*address, dst);
    }
}

long KP_Tools::timeSubtract(timeval* a, timeval* b) {
    // Unsigned, because it is told to wrap at 32 bits; a borrow between the parts comes out right.
    const std::uint32_t seconds =
        static_cast<std::uint32_t>(a->tv_sec) - static_cast<std::uint32_t>(b->tv_sec);
    const std::uint32_t microseconds =
        static_cast<std::uint32_t>(a->tv_usec) - static_cast<std::uint32_t>(b->tv_usec);
    return static_cast<std::int32_t>(seconds * 1000000U + microseconds);
}

void KP_Tools::gettimeofday(timeval* tv, void*) {
    tv->tv_sec = static_cast<decltype(tv->tv_sec)>(std::time(nullptr));
    tv->tv_usec = 0;
}

void KP_Tools::sleep(int seconds) {
    kp::platform::sleepSeconds(seconds);
}

void KP_Tools::toLowerCase(char* s) {
    for (; *s != '\0'; ++s) {
        *s = static_cast<char>(std::tolower(static_cast<unsigned char>(*s)));
    }
}

void KP_Tools::toUpperCase(char* s) {
    for (; *s != '\0'; ++s) {
        *s = static_cast<char>(std::toupper(static_cast<unsigned char>(*s)));
    }
}

char* KP_Tools::strdup(const char* s) {
    const std::size_t size = std::strlen(s) + 1;
    auto* copy = static_cast<char*>(std::malloc(size));
    if (copy != nullptr) {
        std::memcpy(copy, s, size);
    }
    return copy;
}

char* KP_Tools::strtok(char* s, const char* delimiters, char**) {
    // The runtime's tokenizer shares one position among all threads; this one does not.
    thread_local char* position = nullptr;
    if (s == nullptr) {
        s = position;
    }
    if (s == nullptr) {
        return nullptr;
    }
    char* token = s + std::strspn(s, delimiters);
    if (*token == '\0') {
        position = nullptr;
        return nullptr;
    }
    char* end = token + std::strcspn(token, delimiters);
    position = *end != '\0' ? end + 1 : nullptr;
    *end = '\0';
    return token;
}

void KP_Tools::sort(void* base, int n, int (*comparison)(const void*, const void*)) {
    if (n < 2) {
        return;
    }
    const auto count = static_cast<std::size_t>(n);
    auto** objects = static_cast<KP_Object**>(base);
    if (comparison != nullptr) {
        std::qsort(base, count, sizeof(KP_Object*), comparison);
    } else if (!sortTexts(objects, count) && !sortObjects(objects, count)) {
        heapSort(objects, count);
    }
}

int KP_Tools::testPromiscEthernet(const char*) {
    return 1;
}

int KP_Tools::strioctl(int socket, int command, int, char*) {
    kp::platform::controlSocket(socket, command);
    return 0;
}
