// Inflating piece by piece, by each library that this build has: the same rows for all of them.
#include "vex_core/zip/zip_inflate.h"

#include "support/zip_builder.h"

#include <functional>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

using namespace VexCore::Zip;
using namespace Test;

namespace {
std::vector<std::unique_ptr<Inflate>> EveryInflate()
{
    std::vector<std::unique_ptr<Inflate>> all;
    all.push_back(NewZlibInflate());
    if (auto isal = NewIsalInflate())
        all.push_back(std::move(isal));
    return all;
}

struct StreamRead
{
    Inflate::State state;
    std::string data;
    std::size_t behind; // packed bytes that were not used
};

StreamRead Inflated(Inflate& inflate, const std::string& packed, std::size_t give, std::size_t take)
{
    StreamRead result{Inflate::State::Going, "", 0};
    std::string out(take, '\0');
    inflate.Begin();
    std::size_t at = 0;
    for (bool wantsMore = true;;) {
        const std::string chunk = packed.substr(at, give); // of its own, so that reading behind it is noticed
        if (wantsMore)
            inflate.Give(chunk.data(), chunk.size());
        at += wantsMore ? chunk.size() : 0;
        for (wantsMore = false; !wantsMore;) {
            std::size_t made = 0;
            result.state = inflate.Take(out.data(), take, made);
            result.data.append(out, 0, made);
            if (result.state != Inflate::State::Going || (made < take && at == packed.size())) {
                result.behind = inflate.Unused() + packed.size() - at;
                return result;
            }
            wantsMore = made < take;
        }
    }
}

// Of every kind of block: stored, with the fixed codes, and with codes of its own; with runs and repetitions.
std::vector<std::string> StreamTexts()
{
    std::mt19937 random(7);
    std::string noise, letters, repeated;
    for (int i = 0; i < 200000; ++i)
        noise += static_cast<char>(random());
    for (int i = 0; i < 200000; ++i)
        letters += static_cast<char>('a' + random() % 16);
    for (int i = 0; i < 3000; ++i)
        repeated += letters.substr(random() % 40000, random() % 300);
    return {"", "a", "hello hello hello", noise, letters, repeated, std::string(1000000, 'x')};
}

} // namespace

TEST(ZipInflate, MakesWhatWasDeflatedHoweverItIsCut)
{
    for (const auto& inflate : EveryInflate())
        for (const std::string& text : StreamTexts()) {
            const std::string packed = Deflate(text);
            for (const std::size_t give : {std::size_t{1}, std::size_t{7}, std::size_t{4096}, packed.size()})
                for (const std::size_t take :
                     {std::size_t{3}, std::size_t{1000}, std::size_t{65536}, text.size() + 1}) {
                    if (text.size() > 1000 && (give == 1 || take == 3) && give != packed.size() && take < text.size())
                        continue; // takes long, and shows no more
                    const StreamRead result = Inflated(*inflate, packed, give, take);
                    ASSERT_EQ(result.state, Inflate::State::Ended) << text.size() << ' ' << give << ' ' << take;
                    ASSERT_TRUE(result.data == text) << text.size() << ' ' << give << ' ' << take;
                    ASSERT_EQ(result.behind, 0u);
                }
        }
}

TEST(ZipInflate, BytesBehindTheEndAreCounted)
{
    for (const auto& inflate : EveryInflate())
        for (const std::size_t behind : {1u, 8u, 30u})
            for (const std::size_t give : {1u, 5u, 100u}) {
                const StreamRead result =
                    Inflated(*inflate, Deflate("hello hello hello") + std::string(behind, 'T'), give, 64);
                EXPECT_EQ(result.state, Inflate::State::Ended);
                EXPECT_EQ(result.data, "hello hello hello");
                EXPECT_EQ(result.behind, behind) << give;
            }
}

TEST(ZipInflate, StreamThatIsCutShortDoesNotEnd)
{
    const std::string text = StreamTexts()[5].substr(0, 3000);
    const std::string packed = Deflate(text);
    for (const auto& inflate : EveryInflate())
        for (std::size_t size = 0; size < packed.size(); ++size) {
            const StreamRead result = Inflated(*inflate, packed.substr(0, size), 512, 1000);
            EXPECT_NE(result.state, Inflate::State::Ended) << size;
            EXPECT_EQ(text.compare(0, result.data.size(), result.data), 0) << size;
        }
}

TEST(ZipInflate, WhatIsNoStreamIsDamaged)
{
    const std::string kinds[] = {
        std::string("\x06\x00", 2), // a block of no kind that there is
        std::string("\x00\x01\x00\x01\x00"
                    "a",
                    6), // stored, its length and the check of it do not fit
        std::string("\x4b\x04\x12\x00", 4), // fixed codes, a repetition of what was before the beginning
        std::string("\xfd\xff\xff\xff\xff\xff\xff\xff\xff", 9), // more codes than there are
    };
    for (const auto& inflate : EveryInflate()) {
        for (const std::string& packed : kinds)
            EXPECT_EQ(Inflated(*inflate, packed, 100, 100).state, Inflate::State::Damaged) << packed.size();
        EXPECT_EQ(Inflated(*inflate, Deflate("whole again"), 100, 100).data, "whole again");
    }
}

// Whatever the bytes are, each takes the same for a stream and finds the same in it.
TEST(ZipInflate, AllAgreeOnStreamsThatWereChanged)
{
    const auto all = EveryInflate();
    if (all.size() < 2)
        GTEST_SKIP() << "this build has one library only";
    std::mt19937 random(11);
    const auto texts = StreamTexts();
    for (const std::string& text : {texts[4].substr(0, 5000), texts[5].substr(0, 5000), texts[3].substr(0, 500)}) {
        const std::string whole = Deflate(text);
        for (int i = 0; i < 3000; ++i) {
            std::string packed = whole;
            packed[random() % packed.size()] ^= static_cast<char>(1u << random() % 8);
            const StreamRead one = Inflated(*all[0], packed, 4096, 4096);
            const StreamRead other = Inflated(*all[1], packed, 4096, 4096);
            // Where it is no stream, one may see that earlier than the other, which still waits for more.
            const bool ended = one.state == Inflate::State::Ended;
            ASSERT_EQ(ended, other.state == Inflate::State::Ended) << i;
            if (ended) {
                ASSERT_TRUE(one.data == other.data) << i;
                ASSERT_EQ(one.behind, other.behind) << i;
            }
        }
    }
}
