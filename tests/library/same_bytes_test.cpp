// What a measurement gives, to the byte, on every kind of processor: digests of clouds as they were made on x86-64.
#include "support/small_chain.h"

#include <gtest/gtest.h>

#include <cstdint>

using namespace vexo;

namespace {

/// Fowler, Noll and Vo's hash of 64 bits, form 1a (RFC 9923).
struct Digest {
    std::uint64_t value = 0xCBF29CE484222325U;

    void add(const void* bytes, std::size_t size)
    {
        for (std::size_t i = 0; i < size; ++i)
            value = (value ^ static_cast<const unsigned char*>(bytes)[i]) * 0x100000001B3U;
    }
};

struct DigestOfCloud final : PointCloudCallback, Digest {
    void receive(
        unsigned char* texture, std::size_t step, int width, int height, cv::Point3f* points, int count) override
    {
        const auto columns = static_cast<std::size_t>(width), rows = static_cast<std::size_t>(height);
        add(points, columns * rows * sizeof *points);
        for (std::size_t row = 0; row < rows; ++row)
            add(texture + row * step, columns);
        add(&count, sizeof count);
    }
};

struct Stored {
    Method method;
    std::uint64_t frames, cloud;
};

class SameBytes : public testing::TestWithParam<Stored> { };
INSTANTIATE_TEST_SUITE_P(Methods, SameBytes,
    testing::Values(Stored { Method::gray_phase, 0x55FC474AC0E22BF3, 0xE822EC86769259F2 },
        Stored { Method::multi_phase, 0xC1CF1AD5C28D5613, 0x58F80B3C1A1CDACF },
        Stored { Method::sgbm, 0xF897FBA1FD53AF0F, 0x929542548FC203D4 }));

} // namespace

TEST_P(SameBytes, OfCloudAndTextureOnEveryProcessor)
{
    SmallChain chain(GetParam().method, "bust");
    Digest frames;
    for (const std::vector<cv::Mat>& of_camera : chain.frames)
        for (const cv::Mat& frame : of_camera)
            frames.add(frame.data, frame.total());
    ASSERT_EQ(frames.value, GetParam().frames) << "the virtual rig gives other frames";
    DigestOfCloud cloud;
    EXPECT_GT(chain.run(&cloud), 320 * 256 / 6); // the bust fills a fifth of the picture
    EXPECT_EQ(cloud.value, GetParam().cloud);
}
