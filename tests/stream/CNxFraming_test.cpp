// What the fuzz target message_chain and the model of connections leave open.
#include <gtest/gtest.h>
#include <nx/stream/CNxFraming.h>

#include <string>

namespace {

TEST(Framing, AFrameOfExactlyTheMostGoesAndOneMoreIsNotTaken) {
    for (const CNxFraming& framing : {CNxFraming::Lines(255), CNxFraming::Delimited("\r\n", 255),
                                      CNxFraming::Prefixed(1, ENxByteOrder::BIG, 300)}) {
        CNxMessageChain wire;
        EXPECT_EQ(framing.Append(wire, CNxMessageChain(std::string(255, 'a'))), NX_OK);
        CNxMessageChain tooLong(std::string(256, 'a'));
        EXPECT_EQ(framing.Append(wire, std::move(tooLong)), NX_ERROR_INVALID_ARG);
        EXPECT_EQ(tooLong.GetSize(), 256U);  // NOLINT(bugprone-use-after-move): not taken
    }
    EXPECT_EQ(CNxFraming::Lines(SIZE_MAX).GetMaxSize(), SIZE_MAX);
}

TEST(Framing, WhatMakesNoFramesSaysSo) {
    CNxMessageChain received("abc");
    CNxMessageChain frame;
    size_t searched = 0;
    for (const CNxFraming& framing :
         {CNxFraming(), CNxFraming::Delimited(""), CNxFraming::Prefixed(3)}) {
        EXPECT_FALSE(framing.HasFrames());
        EXPECT_EQ(framing.Take(received, frame, searched), CNxFraming::EResult::NONE);
        EXPECT_EQ(framing.Append(frame, CNxMessageChain("x")), NX_OK);
    }
    EXPECT_EQ(received.ToString() + frame.ToString(), "abcxxx");
}

}  // namespace
