// Files: a configuration of 1000 mappings, written and read, and a line of the log.
#include <benchmark/benchmark.h>
#include <kp/config/config.h>
#include <kp/core/log.h>
#include <kp/tools/tools.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <string>

#if defined(KP_PEER_QT)
#include <QSettings>
#include <QString>
#endif
#if defined(KP_PEER_GLIB)
#include <glib.h>
#endif
#if defined(KP_PEER_SPDLOG)
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>
#endif

namespace {

namespace fs = std::filesystem;

constexpr int kMappings = 1000;

// An installation directory for this process, removed at its end.
const fs::path& site() {
    static const struct Site {
        Site()
            : path(fs::temp_directory_path() / ("kp-bench-" + std::to_string(std::time(nullptr)))) {
            for (const char* folder : {"admin", "logs"}) {
                fs::create_directories(path / folder);
            }
            ::setenv("KP_INSTALLDIR", path.c_str(), 1);
        }
        ~Site() { fs::remove_all(path); }
        fs::path path;
    } here;
    return here.path;
}

class Config : public KP_Config {
public:
    Config() {
        mimeTypes = static_cast<MimeType*>(std::calloc(kMappings, sizeof(MimeType)));
        numOfMimeTypes = kMappings;
        for (int i = 0; i < kMappings; ++i) {
            std::snprintf(mimeTypes[i].type, sizeof mimeTypes[i].type, "application/x-%d", i);
            mimeTypes[i].numOfPostfixes = 2;
            std::snprintf(mimeTypes[i].postfixes[0], 16, "e%d", i);
            std::snprintf(mimeTypes[i].postfixes[1], 16, "f%d", i);
        }
        daysOfDataToKeep = 7;
        std::strcpy(password, "secret");
        setName("bench");
    }
    int read() {
        std::FILE* const file = openConfigFile("/admin", "bench_prvt.cfg", "r");
        const int result = readGeneralConfigFile(file);
        std::fclose(file);
        return result;
    }
};

void kpSave(benchmark::State& state) {
    site();
    Config config;
    for (auto _ : state) {
        config.save();
    }
}
BENCHMARK(kpSave)->Name("config_save/KP_Config");

void kpRead(benchmark::State& state) {
    site();
    Config config;
    config.save();
    for (auto _ : state) {
        config.read();
    }
}
BENCHMARK(kpRead)->Name("config_read/KP_Config");

#if defined(KP_PEER_GLIB)
GKeyFile* keyFile() {
    GKeyFile* const file = g_key_file_new();
    for (int i = 0; i < kMappings; ++i) {
        g_key_file_set_string(file, "mime", ("application/x-" + std::to_string(i)).c_str(),
                              ("e" + std::to_string(i) + " f" + std::to_string(i)).c_str());
    }
    return file;
}

void glibSave(benchmark::State& state) {
    GKeyFile* const file = keyFile();
    const std::string path = site() / "glib";
    for (auto _ : state) {
        g_key_file_save_to_file(file, path.c_str(), nullptr);
    }
    g_key_file_free(file);
}
BENCHMARK(glibSave)->Name("config_save/GKeyFile");

void glibRead(benchmark::State& state) {
    GKeyFile* const file = keyFile();
    const std::string path = site() / "glib";
    g_key_file_save_to_file(file, path.c_str(), nullptr);
    g_key_file_free(file);
    for (auto _ : state) {
        GKeyFile* const read = g_key_file_new();
        g_key_file_load_from_file(read, path.c_str(), G_KEY_FILE_NONE, nullptr);
        g_key_file_free(read);
    }
}
BENCHMARK(glibRead)->Name("config_read/GKeyFile");
#endif

#if defined(KP_PEER_QT)
void set(QSettings& settings) {
    for (int i = 0; i < kMappings; ++i) {
        settings.setValue(QString("mime/x-%1").arg(i), QString("e%1 f%1").arg(i));
    }
}

void qtSave(benchmark::State& state) {
    const QString path = QString::fromStdString((site() / "qt.ini").string());
    QSettings settings(path, QSettings::IniFormat);
    set(settings);
    for (auto _ : state) {
        settings.setValue("mime/x-0",
                          QString::number(state.iterations()));  // or nothing is written
        settings.sync();
    }
}
BENCHMARK(qtSave)->Name("config_save/QSettings");

void qtRead(benchmark::State& state) {
    // QSettings remembers the files that it has read by their names.
    const fs::path first = site() / "qt0.ini";
    {
        QSettings settings(QString::fromStdString(first.string()), QSettings::IniFormat);
        set(settings);
    }
    int number = 0;
    for (auto _ : state) {
        state.PauseTiming();
        const fs::path path = site() / ("qt" + std::to_string(++number) + ".ini");
        fs::copy_file(first, path, fs::copy_options::overwrite_existing);
        state.ResumeTiming();
        QSettings settings(QString::fromStdString(path.string()), QSettings::IniFormat);
        benchmark::DoNotOptimize(settings.value("mime/x-1"));
    }
}
BENCHMARK(qtRead)->Name("config_read/QSettings");
#endif

// --- a line of the log with its time, on the disk's doorstep when the call returns ---

void kpLogLine(benchmark::State& state) {
    site();
    KP_Log::init("bench", 0, nullptr);
    int number = 0;
    for (auto _ : state) {
        KP_Log::ret("a front end at %s was refused %d times", "10.0.0.1", ++number);
    }
    KP_Log::reset();
}
BENCHMARK(kpLogLine)->Name("log_line/KP_Log");

void fprintfLine(benchmark::State& state) {
    std::FILE* const file = std::fopen((site() / "logs/plain.log").c_str(), "a");
    int number = 0;
    for (auto _ : state) {
        const std::time_t now = std::time(nullptr);
        std::tm local{};
        localtime_r(&now, &local);
        char stamp[32];
        std::strftime(stamp, sizeof stamp, "%Y%b%d-%H:%M", &local);
        std::fprintf(file, "%s - a front end at %s was refused %d times\n", stamp, "10.0.0.1",
                     ++number);
        std::fflush(file);
    }
    std::fclose(file);
}
BENCHMARK(fprintfLine)->Name("log_line/fprintf, fflush");

#if defined(KP_PEER_SPDLOG)
void spdlogLine(benchmark::State& state) {
    auto logger = spdlog::basic_logger_mt("bench", (site() / "logs/spdlog.log").string());
    logger->set_pattern("%Y%b%d-%H:%M - %v");
    logger->flush_on(spdlog::level::info);
    int number = 0;
    for (auto _ : state) {
        logger->info("a front end at {} was refused {} times", "10.0.0.1", ++number);
    }
    spdlog::drop("bench");
}
BENCHMARK(spdlogLine)->Name("log_line/spdlog");
#endif

}  // namespace
