#include "vex_core/domain/read_section.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <thread>
#include <vector>

#include "support/joining_thread.h"

using VexCore::ReadSection;
using VexCore::RetiredBlocks;

namespace {
constexpr std::chrono::seconds longTime{60}; // for what comes at once, on a slow machine too

std::future<void> WaitingForReaders()
{
    return std::async(std::launch::async, &RetiredBlocks::WaitForReaders);
}

// A thread that reads until it is told to end.
class Reader
{
public:
    Reader()
        : m_thread([go = m_go.get_future(), &reads = m_reads]() mutable {
              const ReadSection section;
              reads.set_value();
              go.wait();
          })
    {
        m_reads.get_future().wait();
    }
    ~Reader() { m_go.set_value(); }

private:
    std::promise<void> m_go;
    std::promise<void> m_reads;
    ::Test::JoiningThread m_thread;
};

} // namespace

TEST(ReadSection, WaitEndsThoughSomebodyReadsAllTheTime)
{
    std::atomic<int> sections{0};
    ::Test::JoiningThread reader([&](const std::atomic<bool>& stop) {
        // Like threads that share a place: one section begins before the other ends.
        auto section = std::make_unique<ReadSection>();
        while (!stop) {
            auto next = std::make_unique<ReadSection>();
            section = std::move(next);
            ++sections;
        }
    });
    while (sections == 0)
        std::this_thread::yield();
    const std::future<void> wait = WaitingForReaders();
    const bool ended = wait.wait_for(longTime) == std::future_status::ready;
    reader.Stop();
    EXPECT_TRUE(ended);
}

TEST(ReadSection, ManyWhoWaitAtOnceAllComeToTheirEnd)
{
    std::atomic<bool> isOver{false};
    std::vector<std::unique_ptr<::Test::JoiningThread>> readers;
    for (int i = 0; i < 2; ++i)
        readers.push_back(std::make_unique<::Test::JoiningThread>([](const std::atomic<bool>& stop) {
            while (!stop)
                const ReadSection section;
        }));
    std::vector<std::future<void>> waits;
    for (int i = 0; i < 4; ++i)
        waits.push_back(std::async(std::launch::async, [&isOver] {
            for (int j = 0; j < 200 && !isOver; ++j)
                RetiredBlocks::WaitForReaders();
        }));
    bool allEnded = true;
    for (const std::future<void>& wait : waits)
        allEnded = wait.wait_for(longTime) == std::future_status::ready && allEnded;
    isOver = true;
    EXPECT_TRUE(allEnded);
}

TEST(ReadSection, IsWaitedForThoughManyMoreReadThanHavePlacesOfTheirOwn)
{
    std::vector<std::unique_ptr<Reader>> readers(ReadSection::maxOwnPlaces + 3);
    for (std::unique_ptr<Reader>& reader : readers)
        reader = std::make_unique<Reader>();
    EXPECT_EQ(ReadSection::OwnPlaces(), ReadSection::maxOwnPlaces);
    const std::future<void> wait = WaitingForReaders();
    const auto hasEnded = [&wait](std::chrono::milliseconds time) {
        return wait.wait_for(time) == std::future_status::ready;
    };
    while (readers.size() > 1) // the last shares its place with two who go
        readers.erase(readers.begin());
    EXPECT_FALSE(hasEnded(std::chrono::milliseconds(50)));
    readers.clear();
    EXPECT_TRUE(hasEnded(longTime));
}

TEST(ReadSection, ThreadsThatEndedHaveNoPlaceAnyMore)
{
    for (std::size_t i = 0; i < 2 * ReadSection::maxOwnPlaces; ++i)
        std::thread([] { const ReadSection section; }).join();
    EXPECT_LT(ReadSection::OwnPlaces(), ReadSection::maxOwnPlaces);
}

TEST(ReadSection, WhatEndsWithTheThreadMayReadLast)
{
    struct ReadsLast
    {
        std::atomic<bool>* done = nullptr;
        ~ReadsLast()
        {
            const std::future<void> wait = [] {
                const ReadSection section;
                std::future<void> begun = WaitingForReaders();
                EXPECT_EQ(begun.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
                return begun;
            }();
            *done = true;
        }
    };
    std::atomic<bool> done{false};
    std::thread([&done] {
        static thread_local ReadsLast t_last; // made first, so that it ends after what the section makes
        t_last.done = &done;
        const ReadSection section;
    }).join();
    EXPECT_TRUE(done);
}
