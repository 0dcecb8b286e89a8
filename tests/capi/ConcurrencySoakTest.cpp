// Sixteen threads, each running fifty cycles of create, connect, publish,
// disconnect and close against the reference server, while other threads
// create and close handles and call with handles that are gone.
#include "CapiTestSupport.h"

#include <atomic>
#include <mutex>
#include <set>
#include <shared_mutex>

using namespace CapiTest;

namespace {

constexpr int kThreads = 16;
constexpr int kCycles = 50;
constexpr int kChurnThreads = 2;

std::string Name(int thread, int cycle) { return "t" + std::to_string(thread) + "-c" + std::to_string(cycle); }
// Small and different for every publish, so that a mix-up shows.
std::string Content(int thread, int cycle)
{
    return Bytes(100 + 37 * static_cast<std::size_t>(thread) + static_cast<std::size_t>(cycle),
                 static_cast<unsigned>(thread * 1000 + cycle));
}

// The handles alive right now: the library reuses freed memory for new handles,
// so a closed handle's address may come back as a live one and must not be
// called as a gone one meanwhile.
class LiveHandles {
public:
    ORV_RESULT Create(void** handle)
    {
        std::shared_lock<std::shared_mutex> lock(m_mutex);
        const ORV_RESULT result = OrvServerConnectionCreate(handle);
        std::lock_guard<std::mutex> guard(m_setMutex);
        if (result == ORV_RESULT_Success)
            m_live.insert(*handle);
        return result;
    }
    ORV_RESULT Close(void* handle)
    {
        std::shared_lock<std::shared_mutex> lock(m_mutex);
        const ORV_RESULT result = OrvServerConnectionClose(handle);
        std::lock_guard<std::mutex> guard(m_setMutex);
        m_live.erase(handle);
        return result;
    }
    // Runs `calls` while no handle is created or closed, unless `handle` is alive.
    template <class Calls>
    void WhileGone(void* handle, Calls calls)
    {
        std::unique_lock<std::shared_mutex> lock(m_mutex);
        if (m_live.count(handle) == 0)
            calls();
    }

private:
    std::shared_mutex m_mutex;  // shared: creating or closing; exclusive: calling with gone handles
    std::mutex m_setMutex;
    std::set<void*> m_live;
};

using ConcurrencySoakTest = StartedTest;

}  // namespace

TEST_F(ConcurrencySoakTest, SixteenThreadsPublishFiftyTimesEachWhileGoneHandlesAreRefused)
{
    ReferenceServer server(R"({"users": [{"name": "soak", "password": "soak-pw"}],
                               "sites": [{"contentUrl": "", "projects": ["Soak"]}]})");
    for (int t = 0; t < kThreads; ++t)
        for (int c = 0; c < kCycles; ++c)
            Extract(Name(t, c) + ".qrx", Content(t, c));
    const Utf16 url = U(server.Url()), user = U("soak"), password = U("soak-pw"), site = U(""), project = U("Soak");

    LiveHandles live;
    std::atomic<int> soaking{kThreads};
    std::vector<std::string> failures(kThreads + kChurnThreads);
    std::vector<int> staleChecks(kChurnThreads, 0);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int c = 0; c < kCycles && failures[t].empty(); ++c) {
                void* handle = nullptr;
                ORV_RESULT rc = live.Create(&handle);
                if (rc == ORV_RESULT_Success)
                    rc = OrvServerConnectionConnect(handle, url.c_str(), user.c_str(), password.c_str(), site.c_str());
                if (rc == ORV_RESULT_Success)
                    rc = OrvServerConnectionPublishExtract(handle, U(m_dir.File(Name(t, c) + ".qrx")).c_str(),
                                                           project.c_str(), U(Name(t, c)).c_str(), 0);
                if (rc == ORV_RESULT_Success)
                    rc = OrvServerConnectionDisconnect(handle);
                if (rc != ORV_RESULT_Success)
                    failures[t] = Name(t, c) + ": " + std::to_string(rc) + " " + LastError();
                if (handle != nullptr && live.Close(handle) != ORV_RESULT_Success && failures[t].empty())
                    failures[t] = Name(t, c) + ": close failed";
            }
            --soaking;
        });
    }
    for (int k = 0; k < kChurnThreads; ++k) {
        threads.emplace_back([&, k] {
            std::string& failure = failures[kThreads + k];
            const unsigned short* x = user.c_str();
            int notAHandle = 0;
            // Bounded: a few hundred rounds at most, or until the soak is over.
            for (int round = 0; round < 400 && soaking > 0 && failure.empty(); ++round) {
                void* handle = nullptr;
                if (live.Create(&handle) != ORV_RESULT_Success || live.Close(handle) != ORV_RESULT_Success) {
                    failure = "create or close failed: " + LastError();
                    break;
                }
                for (void* gone : {handle, static_cast<void*>(nullptr), static_cast<void*>(&notAHandle)}) {
                    live.WhileGone(gone, [&] {
                        ++staleChecks[k];
                        for (ORV_RESULT result : {OrvServerConnectionConnect(gone, x, x, x, x),
                                                  OrvServerConnectionPublishExtract(gone, x, x, x, 1),
                                                  OrvServerConnectionDisconnect(gone),
                                                  OrvServerConnectionSetProxyCredentials(gone, x, x),
                                                  OrvServerConnectionClose(gone)})
                            if (result != ORV_RESULT_BadHandle && failure.empty())
                                failure = "a gone handle gave " + std::to_string(result);
                        if (failure.empty() && LastError() != "Invalid ServerConnection handle")
                            failure = "a gone handle left \"" + LastError() + "\"";
                    });
                }
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();

    for (std::size_t i = 0; i < failures.size(); ++i)
        EXPECT_EQ("", failures[i]) << "thread " << i;
    for (int k = 0; k < kChurnThreads; ++k)
        EXPECT_GT(staleChecks[k], 0) << "churn thread " << k << " never called with a gone handle";
    for (int t = 0; t < kThreads; ++t)
        for (int c = 0; c < kCycles; ++c)
            EXPECT_EQ(Content(t, c), server.Stored("Soak", Name(t, c))) << Name(t, c);
}
