#include "host/accuracy/acceptance.h"

#include "base/failure.h"
#include "host/clouds/shared_noise.h"
#include "host/files/ply.h"
#include "host/results/figures.h"
#include "support/folder.h"

#include <gtest/gtest.h>
#include <opencv2/calib3d.hpp>
#include <opencv2/imgproc.hpp>

#include <functional>
#include <random>

namespace {

using namespace vexo;
using Body = AcceptanceRequest::Body;

constexpr double f = 400, cx = 160, cy = 128, baseline = 160;

/// Depth where the line of sight q = (x, y, 1) meets a ball; NaN: beside it.
double on_ball(const cv::Vec3d& q, const cv::Vec3d& centre, double radius)
{
    const double a = q.dot(q), b = q.dot(centre), c = centre.dot(centre) - radius * radius;
    return b * b < a * c ? NAN : (b - std::sqrt(b * b - a * c)) / a;
}

double on_plane(const cv::Vec3d& q)
{
    const cv::Vec3d n(0.2, -0.1, -1);
    return n.dot(cv::Vec3d(0, 0, 640)) / n.dot(q);
}

/// Something without symmetry.
double on_relief(const cv::Vec3d& q)
{
    return 600 + 25 * std::sin(14 * q[0] + 9 * q[1]) + 15 * std::cos(22 * q[1] - 5 * q[0]);
}

/// A result's folder of 320 x 256 px, made of known surfaces with known noise.
class Acceptance : public testing::Test {
protected:
    using Surface = std::function<double(const cv::Vec3d&)>;

    /// @param stray  share of the points that lie up to 20 mm off
    void write(const Surface& surface, double stray = 0.0, bool with_sigma = true, double scale_share = -1)
    {
        std::mt19937 random(7);
        std::normal_distribution<double> noise;
        std::uniform_real_distribution<double> even(-1, 1);
        std::vector<cv::Point3f> points;
        cv::Mat sigma(256, 320, CV_32F);
        for (int y = 0; y < 256; ++y)
            for (int x = 0; x < 320; ++x) {
                const cv::Vec3d q((x - cx) / f, (y - cy) / f, 1);
                const double s = 0.02 + 0.0003 * x;
                const double z
                    = surface(q) + s * noise(random) + (even(random) > 1 - 2 * stray ? 20 * even(random) : 0);
                sigma.at<float>(y, x) = static_cast<float>(s);
                points.emplace_back(cv::Vec3f(q * z));
            }
        const auto ply = make_ply(points, cv::Mat::zeros(256, 320, CV_8U), "test", with_sigma ? sigma : cv::Mat());
        Json report { { "method", "gray-phase" }, { "unit", "mm" },
            { "camera",
                { { "f", f }, { "cx", cx }, { "cy", cy }, { "baseline", baseline }, { "disparity_at_infinity", 0 },
                    { "output_size", { 320, 256 } }, { "rectifying_rotation", { 1, 0, 0, 0, 1, 0, 0, 0, 1 } } } },
            { "seconds", { { "decode_and_rectify", 0 }, { "match_and_triangulate", 0 } } },
            { "pixels",
                { { "not_measured", { { "dark_or_low_contrast", 100 }, { "removed_by_unwrapping", 9000 } } } } } };
        if (scale_share >= 0)
            report["calibration_share_mm"]
                = { { "near", 1 }, { "middle", 1 }, { "far", 1 }, { "distances_mm", { 500, 600, 700 } },
                      { "bend_mm", { 0, 0.05, 0.1 } }, { "scale", { scale_share, scale_share, scale_share } } };
        put(folder / "cloud.ply", std::string(ply.begin(), ply.end()));
        put(folder / "report.json", json_text(report));
    }

    Accepted judge(AcceptanceRequest request) const { return accept(folder / "", request); }
    Json told(const AcceptanceRequest& request) const { return judge(request).figures["acceptance"]; }

    std::string why_refused(const AcceptanceRequest& request) const
    {
        try {
            judge(request);
        } catch (const Failure& failure) {
            return failure.what();
        }
        return "";
    }

    /// A text PLY of every second pixel of a surface, turned and shifted.
    std::string reference(const Surface& surface, const cv::Matx33d& R, const cv::Vec3d& t) const
    {
        std::ostringstream text;
        text << "ply\r\nformat ascii 1.0\nelement vertex " << 128 * 160
             << "\nproperty uchar red\nproperty double x\nproperty double y\nproperty double z\nelement face 0\n"
                "property list uchar int vertex_indices\nend_header\n";
        for (int i = 0; i < 128 * 160; ++i) {
            const cv::Vec3d q((2 * (i % 160) - cx) / f, (2 * (i / 160) - cy) / f, 1), p = R * (q * surface(q)) + t;
            text << "7 " << p[0] << ' ' << p[1] << ' ' << (i == 5 ? NAN : p[2]) << '\n';
        }
        put(folder / "reference.ply", text.str());
        return folder / "reference.ply";
    }

    Folder folder;
};

TEST_F(Acceptance, FlatnessIsWhatTheNoiseLetsExpectAmongStraysAndBesideAnotherBody)
{
    write([](const cv::Vec3d& q) { return q[0] < -0.2 ? 560.0 : on_plane(q); }, 0.02);
    const Json a = told({});
    EXPECT_NEAR(a["flatness"]["ratio"].get<double>(), 1, 0.02); // of 60 000 points
    EXPECT_NEAR(a["outliers"].get<double>(), 0.25 + 0.02 * 0.75, 0.004) << "80 of 320 columns, and the strays";
    EXPECT_EQ(a["findings"][1]["name"], "outliers");
    EXPECT_EQ(a["calibration_share_mm"], "unknown");
    const double rms = a["flatness"]["measured_mm"];
    AcceptanceRequest limited;
    limited.limit_mm = 1.01 * rms;
    EXPECT_EQ(judge(limited).beyond, "");
    limited.limit_mm = 0.99 * rms;
    EXPECT_NE(judge(limited).beyond.find("flatness"), std::string::npos);
    limited.region.pixels = cv::Rect(100, 0, 40, 256); // less noise there
    EXPECT_EQ(judge(limited).beyond, "");
    limited.region = { cv::Vec6d(-500, -500, 600, 500, 500, 1000), {} };
    EXPECT_LT(told(limited)["outliers"].get<double>(), 0.03);
}

TEST_F(Acceptance, SurfaceThatIsNotFlatIsMoreThanPredictedUnlessTheCalibrationBendsSoMuch)
{
    const auto bent = [](const cv::Vec3d& q) { return on_plane(q) + 0.09 * std::cos(6 * q[0]); };
    write(bent);
    EXPECT_GT(told({})["flatness"]["ratio"].get<double>(), 1.25);
    write(bent, 0, true, 0);
    const Json figure = told({})["flatness"]; // share bent by 0.07 mm at 640 mm
    EXPECT_NEAR(figure["calibration_mm"].get<double>(), 0.07, 0.005);
    EXPECT_EQ(figure["says"], "as expected") << figure;
}

TEST_F(Acceptance, DiametersAndDistanceComeOutOfTheBallsThatWereMade)
{
    const cv::Vec3d one(-60, 10, 600), other(70, -20, 620);
    const auto scene = [&](const cv::Vec3d& q) {
        const double a = on_ball(q, one, 30), b = on_ball(q, other, 31);
        return a == a ? a : b == b ? b : on_plane(q);
    };
    write(scene, 0.02, true, 1e-3);
    const double apart = cv::norm(other - one);
    AcceptanceRequest request { Body::balls, { 62, 60, apart }, "", {}, 0.05 };
    const Accepted accepted = judge(request);
    const Json a = accepted.figures["acceptance"];
    EXPECT_EQ(accepted.beyond, "");
    for (int i = 0; i < 2; ++i) {
        const Json& d = a["diameters"][i];
        EXPECT_NEAR(d["form"]["ratio"].get<double>(), 1, 0.1) << d;
        EXPECT_LT(d["noise_mm"].get<double>(), 0.05) << d; // 0.07 mm / sqrt(800 points), times what a cap leaves open
        EXPECT_LT(std::abs(d["deviation_mm"].get<double>()), 4 * d["noise_mm"].get<double>()) << d;
        EXPECT_NEAR(d["calibration_mm"].get<double>(), 1e-3 * d["nominal_mm"].get<double>(), 1e-9);
    }
    EXPECT_LT(std::abs(a["distance"]["deviation_mm"].get<double>()), 4 * a["distance"]["noise_mm"].get<double>()) << a;
    Json report = read_json(folder / "report.json");
    report["parameters"]["smooth"] = true; // so that neighbours are off alike
    put(folder / "report.json", json_text(report));
    const Json smoothed = told(request);
    EXPECT_EQ(smoothed["diameters"][0]["noise_mm"], "unknown");
    EXPECT_EQ(smoothed["distance"]["ratio"], "unknown");
    EXPECT_EQ(smoothed["diameters"][0]["form"], a["diameters"][0]["form"]);
    EXPECT_EQ(smoothed["findings"][0]["name"], "smoothed");
    request.lengths[2] += 0.1;
    EXPECT_NE(judge(request).beyond.find("distance"), std::string::npos);
    EXPECT_NE(why_refused({ Body::ball, { 50 }, "", {}, {} }).find("no ball of about 50.000 mm"), std::string::npos);
    EXPECT_NE(why_refused({ Body::ball, { 60 }, "", { {}, cv::Rect(0, 200, 320, 50) }, {} }).find("no ball"),
        std::string::npos);
}

TEST(PointsAsOne, AreAsManyAsShareTheirNoiseWhateverTheForm)
{
    std::mt19937 random(3);
    std::normal_distribution<double> noise;
    cv::Mat_<double> own(100, 100), shared;
    for (double& value : own)
        value = noise(random);
    cv::blur(own, shared, { 3, 3 });
    for (const bool alone : { true, false }) {
        std::vector<Sighted> points;
        std::vector<std::size_t> which;
        std::vector<double> residuals;
        for (int i = 0; i < 10000; ++i) {
            points.push_back({ { 0, 0, 1 }, 1, { i % 100, i / 100 } });
            which.push_back(which.size());
            residuals.push_back(
                (alone ? own(i / 100, i % 100) : 3 * shared(i / 100, i % 100)) + std::sin(0.05 * i / 100.0));
        }
        // 64 correlations, each off by 1 / sqrt(10 000), and as many times the mean of those farther away
        EXPECT_NEAR(points_as_one(points, which, residuals), alone ? 1 : 9, alone ? 0.3 : 1.5);
    }
}

TEST_F(Acceptance, CloudComesToRestOnAReferenceThatLiesAskewOrFarAway)
{
    write(on_relief, 0.02);
    cv::Matx33d R;
    cv::Rodrigues(cv::Vec3d(0.03, -0.05, 0.04), R);
    for (const cv::Vec3d& t : { cv::Vec3d(-25, 4, 6), cv::Vec3d(900, -2000, 300) }) {
        AcceptanceRequest request { Body::reference, {}, reference(on_relief, R, t), {}, {} };
        const Json a = told(request);
        EXPECT_NEAR(a["distances"]["ratio"].get<double>(), 1, 0.05) << a;
        EXPECT_NEAR(a["outliers"].get<double>(), 0.02, 0.004);
        EXPECT_TRUE(a["alignment"]["began_at_centroid"] == true || t[0] < 100);
        const std::vector<double> m = a["alignment"]["reference_from_cloud"];
        const cv::Matx44d motion(m.data());
        for (const cv::Vec3d& p : { cv::Vec3d(0, 0, 600), cv::Vec3d(200, 100, 620) })
            EXPECT_LT(cv::norm((motion * cv::Vec4d(p[0], p[1], p[2], 1)).get_minor<3, 1>(0, 0) - (R * p + t)), 0.02);
    }
    const std::string other
        = reference([](const cv::Vec3d& q) { return 90 + 60 * q[0] * q[0]; }, cv::Matx33d::eye(), { 0, 0, 2000 });
    EXPECT_NE(why_refused({ Body::reference, {}, other, {}, {} }).find("reference.ply: "), std::string::npos);
}

TEST_F(Acceptance, WhatCannotBeKnownIsUnknownAndWhatCannotBeAnsweredIsRefusedWithItsCause)
{
    write(on_plane, 0, false);
    const Json a = told({});
    EXPECT_EQ(a["flatness"]["ratio"], "unknown");
    EXPECT_EQ(a["flatness"]["predicted_mm"], "unknown");
    EXPECT_GT(a["flatness"]["measured_mm"].get<double>(), 0.02);
    EXPECT_NE(why_refused({ {}, {}, "", { {}, cv::Rect(400, 0, 9, 9) }, {} }).find("0 points lie"), std::string::npos);
    for (const AcceptanceRequest& bad : { AcceptanceRequest { Body::ball, {}, "", {}, {} },
             { Body::ball, { -1 }, "", {}, {} }, { Body::plane, {}, "x", {}, {} }, { Body::plane, {}, "", {}, 0.0 },
             { Body::plane, {}, "", { cv::Vec6d(0, 0, 0, 1, 1, 0), {} }, {} }, { Body::balls, { 1, 2 }, "", {}, {} } })
        EXPECT_THROW(judge(bad), UsageFailure);
    write([](const cv::Vec3d&) { return NAN; });
    EXPECT_NE(why_refused({}).find("no points; most pixels: removed by unwrapping; check"), std::string::npos)
        << why_refused({});
    EXPECT_THROW(read_comparison(folder / ""), Failure);
}

TEST_F(Acceptance, HostilePointFilesAreRefusedOrReadAsWhatTheySay)
{
    const std::string xyz = "property float x\nproperty float y\nproperty float z\n";
    const auto ascii = [&xyz](const std::string& elements, const std::string& body) {
        return "ply\nformat ascii 1.0\n" + elements + xyz + "end_header\n" + body;
    };
    const std::string files[] = { ascii("element vertex 3\n", "1 2 3\n4 5 6\n7 8\n"),
        ascii("element vertex 18446744073709551615\n", "1 2 3"), ascii("element vertex -1\n", "1 2 3"),
        ascii("element vertex 1\n", "1 two 3\n"),
        ascii("element face 2\nproperty int a\nelement vertex 1\n", "1\n1\n1 2 3"),
        "ply\nformat binary_big_endian 1.0\nelement vertex 1\n" + xyz + "end_header\n" + std::string(12, 'x'),
        "ply\nformat binary_little_endian 1.0\nelement vertex 2\n" + xyz + "end_header\n" + std::string(23, 'x'),
        "ply\nformat ascii 1.0\nelement vertex 1\nproperty int x\nproperty int y\nproperty int z\nend_header\n1 2 3" };
    for (const std::string& bytes : files) {
        put(folder / "hostile.ply", bytes);
        EXPECT_THROW(read_ply(folder / "hostile.ply"), Failure) << bytes;
    }
    put(folder / "odd.ply", ascii("element vertex 2\n", " 1e999 -2.5\r\n3\nnan 5 inf 7"));
    const auto points = read_ply(folder / "odd.ply");
    EXPECT_TRUE(std::isnan(points[0].x) && points[0].y == -2.5F && std::isnan(points[1].x) && std::isinf(points[1].z));
}

} // namespace
