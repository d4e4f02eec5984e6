#include "vex_core/domain/key_table.h"

#include "vex_core/domain/dom_text.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <map>
#include <random>
#include <set>

#include "support/child.h"
#include "support/dom_ptr.h"
#include "support/heap_in_use.h"
#include "support/joining_thread.h"
#include "support/sanitized.h"

using VexCore::CDom;
using VexCore::CDomObject;
using VexCore::DomText;
using VexCore::DomValue;
using VexCore::HashOfKey;
using VexCore::KeyTable;

namespace {
using Texts = std::vector<std::string>;

void Write(KeyTable& table, std::string_view key, std::string_view text)
{
    table.WriteText(key, text);
}

bool Remove(KeyTable& table, std::string_view key)
{
    return table.Remove(key);
}

std::string TextIn(const KeyTable& table, std::string_view key)
{
    std::string text = "(none)";
    table.Read(key, [&text](const DomValue& value) { return TextOf(value, text); });
    return text;
}

// What a table has to hold, and the plainest way to ask for it.
class Model
{
public:
    std::map<std::string, std::string> values;

    std::string Text(const std::string& key) const
    {
        const auto found = values.find(key);
        return found == values.end() ? "(none)" : found->second;
    }
    Texts KeysThatBegin(const std::string& start) const
    {
        Texts keys;
        for (const auto& [key, value] : values)
            if (key.compare(0, start.size(), start) == 0)
                keys.push_back(key);
        return keys;
    }
    bool HasAnyIn(const std::string& scope) const
    {
        return (scope.empty() && !values.empty()) || values.count(scope) > 0 || !KeysThatBegin(scope + '.').empty();
    }
};

// Few letters, so that keys meet again, and dots wherever they may be.
std::string AnyKey(std::mt19937& random)
{
    const char letters[] = {'.', '.', 'a', 'b', '-'};
    std::string key(random() % 6, ' ');
    for (char& c : key)
        c = letters[random() % std::size(letters)];
    if (random() % 10 == 0)
        key.insert(0, std::string(252, 'x')); // about as much as has levels
    return key;
}

} // namespace

TEST(KeyTable, HoldsWhatAMapHoldsAfterAnyWrites)
{
    for (unsigned seed = 1; seed <= 8; ++seed) {
        std::mt19937 random(seed);
        KeyTable table;
        Model model;
        const unsigned removals = 20 + 10 * (seed % 4); // of a hundred
        for (int step = 0; step < 800; ++step) {
            const std::string key = AnyKey(random);
            if (random() % 100 < removals) {
                ASSERT_EQ(Remove(table, key), model.values.erase(key) == 1) << key;
            } else {
                const std::string text = std::to_string(step) + std::string(random() % 80, 'x');
                if (random() % 2)
                    Write(table, key, text);
                else
                    table.Write(std::string_view(key), DomValue::NewText(text));
                model.values[key] = text;
            }
            const std::string other = AnyKey(random);
            ASSERT_EQ(TextIn(table, other), model.Text(other)) << other;
            ASSERT_EQ(table.HasAnyIn(other), model.HasAnyIn(other)) << other;
            ASSERT_EQ(table.KeysThatBegin(other + '.', 0), model.KeysThatBegin(other + '.')) << other;
        }
        ASSERT_EQ(table.KeysThatBegin("", 0), model.KeysThatBegin(""));
        for (const auto& [key, text] : model.values)
            ASSERT_EQ(TextIn(table, key), text) << key;
    }
}

TEST(KeyTable, ManyKeysComeAndGo)
{
    KeyTable table;
    constexpr int count = 5000;
    const auto key = [](int number) { return "group" + std::to_string(number / 10) + ".key" + std::to_string(number); };
    for (int round = 0; round < 2; ++round) {
        for (int i = 0; i < count; ++i)
            Write(table, key(i), std::to_string(i));
        for (int i = 0; i < count; ++i)
            ASSERT_EQ(TextIn(table, key(i)), std::to_string(i));
        EXPECT_EQ(table.KeysThatBegin("group77.", 8).size(), 10u);
        for (int i = 0; i < count; ++i)
            ASSERT_EQ(i / 10 == 77 || Remove(table, key(i)), true);
        EXPECT_EQ(table.KeysThatBegin("", 0), table.KeysThatBegin("group77.", 0));
        EXPECT_EQ(TextIn(table, key(1)), "(none)");
    }
}

TEST(KeyTable, KeysComeWithoutWhatIsToBeSkipped)
{
    KeyTable table;
    for (const char* key : {"a.b", "a.b.c", "a.a-x", "a", "ab"})
        Write(table, key, "");
    EXPECT_EQ(table.KeysThatBegin("a.", 2), (Texts{"a-x", "b", "b.c"}));
}

TEST(KeyTable, KeyOfNothingButDotsTakesLittleMemory)
{
#ifdef VEX_TEST_SANITIZED
    GTEST_SKIP() << "a sanitizer keeps what is given back";
#endif
    if (!::Test::HeapInUse())
        GTEST_SKIP() << "the system does not tell how much of the heap is in use";
    const std::size_t before = *::Test::HeapInUse();
    KeyTable table;
    const std::string dots(50000, '.');
    Write(table, dots, "text");
    EXPECT_EQ(TextIn(table, dots), "text");
    EXPECT_EQ(table.KeysThatBegin(dots.substr(0, 40000), 49999), Texts{"."});
    EXPECT_EQ(table.KeysThatBegin(std::string(dots.size(), '.') + '.', 0), Texts());
    EXPECT_LT(*::Test::HeapInUse(), before + 1000000) << "a text for each dot would have a gigabyte";
}

TEST(KeyTable, WhatIsRemovedOrOverwrittenTakesNoMemory)
{
#ifdef VEX_TEST_SANITIZED
    GTEST_SKIP() << "a sanitizer keeps what is given back";
#endif
    if (!::Test::HeapInUse())
        GTEST_SKIP() << "the system does not tell how much of the heap is in use";
    KeyTable table;
    const std::size_t before = *::Test::HeapInUse();
    for (int i = 0; i < 20000; ++i) {
        const std::string key = "a." + std::to_string(i) + ".b." + std::to_string(i);
        Write(table, key, "value");
        Write(table, "same", key);
        ASSERT_TRUE(Remove(table, key));
    }
    EXPECT_LT(*::Test::HeapInUse(), before + 100000) << "each has some hundred bytes";
    Write(table, "same", std::string(4000000, 'x'));
    Write(table, "same", "");
    EXPECT_LT(*::Test::HeapInUse(), before + 100000);
}

// --- several threads

TEST(KeyTable, ValueStaysWhileItIsReadThoughItIsOverwritten)
{
    KeyTable table;
    const std::string text(100, 'x');
    Write(table, "key", text);
    std::string read;
    table.Read("key", [&](const DomValue& value) {
        std::async(std::launch::async, [&table] {
            for (int i = 0; i < 2000; ++i)
                Write(table, "key", std::string(100, 'y'));
            Remove(table, "key");
        }).get();
        return TextOf(value, read);
    });
    EXPECT_EQ(read, text);
    EXPECT_EQ(TextIn(table, "key"), "(none)");
}

TEST(KeyTable, WriterOfMegabytesWaitsForReaders)
{
    KeyTable table;
    Write(table, "key", "");
    std::future<void> writer;
    const auto hasEnded = [&writer](int milliseconds) {
        return writer.wait_for(std::chrono::milliseconds(milliseconds)) == std::future_status::ready;
    };
    table.Read("key", [&](const DomValue&) {
        writer = std::async(std::launch::async, [&table] {
            for (int i = 0; i < 64; ++i)
                Write(table, "key", std::string(256 * 1024, 'x'));
        });
        EXPECT_FALSE(hasEnded(100));
        return true;
    });
    writer.get();
    EXPECT_EQ(TextIn(table, "key").size(), 256u * 1024);
}

TEST(KeyTable, WriterThatWaitsForReadersKeepsNobodyFromWriting)
{
    KeyTable table;
    Write(table, "key", "");
    std::atomic<int> written{0};
    std::future<void> waits, writes;
    bool ended = false;
    table.Read("key", [&](const DomValue&) {
        waits = std::async(std::launch::async, [&] {
            for (; written < 64; ++written)
                Write(table, "key", std::string(256 * 1024, 'x'));
        });
        // It waits in the write that finds a megabyte.
        while (written < 4)
            std::this_thread::yield();
        EXPECT_EQ(waits.wait_for(std::chrono::milliseconds(100)), std::future_status::timeout);
        writes = std::async(std::launch::async, [&table] { Write(table, "other", "text"); });
        ended = writes.wait_for(std::chrono::seconds(60)) == std::future_status::ready;
        return true;
    });
    waits.get();
    writes.get();
    EXPECT_TRUE(ended);
    EXPECT_EQ(TextIn(table, "other"), "text");
}

TEST(KeyTable, ChildOfAForkDoesNotWaitForReadersThatItHasNot)
{
    KeyTable table;
    Write(table, "key", "");
    std::promise<void> reads, go;
    ::Test::JoiningThread reader([&] {
        table.Read("key", [&](const DomValue&) {
            reads.set_value();
            go.get_future().wait();
            return true;
        });
    });
    reads.get_future().wait();
    ::Test::Pipe result;
    ::Test::ChildUntilTheEnd child(::Test::Fork(
        [&] {
            table.Write(std::string_view("key"), DomValue::NewObject(std::make_shared<CDomObject>()));
            Write(table, "key", "text");
            for (int i = 0; i < 64; ++i)
                Write(table, "key", std::string(256 * 1024, 'x'));
            result.Write('x');
            return 0;
        },
        true));
    result.CloseEnd(1);
    std::future<char> told = std::async(std::launch::async, [&result] { return result.Read(); });
    told.wait_for(std::chrono::seconds(60));
    child.Kill();
    EXPECT_EQ(told.get(), 'x') << "the child waits";
    go.set_value();
}

TEST(KeyTable, ObjectEndsOnItsWritersThreadWhenNobodyReadsIt)
{
    struct Announcing : CDomObject
    {
        explicit Announcing(std::atomic<std::thread::id>& by) : endedBy(by) {}
        ~Announcing() override { endedBy = std::this_thread::get_id(); }
        std::atomic<std::thread::id>& endedBy;
    };
    for (const bool removes : {false, true}) {
        std::atomic<std::thread::id> endedBy{std::thread::id()};
        KeyTable table;
        table.Write(std::string_view("key"), DomValue::NewObject(std::make_shared<Announcing>(endedBy)));
        std::thread::id expected;
        std::thread writer;
        table.Read("key", [&](const DomValue& value) {
            writer = std::thread([&] {
                expected = std::this_thread::get_id();
                if (removes)
                    Remove(table, "key");
                else
                    Write(table, "key", "text");
                EXPECT_EQ(endedBy.load(), expected);
            });
            const KeyTable& same = table;
            while (same.Read("key", [](const DomValue& now) { return now.Type() == CDom::EType::Object; }))
                std::this_thread::yield();
            EXPECT_EQ(endedBy.load(), std::thread::id());
            return value.Object() != nullptr;
        });
        writer.join();
        EXPECT_EQ(endedBy.load(), expected);
    }
}

TEST(KeyTable, ListOfKeysIsThatOfOneMoment)
{
    // Either "m.a" or "m.b" has a value at any moment, or both. A list comes to them one long after the other.
    KeyTable table;
    constexpr std::size_t others = 300;
    Write(table, "m.a.x", "");
    for (std::size_t i = 0; i < others - 2; ++i)
        Write(table, "m.c" + std::to_string(i), "");
    Write(table, "m.b.x", "");
    Write(table, "m.a", "");
    bool tooMany = false, none = false;
    std::atomic<int> rounds{0};
    ::Test::JoiningThread writer([&](const std::atomic<bool>& stop) {
        while (!stop) {
            Write(table, "m.b", "");
            Remove(table, "m.a");
            Write(table, "m.a", "");
            Remove(table, "m.b");
            ++rounds;
        }
    });
    for (int i = 0; i < 300 || rounds < 2000; ++i) {
        const std::size_t count = table.KeysThatBegin("m.", 0).size();
        none = none || count == others;
        tooMany = tooMany || count > others + 2;
    }
    writer.Stop();
    EXPECT_FALSE(none);
    EXPECT_FALSE(tooMany);
}

TEST(KeyTable, ReadersFindWhatStaysWhileOtherKeysComeAndGo)
{
    KeyTable table;
    Write(table, "stays", "here");
    Write(table, "stays.below", "too");
    std::atomic<int> wrong{0};
    std::vector<::Test::JoiningThread> others;
    for (int i = 0; i < 2; ++i)
        others.emplace_back([&](const std::atomic<bool>& stop) {
            while (!stop) {
                wrong += TextIn(table, "stays") != "here" || TextIn(table, "stays.below") != "too";
                wrong += table.KeysThatBegin("stays.", 0) != Texts{"stays.below"};
                const std::string text = TextIn(table, "turns");
                wrong += text != "(none)" && text != std::string(text.size(), text.front());
            }
        });
    for (int round = 0; round < 20; ++round) {
        for (int i = 0; i < 1000; ++i) {
            Write(table, "goes." + std::to_string(i), "x");
            Write(table, "turns", std::string(static_cast<std::size_t>(1 + i % 64), static_cast<char>('a' + i % 26)));
        }
        for (int i = 0; i < 1000; ++i)
            Remove(table, "goes." + std::to_string(i));
    }
    for (::Test::JoiningThread& other : others)
        other.Stop();
    EXPECT_EQ(wrong, 0);
}

// --- hashes

TEST(KeyTable, HashesOfLikeKeysAreSpread)
{
    constexpr std::size_t count = 1 << 14;
    for (const char* pattern : {"key", "plugin.network.interface.", "a.very.long.prefix.of.many.keys.in.a.tree."}) {
        std::set<std::uint64_t> hashes;
        std::set<std::uint64_t> lowBits;
        std::set<std::uint64_t> highBits;
        for (std::size_t i = 0; i < count; ++i) {
            const std::uint64_t hash = HashOfKey(pattern + std::to_string(i));
            hashes.insert(hash);
            lowBits.insert(hash % count);
            highBits.insert(hash >> 56);
        }
        EXPECT_EQ(hashes.size(), count) << pattern;
        EXPECT_GT(lowBits.size(), count * 6 / 10) << pattern << ": chance would have 63 of a hundred";
        EXPECT_EQ(highBits.size(), 256u) << pattern;
    }
}

TEST(KeyTable, HashTakesEveryByteAndTheLength)
{
    std::set<std::uint64_t> hashes;
    std::size_t expected = 0;
    for (std::size_t size = 0; size <= 40; ++size) {
        hashes.insert(HashOfKey(std::string(size, '\0')));
        ++expected;
        for (std::size_t at = 0; at < size; ++at) {
            std::string text(size, '\0');
            text[at] = 1;
            hashes.insert(HashOfKey(text));
            ++expected;
        }
    }
    EXPECT_EQ(hashes.size(), expected);
}

// --- what is read at once

TEST(DomText, IsWhatGetGives)
{
    const ::Test::DomPtr root = ::Test::NewRoot();
    const ::Test::DomPtr view(CDom::New("v", root.get(), nullptr, false));
    root->Set("v.flag", true);
    root->SetWx("v.number", static_cast<std::int64_t>(INT64_MIN));
    root->SetObject("v.object", std::make_shared<CDomObject>());
    for (const std::size_t size : {0, 1, 255, 256, 257, 5000}) {
        root->Set("v.text", std::string(size, 'x'));
        for (const auto& [dom, prefix] : {std::pair(root.get(), "v."), std::pair(view.get(), "")})
            for (const char* name : {"text", "flag", "number", "object", "absent"}) {
                const std::string key = std::string(prefix) + name;
                std::string text;
                const DomText read(*dom, key);
                EXPECT_EQ(static_cast<bool>(read), dom->Get(key.c_str(), text)) << key;
                EXPECT_EQ(read.Text(), text) << key;
            }
    }
}
