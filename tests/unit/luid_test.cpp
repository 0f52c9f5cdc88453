// The LUID chosen from a device identification page.
#include <cstdint>
#include <vector>

#include <gtest/gtest.h>

#include "hba/luid.h"

namespace {

// A page: six head bytes (page code 0x83 in byte 1, the 32-bit length at
// byte 2) and the designators after them.
std::vector<uint8_t> Page(std::vector<uint8_t> designators, uint32_t length = 0xFFFFFFFF, uint8_t code = 0x83) {
    std::vector<uint8_t> p = {0x00, code, static_cast<uint8_t>(length >> 24), static_cast<uint8_t>(length >> 16),
                              static_cast<uint8_t>(length >> 8), static_cast<uint8_t>(length)};
    p.insert(p.end(), designators.begin(), designators.end());
    return p;
}

std::vector<uint8_t> Choose(const std::vector<uint8_t>& page, bool expect = true, std::size_t length = 0) {
    uint8_t luid[mv::kLuidSize];
    std::fill(std::begin(luid), std::end(luid), 0xA5);
    EXPECT_EQ(mv::choose_luid(page.data(), length ? length : page.size(), luid), expect);
    return {luid, luid + mv::kLuidSize};
}

std::vector<uint8_t> Padded(std::vector<uint8_t> head) {
    head.resize(mv::kLuidSize, 0);
    return head;
}

TEST(Luid, ShortAnswerIsRefusedAndTheLuidUntouched) {
    EXPECT_EQ(Choose({0x00, 0x83, 0, 0, 0}, false), std::vector<uint8_t>(mv::kLuidSize, 0xA5));
}

TEST(Luid, OtherPageCodeIsRefused) {
    EXPECT_EQ(Choose(Page({0x01, 0x03, 0x00, 0x01, 0x42}, 5, 0x80), false), std::vector<uint8_t>(mv::kLuidSize, 0xA5));
}

TEST(Luid, HeadOnlyGivesAnEmptyLuid) { EXPECT_EQ(Choose(Page({})), std::vector<uint8_t>(mv::kLuidSize, 0)); }

TEST(Luid, FirstDesignatorIsTheFirstBest) {
    EXPECT_EQ(Choose(Page({0x01, 0x03, 0x00, 0x01, 0x42, 0x01, 0x03, 0x00, 0x01, 0x42})),
              Padded({0x01, 0x03, 0x00, 0x01, 0x42}));
}

TEST(Luid, HigherTypeWins) {
    EXPECT_EQ(Choose(Page({0x01, 0x02, 0x00, 0x01, 0x01, 0x31, 0x08, 0x00, 0x02, 0x09, 0x09})),
              Padded({0x31, 0x08, 0x00, 0x02, 0x09, 0x09}));
}

TEST(Luid, OnlyTheLowFourBitsAreTheType) {
    // 0x23 (association 2, type 3) beats 0x02 but loses to 0x04.
    EXPECT_EQ(Choose(Page({0x01, 0x23, 0x00, 0x01, 0x01, 0x01, 0x04, 0x00, 0x01, 0x02, 0x01, 0x02, 0x00, 0x01, 0x03})),
              Padded({0x01, 0x04, 0x00, 0x01, 0x02}));
}

TEST(Luid, EqualTypesTakeTheSmallerLength) {
    EXPECT_EQ(Choose(Page({0x01, 0x03, 0x00, 0x02, 0x00, 0x00, 0x01, 0x03, 0x00, 0x01, 0xFF})),
              Padded({0x01, 0x03, 0x00, 0x01, 0xFF}));
}

TEST(Luid, EqualLengthsTakeTheLowerIdentifier) {
    EXPECT_EQ(Choose(Page({0x01, 0x03, 0x00, 0x02, 0x07, 0x01, 0x01, 0x03, 0x00, 0x02, 0x07, 0x00})),
              Padded({0x01, 0x03, 0x00, 0x02, 0x07, 0x00}));
}

TEST(Luid, AnnouncedLengthIsClampedToTheAnswer) {
    // The length says 0xFFFFFFFF; only the answer's bytes are walked.
    EXPECT_EQ(Choose(Page({0x01, 0x03, 0x00, 0x01, 0x11, 0x01, 0x09, 0x00})), Padded({0x01, 0x03, 0x00, 0x01, 0x11}));
}

TEST(Luid, WalkStopsWhenFewerThanFiveBytesRemain) {
    // Four trailing bytes would be a designator of length 0: not walked.
    EXPECT_EQ(Choose(Page({0x01, 0x01, 0x00, 0x01, 0x11, 0x01, 0x09, 0x00, 0x00})),
              Padded({0x01, 0x01, 0x00, 0x01, 0x11}));
}

TEST(Luid, DesignatorLongerThanWhatRemainsEndsTheWalk) {
    EXPECT_EQ(Choose(Page({0x01, 0x03, 0x00, 0x40, 0x11, 0x22})), std::vector<uint8_t>(mv::kLuidSize, 0));
}

TEST(Luid, ResponseLengthBoundsTheWalkNotTheBuffer) {
    // Eleven bytes came back of a longer buffer: the second designator lies
    // beyond them.
    const auto page = Page({0x01, 0x01, 0x00, 0x00, 0x01, 0x03, 0x00, 0x01, 0x42});
    EXPECT_EQ(Choose(page, true, 11), Padded({0x01, 0x01, 0x00, 0x00}));
}

TEST(Luid, DesignatorOver256BytesGivesAnEmptyLuid) {
    std::vector<uint8_t> d = {0x01, 0x03, 0x00, 0xFE};
    d.resize(4 + 0xFE, 0x33);
    EXPECT_EQ(Choose(Page(d)), std::vector<uint8_t>(mv::kLuidSize, 0));
}

TEST(Luid, DesignatorOfExactly256BytesIsKept) {
    std::vector<uint8_t> d = {0x01, 0x03, 0x00, 0xFC};
    d.resize(4 + 0xFC, 0x33);
    EXPECT_EQ(Choose(Page(d)), d);
}

}  // namespace
