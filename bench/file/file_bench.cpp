/// Directories of 10,000 files: listed by name and by time, and numbered when every number is taken.

#include <kova/file_list.h>
#include <kova/filename.h>

#include <benchmark/benchmark.h>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

namespace {

constexpr int kFiles = 10000;

/// file_0000 to file_9999 in a directory of the process, each modified a second before the one in front of
/// it; so the order by time is the opposite of that by name.
class Files {
  public:
    Files() {
        char directory[] = "/tmp/kova-bench-XXXXXX";
        m_Directory = std::string(::mkdtemp(directory)) + '/';
        const time_t now = ::time(nullptr);
        for (int number = 0; number < kFiles; ++number) {
            const std::string path = PathOf(number);
            ::close(::open(path.c_str(), O_CREAT | O_WRONLY, 0666));
            const timespec times[] = {{now, 0}, {now - number, 0}};
            ::utimensat(AT_FDCWD, path.c_str(), times, 0);
        }
    }
    Files(const Files&) = delete;
    Files& operator=(const Files&) = delete;
    ~Files() { std::filesystem::remove_all(m_Directory); }

    std::string PathOf(int number) const {
        char name[16];
        std::snprintf(name, sizeof name, "file_%04d", number);
        return m_Directory + name;
    }
    const std::string& Directory() const { return m_Directory; }

  private:
    std::string m_Directory;
};

const Files& TheFiles() {
    static const Files files;
    return files;
}

template <bool by_time>
int ListByLibrary() {
    static std::vector<char> list(kFiles * 16);
    const char* const directory = TheFiles().Directory().c_str();
    const auto size = static_cast<unsigned>(list.size());
    return KovaListFileOrdered(directory, "*", list.data(), size, by_time) - 2;
}

/// The entries of the directory but "." and "..".
template <typename Sort>
int ScanDirectory(int (*compare)(const dirent**, const dirent**), Sort sort) {
    dirent** entries = nullptr;
    const int count = ::scandir(TheFiles().Directory().c_str(), &entries, nullptr, compare);
    sort(entries, count);
    for (int i = 0; i < count; ++i) std::free(entries[i]);
    std::free(entries);
    return count - 2;
}

int ScanByName() {
    return ScanDirectory(::alphasort, [](dirent**, int) {});
}

/// The library's comparison, which reads the times of both files.
int ScanByComparison() {
    KovaSetThreadSafeDir(TheFiles().Directory().c_str());
    return ScanDirectory(DateTimeSort, [](dirent**, int) {});
}

int ScanByTime() {
    struct Dated {
        timespec time;
        dirent* entry;
    };
    return ScanDirectory(nullptr, [](dirent** entries, int count) {
        std::vector<Dated> dated;
        dated.reserve(static_cast<size_t>(count));
        std::string path = TheFiles().Directory();
        const size_t length = path.size();
        for (int i = 0; i < count; ++i) {
            path.resize(length);
            path += entries[i]->d_name;
            struct stat status;
            ::stat(path.c_str(), &status);
            dated.push_back({status.st_mtim, entries[i]});
        }
        std::stable_sort(dated.begin(), dated.end(), [](const Dated& a, const Dated& b) {
            return a.time.tv_sec != b.time.tv_sec ? a.time.tv_sec < b.time.tv_sec
                                                  : a.time.tv_nsec < b.time.tv_nsec;
        });
        for (int i = 0; i < count; ++i) entries[i] = dated[static_cast<size_t>(i)].entry;
    });
}

int NumberByHand() {
    int oldest = -1;
    time_t oldest_time = 0;
    char path[256];
    for (int number = 0; number < kFiles; ++number) {
        std::snprintf(path, sizeof path, "%sfile_%04d", TheFiles().Directory().c_str(), number);
        struct stat status;
        if (::stat(path, &status) != 0) return -1;
        if (oldest >= 0 && status.st_mtim.tv_sec >= oldest_time) continue;
        oldest = number;
        oldest_time = status.st_mtim.tv_sec;
    }
    return oldest + 1;
}

int NumberByLibrary() {
    KovaFilename name((TheFiles().Directory() + "file_#").c_str());
    return std::atoi(name.ResolveFileNo(kFiles).c_str() + TheFiles().Directory().size() + 5) + 1;
}

int NextByLibrary() {
    char result[4096];
    KovaGetNextFile((TheFiles().Directory() + "file_????").c_str(), result, sizeof result, kFiles);
    return std::atoi(result + TheFiles().Directory().size() + 5) + 1;
}

template <int (*function)()>
void Run(benchmark::State& state) {
    for (auto _ : state) {
        if (function() == kFiles) continue;
        state.SkipWithError("a wrong result");
        break;
    }
}

[[maybe_unused]] const bool g_registered = [] {
    const auto add = [](const char* name, void (*function)(benchmark::State&)) {
        benchmark::RegisterBenchmark(name, function)->MeasureProcessCPUTime()->UseRealTime();
    };
    add("list-by-name/scandir", Run<ScanByName>);
    add("list-by-name/library", Run<ListByLibrary<false>>);
    add("list-by-time/stat-and-sort", Run<ScanByTime>);
    add("list-by-time/library", Run<ListByLibrary<true>>);
    add("list-by-time/comparison", Run<ScanByComparison>);
    add("number/by-hand", Run<NumberByHand>);
    add("number/filename", Run<NumberByLibrary>);
    add("number/next-file", Run<NextByLibrary>);
    return true;
}();

}  // namespace
