#include "patterns/fringes.h"
#include "sim/capture.h"
#include "sim/noise.h"
#include "sim/render.h"
#include "sim/scenes.h"
#include "support/rendered.h"

#include <gtest/gtest.h>
#include <omp.h>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include <cmath>
#include <cstring>
#include <random>

using namespace vexo::sim;
using vexo::multi_phase_columns;

namespace {

RigOptions noise_free(int width, int height)
{
    RigOptions options;
    options.image_size = { width, height };
    options.noise = 0;
    return options;
}

std::vector<cv::Mat_<uchar>> pictures(const View& view, const RigOptions& options)
{
    std::vector<cv::Mat_<uchar>> frames;
    for (const ProjectedRow& row : project(pattern_of(options), options))
        frames.push_back(view.picture(row, static_cast<int>(frames.size())));
    return frames;
}

} // namespace

TEST(SimPattern, MeanOfAnIntervalIsTheIntegralOfTheBlurredColumns)
{
    std::mt19937 rng(1);
    std::uniform_real_distribution<double> grey(0, 255), at(-3, 43), width(0.05, 3);
    std::vector<double> row(40);
    for (double& g : row)
        g = grey(rng);

    const ProjectedRow sharp(row, 1, 0);
    for (int i = 0; i < 1000; ++i) {
        const double u = at(rng), w = width(rng);
        double sum = 0; // grey level times overlap
        for (int c = 0; c < 40; ++c)
            sum += row[static_cast<std::size_t>(c)]
                * std::max(0.0, std::min(u + w / 2, c + 1.0) - std::max(u - w / 2, c + 0.0));
        ASSERT_NEAR(sharp.mean(u, w), sum / w, 1e-9) << u << ' ' << w;
    }

    for (const double sigma : { 0.5, 2.0 }) {
        const ProjectedRow blurred(row, 1, sigma);
        const auto light = [&](double u) { // columns weighted with their share of the bell around u
            const double scale = 1 / (sigma * std::sqrt(2.0));
            double sum = 0;
            for (int c = 0; c < 40; ++c)
                sum += row[static_cast<std::size_t>(c)] * (std::erf((c + 1 - u) * scale) - std::erf((c - u) * scale))
                    / 2;
            return sum;
        };
        for (int i = 0; i < 100; ++i) {
            const double u = at(rng), w = width(rng);
            constexpr int n = 400;
            double sum = 0;
            for (int k = 0; k < n; ++k)
                sum += light(u + w * ((k + 0.5) / n - 0.5)) / n;
            // The table is linear over h = 1/32: two ends, each off by h^2 / 8 times a slope of 255 * 0.4 / sigma.
            ASSERT_NEAR(blurred.mean(u, w), sum, 2 * 102 / sigma / (8 * 32 * 32) / w + 1e-3) << sigma << ' ' << u;
        }
    }
    EXPECT_NEAR(ProjectedRow({ 128, 128, 128 }, 2.2, 0).mean(1.5, 1), 255 * std::pow(128 / 255.0, 2.2), 1e-9);
}

TEST(SimRender, NoiseFreeFramesDecodeToTheProjectorColumn)
{
    const RigOptions options = noise_free(1280, 256);
    const Rig rig = make_rig(options);
    const Scene scene = make_scene("plane", options);
    for (int c = 0; c < 2; ++c) {
        const View view(scene, rig, c);
        const Camera& camera = rig.cameras[static_cast<std::size_t>(c)];
        const std::vector<cv::Mat_<uchar>> f = pictures(view, options);
        ASSERT_EQ(f.size(), 13U);
        double sum2 = 0, sum = 0;
        int count = 0;
        for (int y = 2; y < 254; ++y)
            for (int x = 2; x < 1278; ++x) {
                if (view.lit()(y, x - 2) == 0 || view.lit()(y, x + 2) == 0) continue;
                const cv::Vec3d p
                    = camera.centre() + static_cast<double>(view.depth()(y, x)) * camera.ray(cv::Vec2d(x, y)).direction;
                const double u = rig.projector.project(p)[0] + 0.5; // edge coordinate
                const double in_period = std::fmod(u, 8.0);
                if (u < 2 || u > 1022) continue; // the fringe ends with the projector
                int gray = 0;
                for (std::size_t k = 2; k < 9; ++k)
                    gray = 2 * gray + (f[k](y, x) > 0.5 * (f[0](y, x) + f[1](y, x)));
                int number = 0;
                for (; gray != 0; gray >>= 1)
                    number ^= gray;
                const bool at_edge = in_period < 0.5 || in_period > 7.5;
                ASSERT_TRUE(at_edge || number == static_cast<int>(u / 8)) << x << ' ' << y;
                const double phase = std::atan2(f[10](y, x) - f[12](y, x), f[9](y, x) - f[11](y, x));
                const double error = std::remainder(phase * 8 / (2 * CV_PI) - u, 8.0);
                ASSERT_LT(std::abs(error), 0.05) << x << ' ' << y;
                sum += error;
                sum2 += error * error;
                ++count;
            }
        // Rounding of the frames (0.29 of about 70 grey levels of amplitude, over sqrt 2) and of the pattern.
        EXPECT_GT(count, 250000);
        EXPECT_LT(std::sqrt(sum2 / count), 0.006) << "projector px";
        EXPECT_LT(std::abs(sum / count), 0.001);
    }
}

/// Pixel integration, also over depth edges, shadows and oblique patches, against plain averaging.
TEST(SimRender, PictureEqualsTheAverageOfAFourTimesFinerOne)
{
    const RigOptions coarse = noise_free(160, 128), fine = noise_free(640, 512);
    const Rig coarse_rig = make_rig(coarse), fine_rig = make_rig(fine);
    const ProjectedRow lit(std::vector<double>(1024, 255.0), 1, 0);
    for (const std::string name : { "bust", "steps" }) {
        const View coarse_view(make_scene(name, coarse), coarse_rig, 0), fine_view(make_scene(name, fine), fine_rig, 0);
        cv::Mat average, difference;
        cv::resize(fine_view.picture(lit, 1), average, coarse.image_size, 0, 0, cv::INTER_AREA);
        cv::absdiff(average, coarse_view.picture(lit, 1), difference);
        // At edges 16 samples stand for a pixel: a sixteenth of 200 grey levels, half of it either way, and corners.
        // The mean over the whole picture grows with the length of the edges in it.
        EXPECT_LT(cv::mean(difference)[0], 0.2) << name;
        EXPECT_LT(cv::countNonZero(difference > 12), 40) << name;
    }
}

TEST(SimRender, NoiseHasTheVarianceOfTheSensorAndFramesAreIndependent)
{
    RigOptions options = noise_free(640, 512);
    options.noise = 3;
    const Rig rig = make_rig(options);
    const Scene scene = make_scene("plane", options);
    const View view(scene, rig, 0);
    for (const double grey : { 0.0, 100.0, 220.0 }) {
        const ProjectedRow row(std::vector<double>(1024, grey), 1, 0);
        const cv::Mat_<uchar> a = view.picture(row, 3), b = view.picture(row, 4);
        double measured = 0, expected = 0, product = 0;
        for (int y = 60; y < 450; ++y)
            for (int x = 10; x < 500; ++x) {
                const Sample& s = view.sample(y, x);
                const double light = static_cast<double>(s.ambient) + static_cast<double>(s.lit) * grey / 255;
                const double mean = rig.sensor.black + light;
                measured += 0.5 * std::pow(a(y, x) - b(y, x), 2);
                product += (a(y, x) - mean) * (b(y, x) - mean);
                expected += rig.sensor.read * rig.sensor.read + rig.sensor.shot * light + 1.0 / 12; // and rounding
            }
        // 190 000 pixels: the variance is known to sqrt(2 / 190 000) = 0.3 %, the covariance to 0.25 %.
        EXPECT_NEAR(measured / expected, 1, 0.015) << grey;
        EXPECT_NEAR(product / expected, 0, 0.015) << grey;
    }
}

TEST(SimRender, BytesDependOnTheSeedAndNotOnTheThreads)
{
    RigOptions options;
    options.image_size = { 160, 128 };
    const int threads = omp_get_max_threads();
    omp_set_num_threads(1);
    const Capture one = make_capture("bust", options);
    omp_set_num_threads(2);
    const Capture two = make_capture("bust", options);
    omp_set_num_threads(threads);
    EXPECT_EQ(one.files, two.files);
    ASSERT_EQ(one.files.size(), 26U + 6U);
    EXPECT_EQ(one.files[27].first, "truth.tiff");
    const cv::Mat_<float> depth = cv::imdecode(one.files[27].second, cv::IMREAD_UNCHANGED);
    ASSERT_EQ(depth.size(), one.truth.depth.size());
    EXPECT_EQ(std::memcmp(depth.data, one.truth.depth.data, depth.total() * sizeof(float)), 0) << "NaN included";

    const Capture first = make_capture("plane", options);
    options.seed = 2;
    const Capture other = make_capture("plane", options);
    for (std::size_t i = 0; i < 26; ++i)
        EXPECT_NE(first.files[i].second, other.files[i].second) << first.files[i].first;
}

TEST(SimCapture, HasTheFramesOfAViewThatWasMadeForAnotherPatternAndNoise)
{
    RigOptions options;
    options.image_size = { 64, 48 };
    vexo::Rendered::frames("bust", options, 1);
    options.method = vexo::Method::multi_phase;
    options.noise = 3.0;
    options.gamma = 1.8;
    options.seed = 5;
    options.swapped = { 4, 6 };
    const Files files = make_capture("bust", options).files;
    const std::vector<cv::Mat> frames = vexo::Rendered::frames("bust", options, 1);
    ASSERT_EQ(frames.size(), 14U);
    for (std::size_t k = 0; k < frames.size(); ++k)
        EXPECT_EQ(cv::norm(cv::imdecode(files[2 * k + 1].second, cv::IMREAD_UNCHANGED), frames[k], cv::NORM_INF), 0.0);
}

TEST(SimCapture, ImpossibleRigsAndScenesAreRefusedByName)
{
    RigOptions options;
    EXPECT_EQ(why_invalid(options), nullptr);
    EXPECT_THROW(make_capture("castle", options), std::invalid_argument);
    options.fringe_period = 7; // 128 periods cover 896 of 1024 columns
    EXPECT_NE(why_invalid(options), nullptr);
    EXPECT_THROW(make_capture("plane", options), std::invalid_argument);
    options.fringe_period = 0;
    EXPECT_THROW(make_capture("plane", options), std::invalid_argument);
    options = {};
    options.distance_mm = std::nan("");
    EXPECT_NE(why_invalid(options), nullptr);
}

TEST(SimCapture, SurfaceBehindTheLastLitColumnIsNotCalledVisible)
{
    RigOptions options = noise_free(160, 128);
    options.method = vexo::Method::multi_phase;
    const Capture capture = make_capture("plane", options);
    ASSERT_EQ(capture.files.size(), 28U + 6U);
    const Rig rig = make_rig(options);
    const cv::Mat_<uchar> dark = cv::imdecode(capture.files[0].second, cv::IMREAD_UNCHANGED);
    const cv::Mat_<uchar> lit = cv::imdecode(capture.files[2].second, cv::IMREAD_UNCHANGED);
    int behind = 0;
    for (int y = 0; y < 128; ++y)
        for (int x = 0; x < 160; ++x) {
            const cv::Vec3d ray = rig.cameras[0].ray(cv::Vec2d(x, y)).direction;
            const cv::Vec3d p = rig.cameras[0].centre() + static_cast<double>(capture.truth.depth(y, x)) * ray;
            const double column = rig.projector.project(p)[0] + 0.5;
            if (column > multi_phase_columns) {
                ++behind;
                ASSERT_EQ(capture.truth.visible(y, x), 0);
            }
            if (column > multi_phase_columns + 10) { // a pixel is 6 columns wide
                ASSERT_EQ(lit(y, x), dark(y, x));
            }
            if (capture.truth.visible(y, x) != 0 && column < multi_phase_columns - 10) {
                ASSERT_GT(lit(y, x), 100);
            }
        }
    EXPECT_GT(behind, 500);
}

TEST(SimCapture, SwappedFramesAndAMovedSceneDifferFromTheGoodCaptureThereAlone)
{
    RigOptions options;
    options.image_size = { 64, 48 };
    const Files good = make_capture("sphere", options).files;
    options.swapped = { 10, 11 };
    options.noise = 0;
    const Files swapped = make_capture("sphere", options).files;
    options.swapped = { 0, 0 };
    const Files plain = make_capture("sphere", options).files;
    EXPECT_EQ(swapped[20].second, plain[22].second);
    EXPECT_EQ(swapped[22].second, plain[20].second);
    options.move_mm = 5;
    const Files moved = make_capture("sphere", options).files;
    for (std::size_t i = 0; i < 26; ++i) {
        EXPECT_EQ(moved[i].second != plain[i].second, i >= 22) << plain[i].first;
        EXPECT_NE(good[i].second, plain[i].second) << "noise";
    }
    options.move_mm = 0;
    options.swapped = { 3, 13 };
    EXPECT_THROW(make_capture("sphere", options), std::invalid_argument) << "frames 0 to 12";
}
