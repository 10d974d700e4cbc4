#include "base/large_pages.h"
#include "decode/frames.h"
#include "decode/GrayPhaseDecoder.h"
#include "decode/GrayPhaseLoader.h"
#include "decode/MultiPhaseDecoder.h"

#include "support/folder.h"

#include <gtest/gtest.h>
#include <opencv2/imgcodecs.hpp>

using namespace vexo;

namespace {

/// Five frames of 8 bit, and nothing decoded: what the base class does on its own.
class Positions : public GrayPhaseDecoder {
public:
    Positions()
        : GrayPhaseDecoder(0, 5, nullptr)
    {
    }
};

cv::Mat_<uchar> frame_of(cv::Size size, int grey)
{
    return cv::Mat_<uchar>(size, static_cast<uchar>(grey));
}

TEST(ProjectorPositions, MaskAndListsDescribeTheSamePixelsAndOnly255Counts)
{
    Positions positions;
    positions.vmask = (cv::Mat_<uchar>(2, 5) << 255, 254, 1, 0, 255, 0, 255, 128, 253, 0);
    positions.vmask2valid();
    EXPECT_EQ(positions.valid, (std::vector<std::vector<int>> { { 0, 4 }, { 1 } }));
    positions.white = frame_of({ 5, 3 }, 0); // a row more than `valid` has
    positions.valid2vmask();
    const cv::Mat_<uchar> expected = (cv::Mat_<uchar>(3, 5) << 255, 0, 0, 0, 255, 0, 255, 0, 0, 0, 0, 0, 0, 0, 0);
    EXPECT_TRUE(same_bits(positions.vmask, expected));
    positions.white.release();
    positions.valid2vmask();
    positions.vmask2valid();
    EXPECT_TRUE(positions.vmask.empty() && positions.valid.empty());
}

TEST(ProjectorPositions, AFrameIsCopiedRowByRowFromAnyStepAndAddress)
{
    std::mt19937 rng(1);
    Positions positions;
    for (const size_t padding : { size_t { 0 }, size_t { 1 }, size_t { 64 }, size_t { 5000 } })
        for (const cv::Size size : // the first two are large enough to be streamed
            { cv::Size(517, 257), cv::Size(5, 32001), cv::Size(1, 1), cv::Size(37, 1), cv::Size(1, 37),
                cv::Size(33, 17) }) {
            const cv::Mat_<uchar> frame = captures::random_frame(size, 0, 255, rng);
            ASSERT_EQ(captures::give(positions, frame, 0, padding), 1);
            EXPECT_TRUE(same_bits(positions.black, frame)) << size << " padding " << padding;
        }
    cv::Mat_<uchar> packed = captures::random_frame({ 33, 17 }, 0, 255, rng);
    EXPECT_EQ(positions.set_input(packed.data, 33, 17, 0, 4), 1);
    EXPECT_TRUE(same_bits(positions.input(4), packed));

    const uchar* buffer = positions.input(4).data;
    positions.set_input(packed.data, 33, 17, 33, 4);
    EXPECT_EQ(positions.input(4).data, buffer) << "a frame of the same size must not allocate";
    EXPECT_EQ(positions.set_input(positions.black.data, 33, 17, 0, 0), 1) << "what was shown may come back";

    const cv::Mat_<uchar> large = captures::random_frame({ 512, 300 }, 0, 255, rng);
    Positions shifted;
    ASSERT_EQ(captures::give(shifted, large, 0), 1);
    ASSERT_EQ(shifted.set_input(shifted.black.data + 5, 500, 300, 512, 0), 1) << "from one size into another";
    EXPECT_TRUE(same_bits(shifted.black, large(cv::Rect(5, 0, 500, 300))));
    ASSERT_EQ(captures::give(shifted, large, 0), 1);
    ASSERT_EQ(shifted.set_input(shifted.black.data, 512, 300, 0, 0), 1);
    EXPECT_TRUE(same_bits(shifted.black, large));
}

TEST(LargeImages, LieSideBySideInOneBlockThatTheLastOfThemKeeps)
{
    for (const cv::Size size : { cv::Size(1, 1), cv::Size(33, 17), cv::Size(1280, 1024) }) {
        std::vector<cv::Mat> images = large_images(size, { CV_8U, CV_32F, CV_8U });
        ASSERT_EQ(images.size(), 3U);
        double value = 0.0;
        for (cv::Mat& image : images) {
            EXPECT_TRUE(image.size() == size && image.isContinuous());
            EXPECT_EQ(image.type(), value == 1.0 ? CV_32F : CV_8U);
            image.setTo(value++);
        }
        for (size_t i = 0; i < 3; ++i)
            EXPECT_EQ(cv::countNonZero(images[i] != static_cast<double>(i)), 0) << "image " << i << " of " << size;
        EXPECT_TRUE(size.width != 1280 || reinterpret_cast<std::uintptr_t>(images[0].data) % (2 << 20) == 0);
        const cv::Mat last = images[2];
        images.clear();
        EXPECT_EQ(cv::countNonZero(last != 2.0), 0);
    }
}

TEST(ProjectorPositions, WhatCannotBeAFrameIsRefusedAndNothingChanges)
{
    const cv::Size size(8, 4);
    Positions positions;
    for (int i = 0; i < 5; ++i)
        ASSERT_EQ(captures::give(positions, frame_of(size, 10 + i), i), 1);
    std::vector<uchar> data(1000, 99);
    const auto refuse = [&](void* p, int width, int height, unsigned long step, int index) {
        EXPECT_EQ(positions.set_input(p, width, height, step, index), 0)
            << width << "x" << height << " step " << step << " index " << index;
    };
    refuse(nullptr, 8, 4, 8, 0);
    for (const int side : { 0, -1, INT_MIN, 32767, INT_MAX }) {
        refuse(data.data(), side, 4, 0, 0);
        refuse(data.data(), 8, side, 0, 0);
    }
    refuse(data.data(), 32766, 32766, 0, 0); // too large an area
    refuse(data.data(), 8, 4, 7, 0);
    for (const int index : { -1, INT_MIN, 5, 13, INT_MAX })
        refuse(data.data(), 8, 4, 8, index);
    refuse(data.data(), 9, 4, 9, 2); // another size may start at frame 0 or 1 only
    EXPECT_TRUE(positions.complete());
    for (int i = 0; i < 5; ++i)
        EXPECT_TRUE(same_bits(positions.input(i), frame_of(size, 10 + i))) << "frame " << i;
    EXPECT_TRUE(positions.input(-1).empty() && positions.input(5).empty());
}

TEST(ProjectorPositions, ReferenceFramesMayStartANewSizeAndDropTheRest)
{
    Positions positions;
    EXPECT_FALSE(positions.complete());
    EXPECT_TRUE(positions.input_size().empty());
    for (int i = 0; i < 5; ++i)
        captures::give(positions, frame_of({ 8, 4 }, i), i);
    positions.set_valid(INT_MIN, 255, 0);
    EXPECT_EQ(captures::give(positions, frame_of({ 3, 9 }, 7), 1), 1);
    EXPECT_EQ(positions.input_size(), cv::Size(3, 9));
    EXPECT_FALSE(positions.complete());
    EXPECT_TRUE(positions.valid.empty());
    for (const int i : { 0, 2, 3, 4 })
        EXPECT_TRUE(positions.input(i).empty()) << "frame " << i;
    positions.clear();
    EXPECT_EQ(positions.inputs(), 5);
    EXPECT_TRUE(positions.input(1).empty() && positions.input_size().empty());
}

TEST(ProjectorPositions, DebugDumpsAreRawFloatRowsAndAMask)
{
    const cv::Mat map = (cv::Mat_<float>(2, 3) << 1, 2.5, 3, -4, 5, 1e9);
    const cv::Mat mask = (cv::Mat_<uchar>(2, 3) << 255, 0, 255, 0, 0, 255);
    const Folder folder;
    ASSERT_EQ(chdir((folder / "").c_str()), 0);
    Positions positions;
    positions.camera_id = 1;
    positions.unwrapped = map;
    positions.vmask = mask;
    positions.save_unwrap();
    EXPECT_EQ(content("unwrap1.raw"), std::string(map.ptr<char>(), 24));
    EXPECT_TRUE(same_bits(cv::imread("vumask1.pgm", cv::IMREAD_UNCHANGED), mask));

    positions.phase = cv::Mat(map, cv::Rect(1, 0, 2, 2)); // rows that do not follow one another
    positions.white = cv::Mat_<uchar>(2, 3, uchar { 0 });
    positions.valid = { { 1 }, {} };
    positions._save_decode();
    EXPECT_EQ(content("phase1.raw"), std::string(map.ptr<char>(0, 1), 8) + std::string(map.ptr<char>(1, 1), 8));
    EXPECT_EQ(cv::countNonZero(cv::imread("vmask1.pgm", cv::IMREAD_UNCHANGED)), 1);

    MultiPhaseDecoder periods(0, nullptr, nullptr, 4, 2);
    periods.phases = { map, map.clone() };
    periods.phases[1](1, 1) = 7;
    periods.white = positions.white;
    periods.valid = { {}, { 0, 2 } };
    periods._save_decode();
    EXPECT_EQ(content("phase_0_1.raw"), std::string(periods.phases[1].ptr<char>(), 24));
    EXPECT_EQ(cv::countNonZero(cv::imread("vmask0.pgm", cv::IMREAD_UNCHANGED)), 2);
    positions.clear();
    positions.save_unwrap();
    EXPECT_EQ(content("unwrap1.raw"), "");
}

} // namespace
