#include <cstdint>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <nx/stream/CNxFraming.h>

namespace {

using namespace std::string_literals;
using EResult = CNxFraming::EResult;

struct CCut {
    std::vector<std::string> frames;
    EResult last;
};
bool operator==(const CCut& a, const CCut& b) {
    return a.frames == b.frames && a.last == b.last;
}

// What arrives in pieces of that size, each in a block of its own.
CCut CutInPieces(const CNxFraming& framing, const std::string& bytes, size_t pieceSize) {
    CNxMessageChain received;
    CNxMessageChain frame;
    CCut cut{{}, EResult::PARTIAL};
    size_t searched = 0;
    for (size_t at = 0; at < bytes.size(); at += pieceSize) {
        received.Append(CNxMessageChain(std::string_view(bytes).substr(at, pieceSize)));
        while ((cut.last = framing.Take(received, frame, searched)) == EResult::FRAME) {
            EXPECT_EQ(searched, 0u);
            cut.frames.push_back(frame.ToString());
        }
        if (cut.last != EResult::PARTIAL) {
            break;
        }
    }
    return cut;
}

TEST(Framing, CutsTheSameFramesFromEveryPiecesUpToTheLastAllowedByte) {
    struct {
        CNxFraming framing;
        std::string bytes;
        CCut expected;
    } const cases[] = {
        {CNxFraming::Lines(3),
         "ab\r\n\nabc\r\n\r\r\n\r\nabc\r",
         {{"ab", "", "abc", "\r", ""}, EResult::PARTIAL}},
        {CNxFraming::Lines(3), "abc\nabcd\n", {{"abc"}, EResult::TOO_LONG}},
        {CNxFraming::Lines(3), "abc\r\r\n", {{}, EResult::TOO_LONG}},
        {CNxFraming::Lines(0), "\n\r\n\r", {{"", ""}, EResult::PARTIAL}},
        {CNxFraming::Delimited("--", 3),
         "abc--a-b------abc-",
         {{"abc", "a-b", "", ""}, EResult::PARTIAL}},
        {CNxFraming::Delimited("--", 3), "abcd-", {{}, EResult::TOO_LONG}},
        {CNxFraming::Prefixed(1, ENxByteOrder::BIG, 3),
         "\3abc\0\1a\3ab"s,
         {{"abc", "", "a"}, EResult::PARTIAL}},
        {CNxFraming::Prefixed(2, ENxByteOrder::LITTLE, 3),
         "\2\0ab\4\0"s,
         {{"ab"}, EResult::TOO_LONG}},
        {CNxFraming::Prefixed(4), "\0\0\0\1a\xFF\xFF\xFF\xFF"s, {{"a"}, EResult::TOO_LONG}},
        {CNxFraming::Prefixed(8, ENxByteOrder::BIG, SIZE_MAX),
         std::string(8, '\xFF') + "abc",
         {{}, EResult::PARTIAL}},
    };
    for (const auto& each : cases) {
        for (size_t pieceSize = 1; pieceSize <= each.bytes.size(); ++pieceSize) {
            const CCut cut = CutInPieces(each.framing, each.bytes, pieceSize);
            EXPECT_TRUE(cut == each.expected) << each.bytes << " in pieces of " << pieceSize << ": "
                                              << ::testing::PrintToString(cut.frames);
        }
    }
}

TEST(Framing, PutsOnTheWireWhatItTakesFromIt) {
    for (const CNxFraming& framing : {CNxFraming::Lines(300), CNxFraming::Delimited("\r\n", 300),
                                      CNxFraming::Prefixed(1, ENxByteOrder::BIG, 255),
                                      CNxFraming::Prefixed(8, ENxByteOrder::LITTLE, 300)}) {
        CNxMessageChain wire;
        const size_t most = framing.GetMaxSize() < 300 ? 255 : 300;
        const std::string longest(most, 'a');
        ASSERT_EQ(framing.Append(wire, CNxMessageChain()), NX_OK);
        ASSERT_EQ(framing.Append(wire, CNxMessageChain(longest)), NX_OK);
        CNxMessageChain tooLong(longest + 'a');
        EXPECT_EQ(framing.Append(wire, std::move(tooLong)), NX_ERROR_INVALID_ARG);
        EXPECT_EQ(tooLong.GetSize(), most + 1);  // NOLINT(bugprone-use-after-move): not taken
        EXPECT_TRUE(CutInPieces(framing, wire.ToString(), 7) ==
                    (CCut{{"", longest}, EResult::PARTIAL}));
    }
}

TEST(Framing, WhatMakesNoFramesSaysSo) {
    CNxMessageChain received("abc");
    CNxMessageChain frame;
    size_t searched = 0;
    for (const CNxFraming& framing :
         {CNxFraming(), CNxFraming::Delimited(""), CNxFraming::Prefixed(3)}) {
        EXPECT_FALSE(framing.HasFrames());
        EXPECT_EQ(framing.Take(received, frame, searched), EResult::NONE);
        EXPECT_EQ(framing.Append(frame, CNxMessageChain("x")), NX_OK);
    }
    EXPECT_EQ(received.ToString(), "abc");
    EXPECT_EQ(frame.ToString(), "xxx");
    EXPECT_EQ(CNxFraming::Lines(SIZE_MAX).GetMaxSize(), SIZE_MAX);
    EXPECT_EQ(CNxFraming::Prefixed(1, ENxByteOrder::BIG, 300)
                  .Append(frame, CNxMessageChain(std::string(256, 'a'))),
              NX_ERROR_INVALID_ARG);
}

}  // namespace
