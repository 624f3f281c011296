// The library as a service process gets it: loaded and unloaded by the dynamic linker, tracing into the
// buffer of the real facility. This program neither links the library nor defines any of the functions that
// it calls.
#include "reader.h"
#include "support/leak_check.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <link.h>
#include <trace_ovra_hash.h>
#include <unistd.h>

#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

class Load : public KovaTest {
  protected:
    ~Load() override {
        if (m_Library != nullptr) ::dlclose(m_Library);
    }

    void Open() {
        m_Library = ::dlopen(KOVA_SONAME, RTLD_NOW);
        ASSERT_NE(nullptr, m_Library) << ::dlerror();
    }

    void Close() {
        ASSERT_NE(nullptr, m_Library);
        ASSERT_EQ(0, ::dlclose(m_Library));
        m_Library = nullptr;
        ASSERT_EQ(nullptr, ::dlopen(KOVA_SONAME, RTLD_NOW | RTLD_NOLOAD)) << "the library cannot be unloaded";
    }

    /// The records of this process in buffer "KOVA", oldest first. The buffer outlives the library.
    static std::vector<trace_ovra::Record> Records() {
        const trace_ovra::ReadResult result = trace_ovra::ReadProcess(::getpid(), "KOVA");
        return result.buffers.empty() ? std::vector<trace_ovra::Record>{} : result.buffers[0].records;
    }

    /// The addresses that the dynamic linker calls after loading, in its order.
    std::vector<void*> Initialisers() const {
        link_map* map = nullptr;
        EXPECT_EQ(0, ::dlinfo(m_Library, RTLD_DI_LINKMAP, &map)) << ::dlerror();
        size_t bytes = 0;
        void* const* begin = nullptr;
        for (const ElfW(Dyn)* entry = map->l_ld; entry->d_tag != DT_NULL; ++entry) {
            if (entry->d_tag == DT_INIT_ARRAYSZ) bytes = entry->d_un.d_val;
            if (entry->d_tag == DT_INIT_ARRAY)
                begin = reinterpret_cast<void* const*>(map->l_addr + entry->d_un.d_ptr);
        }
        return {begin, begin + bytes / sizeof(void*)};
    }

    void* m_Library = nullptr;
};

// The first case, since the facility looks for its directory when it is loaded, and then stays.
TEST_F(Load, PabendLeavesItsRecordInTheBufferFile) {
    if (::dlopen(TRACE_OVRA_SONAME, RTLD_NOW | RTLD_NOLOAD) != nullptr) {
        GTEST_SKIP() << "the trace facility is loaded already";
    }
    char directory[] = "/tmp/kova-load-test-XXXXXX";
    ASSERT_NE(nullptr, ::mkdtemp(directory));
    const ChildResult child = RunInChild([&] {
        ::setenv("TRACE_OVRA_DIR", directory, 1);
        Open();
        std::printf("%d", ::getpid());
        std::fflush(stdout);
        const auto abend =
            reinterpret_cast<void (*)(uint32_t, uint32_t, uint32_t)>(::dlsym(m_Library, "pabend"));
        abend(0x26C24100, 0, 0);
    });
    EXPECT_EQ(SIGABRT, child.signal) << child.error;

    const std::string file = std::string(directory) + "/KOVA." + child.output + ".trace";
    const trace_ovra::ReadResult result = trace_ovra::ReadFile(file, "KOVA");
    ASSERT_EQ(1u, result.buffers.size()) << result.error;
    ASSERT_EQ(2u, result.buffers[0].records.size());
    const trace_ovra::Record& record = result.buffers[0].records[1];
    EXPECT_EQ(TraceOvraHash("nTid=%x KovaGetTid()=%x", 2), record.hash);
    EXPECT_EQ(2u, record.Count());
    EXPECT_EQ(0u, record.values[0]);
    EXPECT_EQ(static_cast<uint32_t>(std::stoul(child.output)), record.values[1]);
    ::unlink(file.c_str());
    ::rmdir(directory);
}

TEST_F(Load, LeavesOneRecordAndUnloadingOneMore) {
    const size_t before = Records().size();
    Open();
    const std::vector<trace_ovra::Record> loaded = Records();
    ASSERT_EQ(before + 1, loaded.size());
    EXPECT_EQ(TraceOvraHash("library initialised", 0), loaded.back().hash);
    EXPECT_EQ(0u, loaded.back().Count());
    EXPECT_NE(0u, loaded.back().Line());
    EXPECT_EQ(static_cast<uint32_t>(::gettid()), loaded.back().thread);

    Close();
    const std::vector<trace_ovra::Record> unloaded = Records();
    ASSERT_EQ(before + 2, unloaded.size());
    EXPECT_EQ(TraceOvraHash("library unloaded", 0), unloaded.back().hash);
    EXPECT_EQ(0u, unloaded.back().Count());
    EXPECT_NE(0u, unloaded.back().Line());
}

TEST_F(Load, MayBeRepeated) {
    const size_t before = Records().size();
    for (int i = 0; i < 3; ++i) {
        Open();
        Close();
    }
    EXPECT_EQ(before + 6, Records().size());
}

TEST_F(Load, FillsInTheTraceHandle) {
    Open();
    const auto* const handle = static_cast<const uint32_t*>(::dlsym(m_Library, "kova_trace_d"));
    ASSERT_NE(nullptr, handle);
    EXPECT_NE(0u, *handle);
}

TEST_F(Load, RunsKovaInitAfterEveryOtherInitialiser) {
    Open();
    const std::vector<void*> initialisers = Initialisers();
    ASSERT_FALSE(initialisers.empty());
    EXPECT_EQ(::dlsym(m_Library, "kova_init"), initialisers.back());
}

TEST_F(Load, FacilityHashesTextsAsTheLibraryDoes) {
    void* const facility = ::dlopen(TRACE_OVRA_SONAME, RTLD_NOW);
    ASSERT_NE(nullptr, facility) << ::dlerror();
    const auto hash =
        reinterpret_cast<uint32_t (*)(const char*, uint32_t)>(::dlsym(facility, "trace_ovra_hash"));
    ASSERT_NE(nullptr, hash);
    static constexpr char kHighBytes[] = "\x80\xFF byte=%x";
    for (uint32_t count = 0; count <= 9; ++count) {
        for (const char* text : {"", "a", "nTid=%x KovaGetTid()=%x", kHighBytes}) {
            EXPECT_EQ(TraceOvraHash(text, count), hash(text, count)) << text << " " << count;
        }
    }
    constexpr uint32_t kAtCompileTime = TraceOvraHash("nTid=%x KovaGetTid()=%x", 2);
    EXPECT_EQ(kAtCompileTime, hash("nTid=%x KovaGetTid()=%x", 2));
    ::dlclose(facility);
}

}  // namespace
