#include "host/cameras/robot_rotation.h"

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <limits>
#include <set>

namespace {

using namespace vexo;

constexpr double rounding = 1e-12; // a few products of numbers near 1
constexpr double deg = CV_PI / 180;

/// The turn about x, y or z, written out.
cv::Matx33d about(char axis, double angle)
{
    const double c = std::cos(angle), s = std::sin(angle);
    if (axis == 'x') return { 1, 0, 0, 0, c, -s, 0, s, c };
    if (axis == 'y') return { c, 0, s, 0, 1, 0, -s, 0, c };
    return { c, -s, 0, s, c, 0, 0, 0, 1 };
}

double apart(const cv::Matx33d& a, const cv::Matx33d& b)
{
    return cv::norm(a - b, cv::NORM_INF);
}

RotationForm named(const std::string& name, bool degrees = false, bool by_axis = false)
{
    RotationForm form = rotation_form_named(name).value();
    form.degrees = degrees;
    form.by_axis = by_axis;
    return form;
}

std::vector<std::string> orders(const std::string& letters)
{
    std::vector<std::string> all;
    for (const char a : letters)
        for (const char b : letters)
            for (const char c : letters)
                if (a != b && b != c) all.push_back({ a, b, c });
    return all;
}

char small(char letter)
{
    return static_cast<char>(std::tolower(letter));
}

TEST(RobotRotation, IntrinsicOrdersMultiplyFromTheLeftAndExtrinsicOnesFromTheRight)
{
    const std::array<double, 3> a { 0.3, -1.1, 2.0 };
    for (const std::string& order : orders("XYZ")) {
        const cv::Matx33d product
            = about(small(order[0]), a[0]) * about(small(order[1]), a[1]) * about(small(order[2]), a[2]);
        const auto read = rotation_of(named(order), { a[0], a[1], a[2] });
        ASSERT_TRUE(read) << order;
        EXPECT_LT(apart(*read, product), rounding) << order;
    }
    for (const std::string& order : orders("xyz")) {
        const cv::Matx33d product = about(order[2], a[2]) * about(order[1], a[1]) * about(order[0], a[0]);
        EXPECT_LT(apart(*rotation_of(named(order), { a[0], a[1], a[2] }), product), rounding) << order;
    }
}

TEST(RobotRotation, AnglesAboutMovingAxesAreThoseAboutFixedAxesInTheOppositeOrder)
{
    for (const std::string& order : orders("XYZ")) {
        const std::string fixed { small(order[2]), small(order[1]), small(order[0]) };
        const auto moving_axes = rotation_of(named(order), { 0.4, 0.9, -2.2 });
        const auto fixed_axes = rotation_of(named(fixed), { -2.2, 0.9, 0.4 });
        EXPECT_LT(apart(*moving_axes, *fixed_axes), rounding) << order << " and " << fixed;
    }
}

TEST(RobotRotation, DegreesAndAnglesByAxisMeanTheSameAsRadiansInTheOrderOfTheLetters)
{
    const auto plain = rotation_of(named("ZYX"), { 30 * deg, -50 * deg, 140 * deg });
    const auto degrees = rotation_of(named("ZYX", true), { 30, -50, 140 });
    const auto by_axis = rotation_of(named("ZYX", true, true), { 140, -50, 30 });
    EXPECT_LT(apart(*plain, *degrees), rounding);
    EXPECT_LT(apart(*plain, *by_axis), rounding);
    EXPECT_FALSE(rotation_of(named("ZYZ", true, true), { 140, -50, 30 })) << "one axis twice has no angle of its own";
    EXPECT_TRUE(rotation_of(named("ZYZ", true), { 140, -50, 30 }));
}

TEST(RobotRotation, InGimbalLockTheOuterAnglesAddUpAndTheRotationStaysOne)
{
    for (const double outer : { -1.3, 0.0, 0.8 }) {
        const auto both = rotation_of(named("ZYX"), { outer, CV_PI / 2, 0.5 });
        const auto one = rotation_of(named("ZYX"), { outer - 0.5, CV_PI / 2, 0.0 });
        EXPECT_LT(apart(*both, *one), rounding) << outer;
        EXPECT_LT(apart(*both * both->t(), cv::Matx33d::eye()), rounding);
        const auto proper = rotation_of(named("ZXZ"), { outer, 0.0, 0.5 });
        EXPECT_LT(apart(*proper, about('z', outer + 0.5)), rounding) << outer;
    }
}

TEST(RobotRotation, AQuaternionAVectorAndAMatrixOfOneTurnAreOneRotation)
{
    const cv::Vec3d axis = cv::normalize(cv::Vec3d(1, -2, 0.5));
    for (const double angle : { 1e-9, 0.7, CV_PI / 2, 3.0, CV_PI, 5.0 }) {
        const cv::Vec3d v = std::sin(angle / 2) * axis, turn = angle * axis;
        const double w = std::cos(angle / 2);
        const auto R = rotation_of(named("vector"), { turn[0], turn[1], turn[2] });
        ASSERT_TRUE(R);
        EXPECT_LT(cv::norm(*R * axis - axis), rounding) << "the axis stays, " << angle;
        EXPECT_NEAR(cv::trace(*R), 1 + 2 * std::cos(angle), rounding);
        EXPECT_LT(apart(*R, *rotation_of(named("xyzw"), { v[0], v[1], v[2], w })), rounding) << angle;
        EXPECT_LT(apart(*R, *rotation_of(named("wxyz"), { w, v[0], v[1], v[2] })), rounding) << angle;
        EXPECT_LT(apart(*R, *rotation_of(named("xyzw"), { -v[0], -v[1], -v[2], -w })), rounding) << "either sign";
        EXPECT_LT(apart(*R, *rotation_of(named("matrix"), { R->val, R->val + 9 })), rounding) << angle;
        const auto degrees = rotation_of(named("vector", true), { turn[0] / deg, turn[1] / deg, turn[2] / deg });
        EXPECT_LT(apart(*R, *degrees), rounding) << angle;
    }
    EXPECT_EQ(*rotation_of(named("vector"), { 0, 0, 0 }), cv::Matx33d::eye());
}

TEST(RobotRotation, ThreeDigitsMakeARotationAndWhatIsFartherOffOrMirroredMakesNone)
{
    const cv::Matx33d R = *rotation_of(named("ZYX"), { 0.2, 0.4, -0.9 });
    std::vector<double> digits, mirrored, scaled;
    for (const double value : R.val) {
        digits.push_back(std::round(1000 * value) / 1000);
        mirrored.push_back(-value);
        scaled.push_back(1.02 * value);
    }
    const auto read = rotation_of(named("matrix"), digits);
    ASSERT_TRUE(read);
    EXPECT_LT(apart(*read, R), 3e-3) << "as far as the digits say, three of a row";
    EXPECT_LT(apart(*read * read->t(), cv::Matx33d::eye()), rounding) << "of orthogonal rows all the same";
    EXPECT_NEAR(cv::determinant(*read), 1, rounding);
    EXPECT_FALSE(rotation_of(named("matrix"), mirrored));
    EXPECT_FALSE(rotation_of(named("matrix"), scaled));
    EXPECT_TRUE(rotation_of(named("xyzw"), { 0.5, 0.5, 0.5, 0.501 }));
    EXPECT_FALSE(rotation_of(named("xyzw"), { 0.5, 0.5, 0.5, 0.6 }));
}

TEST(RobotRotation, NumbersThatAreTooManyTooFewOrBeyondAllBoundsMakeNoRotation)
{
    const double huge = 1e200, inf = std::numeric_limits<double>::infinity(), nan = std::nan("");
    for (const std::string name : { "xyzw", "wxyz", "vector", "matrix", "ZYX", "zxz" })
        for (const std::size_t count : { 0, 1, 2, 5, 8, 16 })
            EXPECT_FALSE(rotation_of(named(name), std::vector<double>(count, 0.1))) << name << count;
    for (const double bad : { huge, -huge, inf, nan, 0.0 }) {
        EXPECT_FALSE(rotation_of(named("xyzw"), std::vector<double>(4, bad))) << bad;
        EXPECT_FALSE(rotation_of(named("matrix"), std::vector<double>(9, bad))) << bad;
    }
}

TEST(RobotRotation, OnlyNamesOfOneMeaningAreForms)
{
    for (const std::string bad : { "", "XyZ", "XXY", "xyy", "XY", "XYZX", "xyw", "wzyx", "ZYX ", "abc", "Vector" })
        EXPECT_FALSE(rotation_form_named(bad)) << bad;
    std::set<std::string> said;
    for (const std::string letters : { "XYZ", "xyz" })
        for (const std::string& order : orders(letters))
            said.insert(describe(named(order)));
    EXPECT_EQ(said.size(), 24U) << "each order is described in words of its own";
    EXPECT_NE(describe(named("ZYX")).find("Rz Ry Rx"), std::string::npos);
    EXPECT_NE(describe(named("zyx")).find("Rx Ry Rz"), std::string::npos);
}

/// Numbers of a rotation that no two forms read alike.
std::vector<double> telling_numbers(const RotationForm& form)
{
    if (form.kind == RotationForm::Kind::quaternion) return { 0.1, 0.3, -0.5, std::sqrt(0.65) };
    return { 0.31, -0.47, 0.83 };
}

TEST(RobotRotation, TheOtherFormsReadTheNumbersOtherwiseAndEachOnce)
{
    for (const std::string name : { "xyzw", "wxyz", "vector", "ZYX", "xyz", "ZXZ" })
        for (const bool degrees : { false, true })
            for (const bool by_axis : { false, true }) {
                if (by_axis && name == "ZXZ") continue; // no such form
                const RotationForm form = named(name, degrees, by_axis);
                std::vector<cv::Matx33d> read { *rotation_of(form, telling_numbers(form)) };
                for (const RotationForm& other : other_forms(form)) {
                    const auto R = rotation_of(other, telling_numbers(form));
                    ASSERT_TRUE(R) << describe(form) << " and " << describe(other);
                    for (const cv::Matx33d& before : read)
                        EXPECT_GT(apart(*R, before), 1e-7) << name << by_axis << " and " << describe(other);
                    read.push_back(*R);
                }
                const std::size_t orders_of_three = by_axis ? 6 : 24;
                EXPECT_EQ(read.size(), form.has_angles() ? 2 * (orders_of_three + 1) : 2U) << name << by_axis;
            }
}

TEST(RobotRotation, AMatrixHasNoOtherForm)
{
    EXPECT_TRUE(other_forms(named("matrix")).empty());
}

} // namespace
