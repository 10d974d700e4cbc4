#include "patterns/fringes.h"

#include "base/failure.h"

#include <cmath>
#include <cstdint>
#include <numeric>

namespace vexo {

namespace {

constexpr int gray_bits = 7;
constexpr double fringe_mean = 127.5, fringe_amplitude = 120; // clear of 0 and 255, where projectors clip
constexpr int shortest_period = 4, longest_period = 512;      // projector px; shorter fringes are but two grey levels

std::string period_range()
{
    return "must be " + std::to_string(shortest_period) + " to " + std::to_string(longest_period) + " projector px";
}

/// Below 1 there are no stripes to draw; what can be decoded is a narrower question.
void require_stripes(int period)
{
    if (period < 1) throw UsageFailure("fringe period " + std::to_string(period) + ": must be 1 projector px or more");
}

PatternFrame even_frame(const char* what, int columns, int grey)
{
    return { what, -1, 0, 0, cv::Mat(1, columns, CV_8U, cv::Scalar(grey)) };
}

PatternFrame gray_frame(int columns, int period, int bit)
{
    PatternFrame frame { "gray code, bit " + std::to_string(bit), bit, 0, 0, cv::Mat(1, columns, CV_8U) };
    for (int x = 0; x < columns; ++x) {
        const int number = x / period;
        frame.row.at<uchar>(0, x) = ((number ^ (number >> 1)) >> bit & 1) != 0 ? 255 : 0;
    }
    return frame;
}

/// A + B cos(2 pi (x + 0.5) / period + offset) at integer x, rounded to 8 bits.
PatternFrame fringe_frame(int columns, int period, int shift, double offset)
{
    PatternFrame frame { "fringes, period " + std::to_string(period) + " px, shift " + std::to_string(90 * shift)
            + " deg",
        -1, period, shift, cv::Mat(1, columns, CV_8U) };
    for (int x = 0; x < columns; ++x)
        frame.row.at<uchar>(0, x) = static_cast<uchar>(
            std::round(fringe_mean + fringe_amplitude * std::cos(2 * CV_PI * (x + 0.5) / period + offset)));
    return frame;
}

std::string listed(const std::vector<int>& periods)
{
    std::string text;
    for (const int period : periods)
        text += (text.empty() ? " " : ",") + std::to_string(period);
    return text;
}

} // namespace

std::vector<PatternFrame> flat_frames(int columns)
{
    return { even_frame("lit", columns, 255) };
}

std::vector<PatternFrame> gray_phase_frames(int columns, int period)
{
    require_stripes(period);
    std::vector<PatternFrame> frames { even_frame("dark", columns, 0), even_frame("lit", columns, 255) };
    for (int bit = gray_bits - 1; bit >= 0; --bit)
        frames.push_back(gray_frame(columns, period, bit));
    for (int k = 0; k < 4; ++k)
        frames.push_back(fringe_frame(columns, period, k, -k * CV_PI / 2));
    return frames;
}

void check_period(int columns, int period)
{
    const std::string which = "fringe period " + std::to_string(period) + ": ";
    if (period < shortest_period || period > longest_period) throw UsageFailure(which + period_range());
    constexpr int fringes = 1 << gray_bits;
    if (columns > period * fringes)
        throw UsageFailure(which + "seven gray code frames number " + std::to_string(fringes) + " fringes, "
            + std::to_string(period * fringes) + " columns; " + std::to_string(columns) + " columns need a period of "
            + std::to_string((columns + fringes - 1) / fringes) + " or more");
}

std::vector<PatternFrame> multi_phase_frames(int columns, const std::vector<int>& periods)
{
    std::vector<PatternFrame> frames { even_frame("dark", columns, 0), even_frame("lit", columns, 255) };
    for (const int period : periods) {
        require_stripes(period);
        for (int s = 0; s < 4; ++s)
            frames.push_back(fringe_frame(columns, period, s, CV_PI + s * CV_PI / 2)); // -cos(a) = cos(a + pi)
    }
    for (PatternFrame& frame : frames)
        if (columns > multi_phase_columns) frame.row.colRange(multi_phase_columns, columns).setTo(0);
    return frames;
}

void check_periods(const std::vector<int>& periods)
{
    const std::string which = "fringe periods" + listed(periods) + ": ";
    if (periods.size() != 3) throw UsageFailure(which + "give three; only three periods can be told apart");
    std::int64_t multiple = 1;
    for (const int period : periods) {
        if (period < shortest_period || period > longest_period) throw UsageFailure(which + "each " + period_range());
        multiple = std::lcm(multiple, static_cast<std::int64_t>(period));
    }
    if (multiple > multi_phase_columns) return;
    throw UsageFailure(which + "their least common multiple is " + std::to_string(multiple)
        + ", after which the pattern repeats; it must be above " + std::to_string(multi_phase_columns)
        + ", the columns in use, or unresolved pixels count as measured; try 9,10,11 or 16,18,21");
}

} // namespace vexo
