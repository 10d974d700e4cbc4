// From grey image to a graph of markers: binary image, ellipses, circle search, neighbours.

#include "board/ConnectionFinder.h"
#include "board/PreProcessor.h"
#include "board/UnionFind.h"

#include <gtest/gtest.h>
#include <opencv2/imgproc.hpp>

#include <cmath>
#include <limits>
#include <random>

namespace vexo {
namespace {

PreProcParam fixed_threshold(int level)
{
    PreProcParam p;
    p.binarize_mode = kFixedThreshold;
    p.threshold = level;
    return p;
}

cv::Mat ramp()
{
    cv::Mat_<uchar> image(5, 256);
    for (int x = 0; x < image.cols; ++x)
        image.col(x) = static_cast<uchar>(x);
    return image;
}

cv::Mat preprocessed(PreProcParam p, cv::Mat image)
{
    PreProcessor pre;
    pre.init_preproc(p);
    return pre.preprocess(image);
}

TEST(PreProcessor, GammaFollowsItsFormulaAtBothEndsAndBetween)
{
    for (const double gamma : { 0.5, 1.0000001, 2.2 }) {
        PreProcessor pre;
        PreProcParam p;
        p.gamma = gamma;
        pre.init_preproc(p);
        cv::Mat in = ramp(), out(in.size(), CV_8U);
        pre.gamma_correction(in, out);
        for (int i = 0; i < 256; ++i)
            ASSERT_EQ(out.at<uchar>(4, i), std::floor(std::pow(i / 255.0, gamma) * 255 + 0.5)) << gamma;
    }
}

TEST(PreProcessor, StepsComeInTheirOrderAndTheInputStays)
{
    cv::Mat image(40, 50, CV_8U);
    cv::randu(image, 0, 200);
    const cv::Mat before = image.clone();
    PreProcParam p = fixed_threshold(130);
    p.invert = p.median = p.equalize = true;
    p.gamma = 0.6;

    cv::Mat step = 255 - image, expected;
    cv::medianBlur(step, step, 3);
    for (int i = 0; i < static_cast<int>(step.total()); ++i) {
        uchar& level = step.at<uchar>(i / 50, i % 50);
        level = static_cast<uchar>(std::lround(std::pow(level / 255.0, 0.6) * 255));
    }
    cv::equalizeHist(step, step);
    cv::threshold(step, expected, 130, 255, cv::THRESH_BINARY);
    EXPECT_EQ(cv::norm(preprocessed(p, image), expected), 0);
    EXPECT_EQ(cv::norm(image, before), 0);
}

TEST(PreProcessor, ThresholdIsExclusiveUnknownModesAreEmptyAndBadBlocksThrow)
{
    const cv::Mat binary = preprocessed(fixed_threshold(127), ramp());
    EXPECT_EQ(binary.at<uchar>(0, 127), 0);
    EXPECT_EQ(binary.at<uchar>(0, 128), 255);
    for (const int mode : { 3, -1, std::numeric_limits<int>::max() }) {
        PreProcParam p;
        p.binarize_mode = mode;
        EXPECT_TRUE(preprocessed(p, ramp()).empty()) << mode;
    }
    for (const int block : { 4, 1, -3, 4000 }) {
        PreProcParam p = fixed_threshold(block);
        p.binarize_mode = kAdaptiveMean;
        EXPECT_THROW(preprocessed(p, ramp()), cv::Exception) << block;
    }
    PreProcParam p = fixed_threshold(std::numeric_limits<int>::max());
    p.binarize_mode = kAdaptiveMean;
    EXPECT_TRUE(preprocessed(p, ramp()).empty());
}

std::vector<cv::Point> ellipse_contour(cv::Point2d center, double a, double b, double angle_rad)
{
    std::vector<cv::Point> points;
    for (int i = 0; i < 720; ++i) {
        const double t = i * CV_PI / 360, x = a * std::cos(t), y = b * std::sin(t);
        points.emplace_back(cvRound(center.x + x * std::cos(angle_rad) - y * std::sin(angle_rad)),
            cvRound(center.y + x * std::sin(angle_rad) + y * std::cos(angle_rad)));
    }
    return points;
}

TEST(RotatedEllipse, GivesBackTheEllipseThatMadeThePoints)
{
    for (const double angle : { 0.0, 0.4, 1.3, -0.9 }) {
        std::vector<cv::Point> points = ellipse_contour({ 400, 300 }, 200, 90, angle);
        RotatedEllipse e;
        EXPECT_EQ(e.fit(points, 1.5), 1.0); // rounding to pixels moves a point by at most 0.71 px
        // 720 points, each rounded by 0.29 px rms: the means are good to 0.02 px; allow five sigma.
        EXPECT_NEAR(e.center.x, 400, 0.1);
        EXPECT_NEAR(e.center.y, 300, 0.1);
        EXPECT_NEAR(e.a, 200, 0.2);
        EXPECT_NEAR(e.b, 90, 0.2);
        EXPECT_EQ(e.full_axes[0], 2 * e.a);
        EXPECT_NEAR(std::abs(std::cos(e.angle - angle)), 1, 1e-5);
        EXPECT_NEAR(e.getRadius({ 3 * std::cos(angle), 3 * std::sin(angle) }), 200, 0.2);
        EXPECT_NEAR(e.getRadius({ -std::sin(angle), std::cos(angle) }), 90, 0.2);
        const double diagonal = 200 * 90 / std::hypot(200 * std::sqrt(0.5), 90 * std::sqrt(0.5));
        EXPECT_NEAR(e.getRadius({ std::cos(angle + CV_PI / 4), std::sin(angle + CV_PI / 4) }), diagonal, 0.2);
    }
    std::vector<cv::Point> square; // the corners of a square with 100 px sides stand 10 px out of its circle
    for (int i = 0; i < 100; ++i)
        for (const cv::Point p : { cv::Point(i, 0), cv::Point(100, i), cv::Point(100 - i, 100), cv::Point(0, 100 - i) })
            square.push_back(p);
    EXPECT_LT(RotatedEllipse().fit(square, 1.5), 0.5);
}

TEST(RotatedEllipse, PointsWithoutAnEllipseScoreZeroWithAxesZero)
{
    const std::vector<std::vector<cv::Point>> cases = {
        {},
        { { 5, 5 } },
        { { 5, 5 }, { 5, 5 }, { 5, 5 } },
        { { 1, 1 }, { 7, 4 } },
        { { 0, 0 }, { 1, 1 }, { 2, 2 }, { 3, 3 }, { 2, 2 }, { 1, 1 } },
        { { 0, 0 }, { 9, 0 }, { 9, 9 }, { 0, 9 } },
        { { 40000, 40000 }, { -40000, 40000 }, { 40000, 40000 } },
    };
    for (std::vector<cv::Point> points : cases) {
        RotatedEllipse e;
        EXPECT_EQ(e.fit(points, 1.5), 0) << testing::PrintToString(points.size());
        EXPECT_EQ(e.a, 0);
        EXPECT_EQ(e.b, 0);
    }
}

/// Opens the finder's lists, and makes the one with more points the ring.
struct Finder : ConnectionFinder {
    using ConnectionFinder::base_markers;
    using ConnectionFinder::connections;
    using ConnectionFinder::contours;
    using ConnectionFinder::ellipses;
    using ConnectionFinder::max_length;
    using ConnectionFinder::min_length;
    using ConnectionFinder::neighbour_limit;
    using ConnectionFinder::state;

    explicit Finder(double limit = 1.5) { neighbour_limit = limit; }

    void add(double x, double y, double diameter, size_t points = 40)
    {
        RotatedEllipse e;
        e.center = { x, y };
        e.a = e.b = diameter / 2;
        e.full_axes[0] = e.full_axes[1] = diameter;
        ellipses.push_back(e);
        contours.emplace_back(points);
    }

    cv::Mat_<double> distances()
    {
        cv::Mat_<double> D = get_distance_matrix();
        check_distance_matrix(D);
        return D;
    }

    std::vector<int> in_play() const { return std::vector<int>(ellipses.size(), 1); }

    int basemarker_process(int outer, int inner, std::vector<int>& states) override
    {
        states[static_cast<size_t>(inner)] = 0;
        states[static_cast<size_t>(outer)] = 2;
        return outer;
    }
};

TEST(CircleMarkerSearcher, LimitsOfLengthAndRadiusAreInclusive)
{
    Finder f;
    CircleMarkerParam p;
    p.min_radius = 10;
    p.max_radius = 20;
    f.init_searcher(p);
    EXPECT_EQ(f.min_length, 63);  // 62.83
    EXPECT_EQ(f.max_length, 126); // 125.66
    std::vector<Contour> contours = { Contour(62), Contour(63), Contour(126), Contour(127) };
    std::vector<int> verdict(4, 0);
    EXPECT_EQ(f.check_length(verdict, contours), 2);
    EXPECT_EQ(verdict, (std::vector<int> { 1, 0, 0, 1 }));

    contours = { ellipse_contour({ 100, 100 }, 30, 18, 0.3) };
    verdict = { 0 };
    std::vector<RotatedEllipse> fitted(1);
    for (const double error : { 0.0, 1e-9 }) {
        RotatedEllipse exact;
        exact.fit(contours[0], 1.5);
        p.min_radius = exact.b + error;
        p.max_radius = exact.a;
        f.init_searcher(p);
        EXPECT_EQ(f.fit_ellipse(contours, verdict, fitted), error == 0 ? 1 : 0);
        EXPECT_EQ(verdict[0], error == 0 ? 0 : 3);
    }
}

TEST(CircleMarkerSearcher, KeepsEveryDiscAndEndsWithoutWhenThereAreTooFewOrTooMany)
{
    cv::Mat binary(400, 600, CV_8U, cv::Scalar(255)), none;
    for (int i = 0; i < 24; ++i)
        cv::circle(binary, { 50 + 90 * (i % 6), 50 + 90 * (i / 6) }, 12 + i, 0, cv::FILLED);
    cv::rectangle(binary, { 570, 200, 20, 120 }, 0, cv::FILLED); // no ellipse
    Finder f;
    CircleMarkerParam p;
    for (const int least : { 0, 24, 25 }) {
        p.min_markers = least;
        f.init_searcher(p);
        EXPECT_EQ(f.search(binary, none), least <= 24 ? 1 : 0);
        EXPECT_EQ(f.ellipses.size(), 24U);
        EXPECT_EQ(f.contours.size(), 24U);
    }
    cv::Mat drawing;
    cv::cvtColor(binary, drawing, cv::COLOR_GRAY2BGR);
    const cv::Mat before = drawing.clone();
    p.min_markers = 9;
    f.init_searcher(p);
    EXPECT_EQ(f.search(binary, drawing), 1);
    EXPECT_GT(cv::norm(drawing, before), 0);

    cv::Mat specks(1700, 1700, CV_8U, cv::Scalar(255)); // 68 x 68 = 4624 circles
    for (int i = 0; i < 68 * 68; ++i)
        cv::circle(specks, { 12 + 25 * (i % 68), 12 + 25 * (i / 68) }, 10, 0, cv::FILLED);
    EXPECT_EQ(f.search(specks, none), 0);
    cv::Mat empty(50, 50, CV_8U, cv::Scalar(255));
    p.min_markers = 0;
    p.max_radius = 9;
    f.init_searcher(p);
    EXPECT_EQ(f.search(empty, none), 1); // nothing required: nothing found is a success
    EXPECT_FALSE(f.find(none));
}

TEST(CircleMarkerSearcher, DiameterRateDropsWhatLiesThreeDeviationsOut)
{
    Finder f;
    for (int i = 0; i < 30; ++i)
        f.add(0, 0, 20);
    f.ellipses[7].full_axes[1] = 5;
    std::vector<int> verdict(30, 0);
    verdict[3] = 2;
    EXPECT_EQ(f.check_diameter_rate(f.ellipses, verdict), 28);
    EXPECT_EQ(verdict[7], 4);
    EXPECT_EQ(verdict[3], 2);
    std::vector<int> none(30, 1);
    EXPECT_EQ(f.check_diameter_rate(f.ellipses, none), 0);
}

TEST(ConnectionFinder, LinksEndAtTheLimitRoundedToTenthsOfTheRowsOwnDiameter)
{
    Finder f(1.5);
    f.add(0, 0, 1000);
    f.add(1649, 0, 1000);
    f.add(0, 1650, 1000);
    f.add(0, -1600, 990);                   // from here 1.616 diameters of its own: still 16 tenths
    f.add(-1640, 0, 980);                   // 1.67 diameters of its own, 1.64 of marker 0
    f.ellipses.push_back(RotatedEllipse()); // no size at all
    f.contours.emplace_back(1);
    f.ellipses.back().center = { 5, 5 };
    const cv::Mat_<double> D = f.distances();
    EXPECT_EQ(D(0, 1), 1649);
    EXPECT_EQ(D(0, 2), ConnectionFinder::no_link);
    EXPECT_EQ(D(3, 0), 1600);
    EXPECT_EQ(D(0, 4), 1640);
    EXPECT_EQ(D(4, 0), ConnectionFinder::no_link);
    EXPECT_EQ(cv::countNonZero(D.row(5) != ConnectionFinder::no_link), 0);

    Finder narrow(1.2); // the second test counts the diameter along the link: 100 px along x, 40 along y
    for (const cv::Point2d p : { cv::Point2d(0, 0), cv::Point2d(120, 0), cv::Point2d(0, 120) }) {
        narrow.add(p.x, p.y, 100);
        narrow.ellipses.back().b = 20;
        narrow.ellipses.back().full_axes[1] = 40;
    }
    EXPECT_EQ(narrow.distances()(0, 1), 120);
    EXPECT_EQ(narrow.distances()(0, 2), ConnectionFinder::no_link);
}

TEST(ConnectionFinder, KeepsTheLargestGroupAndOfEqualOnesTheFirst)
{
    Finder f;
    for (const double x : { 0.0, 500.0, 10.0, 510.0, 20.0, 520.0, 900.0 })
        f.add(x, 0, 10);
    cv::Mat_<double> D = f.distances();
    std::vector<int> state = f.in_play();
    f.remain_largest_group(state, D);
    EXPECT_EQ(state, (std::vector<int> { 1, 0, 1, 0, 1, 0, 0 }));
    EXPECT_EQ(D(1, 3), ConnectionFinder::no_link);
    f.add(530, 0, 10);
    D = f.distances();
    state = f.in_play();
    f.remain_largest_group(state, D);
    EXPECT_EQ(state, (std::vector<int> { 0, 1, 0, 1, 0, 1, 0, 1 }));

    Finder one;
    one.add(0, 0, 10);
    cv::Mat none;
    EXPECT_FALSE(one.find(none));
    UnionFind sets(4);
    sets.unite(3, 1);
    EXPECT_EQ(sets.root(1), 3); // equally large: the first one's root stays
    EXPECT_EQ(sets.size(3), 2);
}

TEST(ConnectionFinder, NeighboursAreTheFourNearestInAscendingOrder)
{
    Finder f;
    f.add(0, 0, 10);
    for (const cv::Point2d p : { cv::Point2d(12, 0), { -11, 0 }, { 0, 11 }, { 0, -13 }, { 9, 9 }, { 0, -11 } })
        f.add(p.x, p.y, 10);
    f.add(5.0, 3.0, 10); // dropped below
    cv::Mat_<double> D = f.distances();
    std::vector<int> state = f.in_play();
    state.back() = 0;
    const auto connected = f.find_connected(state, D);
    EXPECT_EQ(connected[0], (ConnectionFinder::Neighbours { 2, 3, 6, 1 })); // 11, 11, 11, 12
    EXPECT_EQ(connected.back()[0], ConnectionFinder::dropped);
    EXPECT_EQ(connected[2], (ConnectionFinder::Neighbours { 0, 3, 6, -1 }));
}

TEST(ConnectionFinder, RingsAreFoundOnceAndMarkersOfImplausibleLengthAreDropped)
{
    Finder f;
    for (int i = 0; i < 5; ++i)
        f.add(14 * i, 0, 10, 40);
    f.add(14.2, 0.1, 6, 24);   // the hole of marker 1
    f.add(14 * 5, 0, 10, 10);  // (40 + 2) / 4 = 10: too short
    f.add(14 * 6, 0, 10, 160); // 4 * 40: too long
    f.add(14 * 7, 0, 10, 11);
    cv::Mat none;
    ASSERT_TRUE(f.find(none));
    EXPECT_EQ(f.base_markers, std::vector<int> { 1 });
    EXPECT_EQ(f.state, (std::vector<int> { 1, 2, 1, 1, 1, 0, 0, 0, 1 }));
    std::vector<int> even = { 1, 1, 0, 0, 0, 0, 1, 1, 0 }; // 40, 40, 10, 160: the upper of 40 and 40
    EXPECT_EQ(f.get_median_contour_length(even), 40U);
    std::vector<int> all_out(9, 0);
    EXPECT_EQ(f.get_median_contour_length(all_out), 0U);
}

} // namespace
} // namespace vexo
