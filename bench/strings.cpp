// Strings: finding, wildcards, appending text and numbers.
#include <benchmark/benchmark.h>
#include <fnmatch.h>
#include <kp/text/string.h>
#include <string.h>

#include <charconv>
#include <cstdlib>
#include <string>

#if defined(KP_PEER_QT)
#include <QByteArray>
#endif
#if defined(KP_PEER_GLIB)
#include <glib.h>
#endif
#if defined(KP_PEER_POCO)
#include <Poco/NumberFormatter.h>
#endif

namespace {

// 4 KiB without the pattern, whose first byte is everywhere, or nowhere.
std::string haystack() {
    std::string text;
    while (text.size() < 4096) {
        text += "the rain in the plain stays mainly there; ";
    }
    return text;
}
const char* const kCommonFirst = "thex1";
const char* const kRareFirst = "QtheX";

template <const char* const& Pattern>
void kpFind(benchmark::State& state) {
    KP_String text(haystack().c_str(), 0);
    for (auto _ : state) {
        benchmark::DoNotOptimize(text.findSubString(Pattern, 0));
    }
}
template <const char* const& Pattern>
void memmemFind(benchmark::State& state) {
    const std::string text = haystack();
    for (auto _ : state) {
        benchmark::DoNotOptimize(memmem(text.data(), text.size(), Pattern, strlen(Pattern)));
    }
}
template <const char* const& Pattern>
void stdFind(benchmark::State& state) {
    const std::string text = haystack();
    for (auto _ : state) {
        benchmark::DoNotOptimize(text.find(Pattern));
    }
}
#define FIND(row, pattern)                                       \
    BENCHMARK(kpFind<pattern>)->Name("find/" row "/KP_String");  \
    BENCHMARK(memmemFind<pattern>)->Name("find/" row "/memmem"); \
    BENCHMARK(stdFind<pattern>)->Name("find/" row "/std::string")
FIND("common first byte", kCommonFirst);
FIND("rare first byte", kRareFirst);

void kpWildcard(benchmark::State& state, const char* pattern, const char* sample) {
    KP_String text(sample, 0);
    for (auto _ : state) {
        benchmark::DoNotOptimize(text.wildcardSearch(pattern));
    }
}
void fnmatchWildcard(benchmark::State& state, const char* pattern, const char* sample) {
    for (auto _ : state) {
        benchmark::DoNotOptimize(fnmatch(pattern, sample, 0));
    }
}
BENCHMARK_CAPTURE(kpWildcard, suffix, "*.htm", "some/longer/path/index.htm")
    ->Name("wildcard/*.htm/KP_String");
BENCHMARK_CAPTURE(fnmatchWildcard, suffix, "*.htm", "some/longer/path/index.htm")
    ->Name("wildcard/*.htm/fnmatch");
BENCHMARK_CAPTURE(kpWildcard, pieces, "a*b*c*d*", "axxbxxxcxxxxdxx")
    ->Name("wildcard/a*b*c*d*/KP_String");
BENCHMARK_CAPTURE(fnmatchWildcard, pieces, "a*b*c*d*", "axxbxxxcxxxxdxx")
    ->Name("wildcard/a*b*c*d*/fnmatch");
#if defined(KP_PEER_GLIB)
void glibWildcard(benchmark::State& state, const char* pattern, const char* sample) {
    GPatternSpec* prepared = g_pattern_spec_new(pattern);
    for (auto _ : state) {
        benchmark::DoNotOptimize(g_pattern_match_string(prepared, sample));
    }
    g_pattern_spec_free(prepared);
}
BENCHMARK_CAPTURE(glibWildcard, suffix, "*.htm", "some/longer/path/index.htm")
    ->Name("wildcard/*.htm/GPatternSpec, prepared");
BENCHMARK_CAPTURE(glibWildcard, pieces, "a*b*c*d*", "axxbxxxcxxxxdxx")
    ->Name("wildcard/a*b*c*d*/GPatternSpec, prepared");
#endif

// Times of the next rows are per append.
constexpr int kAppends = 1000;

void kpAppend(benchmark::State& state) {
    for (auto _ : state) {
        KP_String text;
        for (int i = 0; i < kAppends; ++i) {
            text &= "12345678";
        }
        benchmark::DoNotOptimize(text.getLength());
    }
    state.SetItemsProcessed(state.iterations() * kAppends);
}
BENCHMARK(kpAppend)->Name("append 8 bytes/KP_String");
void reallocAppend(benchmark::State& state) {
    for (auto _ : state) {
        char* text = nullptr;
        std::size_t length = 0;
        for (int i = 0; i < kAppends; ++i) {
            text = static_cast<char*>(std::realloc(text, length + 9));
            std::memcpy(text + length, "12345678", 9);
            length += 8;
        }
        benchmark::DoNotOptimize(text);
        std::free(text);
    }
    state.SetItemsProcessed(state.iterations() * kAppends);
}
BENCHMARK(reallocAppend)->Name("append 8 bytes/realloc to the exact size");
void stdAppend(benchmark::State& state) {
    for (auto _ : state) {
        std::string text;
        for (int i = 0; i < kAppends; ++i) {
            text += "12345678";
        }
        benchmark::DoNotOptimize(text.data());
    }
    state.SetItemsProcessed(state.iterations() * kAppends);
}
BENCHMARK(stdAppend)->Name("append 8 bytes/std::string");

template <class Number>
void kpNumber(benchmark::State& state, Number number) {
    KP_String text(64);
    for (auto _ : state) {
        text.truncateString(0);
        text << number;
        benchmark::DoNotOptimize(text.getLength());
    }
}
void toCharsInteger(benchmark::State& state, long number) {
    char text[64];
    for (auto _ : state) {
        benchmark::DoNotOptimize(number);
        benchmark::DoNotOptimize(std::to_chars(text, text + sizeof text, number).ptr);
    }
}
void toCharsDouble(benchmark::State& state, double number) {
    char text[512];
    for (auto _ : state) {
        benchmark::DoNotOptimize(
            std::to_chars(text, text + sizeof text, number, std::chars_format::fixed, 6).ptr);
    }
}
void snprintfDouble(benchmark::State& state, double number) {
    char text[512];
    for (auto _ : state) {
        benchmark::DoNotOptimize(snprintf(text, sizeof text, "%f", number));
    }
}
BENCHMARK_CAPTURE(kpNumber, integer, -1234567890L)->Name("append integer/KP_String");
BENCHMARK_CAPTURE(toCharsInteger, integer, -1234567890L)->Name("append integer/std::to_chars");
BENCHMARK_CAPTURE(kpNumber, number, 12345.678901)->Name("append double/KP_String");
BENCHMARK_CAPTURE(toCharsDouble, number, 12345.678901)->Name("append double/std::to_chars");
BENCHMARK_CAPTURE(snprintfDouble, number, 12345.678901)->Name("append double/snprintf");

}  // namespace
