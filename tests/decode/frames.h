#pragma once

#include "support/bits.h"

#include <cstring>
#include <gtest/gtest.h>
#include <memory>
#include <numeric>
#include <omp.h>
#include <opencv2/core.hpp>
#include <random>
#include <vector>

/// Inputs for the decoder tests, and the ways to hand them over.
namespace captures {

using Frames = std::vector<cv::Mat_<uchar>>;

/// Sets the number of OpenMP threads, and puts it back.
class Threads {
public:
    explicit Threads(int n)
        : _before(omp_get_max_threads())
    {
        omp_set_num_threads(n);
    }
    ~Threads() { omp_set_num_threads(_before); }
    Threads(const Threads&) = delete;
    Threads& operator=(const Threads&) = delete;

private:
    int _before;
};

/// Hands a frame over in a heap buffer that ends with the last pixel of the last row, `padding` bytes between
/// the rows and an odd address: AddressSanitizer sees every byte read too much.
template <class Decoder> int give(Decoder& decoder, const cv::Mat& frame, int index, size_t padding = 3)
{
    const size_t row_bytes = static_cast<size_t>(frame.cols) * frame.elemSize();
    const size_t step = row_bytes + padding;
    const size_t bytes = 1 + step * static_cast<size_t>(frame.rows - 1) + row_bytes;
    const std::unique_ptr<uchar[]> buffer(new uchar[bytes]);
    for (int y = 0; y < frame.rows; ++y)
        std::memcpy(buffer.get() + 1 + static_cast<size_t>(y) * step, frame.ptr(y), row_bytes);
    return decoder.set_input(buffer.get() + 1, frame.cols, frame.rows, step, index);
}

template <class Decoder> void give_all(Decoder& decoder, const Frames& frames)
{
    for (size_t i = 0; i < frames.size(); ++i)
        give(decoder, frames[i], static_cast<int>(i), i % 4);
}

inline cv::Mat_<uchar> random_frame(cv::Size size, int low, int high, std::mt19937& rng)
{
    std::uniform_int_distribution<int> grey(low, high);
    cv::Mat_<uchar> frame(size);
    for (uchar& pixel : frame)
        pixel = static_cast<uchar>(grey(rng));
    return frame;
}

inline Frames random_frames(int count, cv::Size size, std::mt19937& rng)
{
    Frames frames;
    for (int i = 0; i < count; ++i)
        frames.push_back(random_frame(size, 0, 255, rng));
    return frames;
}

/// Grey of a pixel without rounding: dark level 20, lit level 220.
inline uchar grey_of(double level)
{
    return cv::saturate_cast<uchar>(20.0 + 200.0 * level);
}

/// Gray code + phase frames of a surface that shows projector position `position(x, y)`, in fringe periods.
template <class Position> Frames gray_phase_capture(cv::Size size, Position position)
{
    Frames frames(13);
    for (cv::Mat_<uchar>& frame : frames)
        frame.create(size);
    for (int y = 0; y < size.height; ++y)
        for (int x = 0; x < size.width; ++x) {
            const double p = position(x, y);
            const int n = static_cast<int>(std::floor(p));
            const int code = n ^ n >> 1;
            frames[0](y, x) = grey_of(0);
            frames[1](y, x) = grey_of(1);
            for (size_t k = 0; k < 7; ++k)
                frames[2 + k](y, x) = grey_of(code >> (6 - k) & 1);
            for (size_t k = 0; k < 4; ++k)
                frames[9 + k](y, x)
                    = grey_of(0.5 + 0.45 * std::cos(2 * CV_PI * p - static_cast<double>(k) * CV_PI / 2));
        }
    return frames;
}

/// Multi-period frames of a surface that shows projector position `position(x, y)`, in projector px.
template <class Position> Frames multi_phase_capture(cv::Size size, const std::vector<int>& periods, Position position)
{
    Frames frames(2 + 4 * periods.size());
    for (cv::Mat_<uchar>& frame : frames)
        frame.create(size);
    frames[0].setTo(grey_of(0));
    frames[1].setTo(grey_of(1));
    for (size_t f = 0; f < periods.size(); ++f)
        for (int s = 0; s < 4; ++s)
            for (int y = 0; y < size.height; ++y)
                for (int x = 0; x < size.width; ++x) {
                    const double angle = 2 * CV_PI * (position(x, y) + 0.5) / periods[f] + s * CV_PI / 2;
                    frames[2 + 4 * f + static_cast<size_t>(s)](y, x) = grey_of(0.5 - 0.45 * std::cos(angle));
                }
    return frames;
}

/// Adds noise of a normal distribution, grey levels.
inline void add_noise(Frames& frames, double sigma, std::mt19937& rng)
{
    std::normal_distribution<double> noise(0.0, sigma);
    for (cv::Mat_<uchar>& frame : frames)
        for (uchar& pixel : frame)
            pixel = cv::saturate_cast<uchar>(pixel + noise(rng));
}

/// Unwraps what has been decoded in steps, and then decodes in one pass: the results must be the same bits.
template <class Decoder> void expect_same_in_one_pass(Decoder& decoder)
{
    decoder.unwrap();
    const cv::Mat map = decoder.unwrapped.clone(), mask = decoder.vmask.clone();
    const std::vector<std::vector<int>> valid = decoder.valid;
    decoder.decode();
    EXPECT_TRUE(same_bits(decoder.unwrapped, map) && same_bits(decoder.vmask, mask));
    if (mask.empty()) return; // nothing decoded either way
    decoder.vmask2valid();
    EXPECT_EQ(decoder.valid, valid);
}

/// No pixel is valid, nothing has a coordinate.
template <class Decoder> void expect_nothing(const Decoder& decoder)
{
    EXPECT_EQ(decoder.valid, std::vector<std::vector<int>>(static_cast<size_t>(decoder.input_size().height)));
    EXPECT_TRUE(decoder.unwrapped.empty() && decoder.vmask.empty());
}

} // namespace captures
