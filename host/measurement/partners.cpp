#include "host/measurement/partners.h"

#include "patterns/method.h"

#include <algorithm>
#include <cmath>

namespace vexo {

namespace {

/// What a camera would have to see to decode to projector coordinate 0 left of a column, and to the last coordinate
/// of all right of it: with lifted limits every coordinate finds a partner there.
struct Halves {
    cv::Size size;
    int middle; ///< first column of the right half
    int white;  ///< grey level of the lit frame

    cv::Range left() const { return { 0, middle }; }
    cv::Range right() const { return { middle, size.width }; }
    cv::Mat frame(int grey = 0) const { return cv::Mat(size, CV_8U, cv::Scalar(grey)); }
};

/// Gray code distinguishes runs of periods where the phase falls. For it to fall where the halves meet, the last
/// columns of the left half rise to 3/4 of a period, and the first of the right half begin at 1/4.
struct FringeStep {
    explicit FringeStep(const Halves& halves)
        : left(std::max(0, halves.middle - width), halves.middle)
        , right(halves.middle, std::min(halves.size.width, halves.middle + width))
    {
    }
    static constexpr int width = 2;
    cv::Range left, right;
};

std::vector<cv::Mat> gray_frames(const Halves& halves)
{
    std::vector<cv::Mat> frames(frame_count(Method::gray_phase), halves.frame()); // the dark ones are the same
    frames[1] = halves.frame(halves.white);
    for (const std::size_t k :
        { std::size_t { 2 }, std::size_t { 9 }, std::size_t { 10 }, std::size_t { 11 }, std::size_t { 12 } })
        frames[k] = halves.frame();
    frames[2].colRange(halves.right()).setTo(255); // gray code 64 is period 127
    const auto set_phase = [&frames](cv::Range columns, int p0, int p1, int p2, int p3) {
        const int levels[4] = { p0, p1, p2, p3 };
        for (std::size_t k = 0; k < 4; ++k)
            frames[9 + k].colRange(columns).setTo(levels[k]);
    };
    const FringeStep step(halves);
    set_phase(halves.left(), 255, 128, 0, 128);  // 0
    set_phase(halves.right(), 255, 127, 0, 128); // just below 1
    set_phase(step.left, 128, 0, 128, 255);      // 3/4
    set_phase(step.right, 128, 255, 128, 0);     // 1/4
    return frames;
}

std::vector<cv::Mat> gray_maps(const Halves& halves)
{
    cv::Mat periods = halves.frame(), phase(halves.size, CV_32F, cv::Scalar(0.0));
    periods.colRange(halves.right()).setTo(255); // another decoder may number more than 128 periods
    phase.colRange(halves.right()).setTo(0.999);
    const FringeStep step(halves);
    phase.colRange(step.left).setTo(0.75);
    phase.colRange(step.right).setTo(0.25);
    return { halves.frame(), halves.frame(halves.white), periods, phase };
}

/// Coordinates between which all others lie: the decoder drops what is above 912.
constexpr double first_coordinate = -0.45, last_coordinate = 911.95;

std::vector<cv::Mat> multi_frames(const Halves& halves, const MultiPhaseMatchingParam& param)
{
    constexpr double pi = 3.14159265358979323846, middle_grey = 127.5;
    std::vector<cv::Mat> frames { halves.frame(), halves.frame(halves.white) };
    for (std::size_t f = 0; f < 3; ++f) {
        for (int s = 0; s < 4; ++s) {
            const auto grey_at = [&](double x) {
                return middle_grey * (1.0 - std::cos(2.0 * pi * (x + 0.5) / param.periods[f] + 0.5 * pi * s));
            };
            frames.push_back(halves.frame());
            frames.back().colRange(halves.left()).setTo(grey_at(first_coordinate));
            frames.back().colRange(halves.right()).setTo(grey_at(last_coordinate));
        }
    }
    return frames;
}

std::vector<cv::Mat> multi_maps(const Halves& halves, const MultiPhaseMatchingParam& param)
{
    std::vector<cv::Mat> maps { halves.frame(), halves.frame(halves.white) };
    for (std::size_t f = 0; f < 3; ++f) {
        const double period = param.periods[f];
        const auto phase_at = [&](double x) { return x / period - std::floor((x + 0.5) / period); };
        maps.emplace_back(halves.size, CV_32F, cv::Scalar(phase_at(first_coordinate)));
        maps.back().colRange(halves.right()).setTo(phase_at(last_coordinate));
    }
    return maps;
}

} // namespace

std::vector<cv::Mat> partner_for_all(cv::Size size, int middle, const MatchingRecord& record)
{
    const Halves halves { size, middle, std::min(light_limits(record).max_white, 255) };
    const bool maps = is_decoded(record);
    if (const auto* multi = std::get_if<MultiPhaseMatchingParam>(&record))
        return maps ? multi_maps(halves, *multi) : multi_frames(halves, *multi);
    return maps ? gray_maps(halves) : gray_frames(halves);
}

} // namespace vexo
