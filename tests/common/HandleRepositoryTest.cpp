#include "common/HandleRepository.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

namespace {

struct Tracked {
    explicit Tracked(std::atomic<int>& destroyed) : m_destroyed(destroyed) {}
    ~Tracked() { ++m_destroyed; }
    std::atomic<int>& m_destroyed;
};

}  // namespace

TEST(HandleRepository, NullAndUnknownHandlesAreSimplyUnknown)
{
    HandleRepository& repository = OrvGetHandleRepository();
    int local = 0;
    EXPECT_FALSE(repository.handleExists(nullptr));
    EXPECT_FALSE(repository.handleExists(&local));
    EXPECT_FALSE(repository.removeHandle(nullptr));
    EXPECT_FALSE(repository.removeHandle(&local));
    EXPECT_EQ(&repository, &OrvGetHandleRepository());
}

TEST(HandleRepository, OwnsRegisteredObjectsUntilRemoved)
{
    HandleRepository repository;
    std::atomic<int> destroyed{0};
    auto* object = new Tracked(destroyed);
    EXPECT_TRUE(repository.registerHandle(object));
    EXPECT_TRUE(repository.handleExists(object));
    EXPECT_FALSE(repository.registerHandle(object));  // already there: not adopted twice
    EXPECT_EQ(0, destroyed);
    auto held = boost::any_cast<std::shared_ptr<Tracked>>(repository.m_handles.find(object)->second);
    EXPECT_EQ(object, held.get());
    held.reset();
    EXPECT_TRUE(repository.removeHandle(object));
    EXPECT_EQ(1, destroyed);
    EXPECT_FALSE(repository.handleExists(object));
    EXPECT_FALSE(repository.removeHandle(object));
}

TEST(HandleRepository, ConcurrentRegisterLookupAndRemove)
{
    HandleRepository repository;
    std::atomic<int> destroyed{0};
    std::atomic<int> misses{0};
    constexpr int kThreads = 8;
    constexpr int kPerThread = 2000;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&] {
            std::vector<Tracked*> mine;
            for (int i = 0; i < kPerThread; ++i) {
                auto* object = new Tracked(destroyed);
                if (!repository.registerHandle(object) || !repository.handleExists(object))
                    ++misses;
                mine.push_back(object);
                if (i % 3 == 0) {  // remove some while others insert
                    Tracked* victim = mine[mine.size() / 2];
                    if (!repository.removeHandle(victim))
                        ++misses;
                    mine.erase(mine.begin() + static_cast<long>(mine.size() / 2));
                }
            }
            for (Tracked* object : mine) {
                if (!repository.handleExists(object) || !repository.removeHandle(object))
                    ++misses;
            }
        });
    }
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(0, misses);
    EXPECT_EQ(kThreads * kPerThread, destroyed);
    EXPECT_TRUE(repository.m_handles.empty());
}
