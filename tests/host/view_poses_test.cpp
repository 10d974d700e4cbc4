#include "base/failure.h"
#include "host/cameras/rigid_file.h"
#include "host/cameras/view_poses.h"
#include "support/folder.h"
#include "support/refusal.h"

#include <gtest/gtest.h>

#include <cmath>

namespace {

using namespace vexo;

constexpr double rounding = 1e-9; // of places of some hundred mm

class ViewPosesFiles : public testing::Test {
protected:
    ViewPoses read(const std::string& name, const std::string& text, const std::vector<std::string>& views,
        const PoseReadingRequest& request = {})
    {
        put(_folder / name, text);
        return read_view_poses(_folder / name, views, request);
    }
    testing::AssertionResult refused(const std::string& name, const std::string& text,
        const std::vector<std::string>& views, const PoseReadingRequest& request = {})
    {
        const std::string why = refusal([&] { read(name, text, views, request); });
        if (is_one_line(why) && why.find(_folder / name) != std::string::npos) return testing::AssertionSuccess();
        return testing::AssertionFailure() << "\"" << why << "\" for " << text.substr(0, 200);
    }
    cv::Matx44d rigid(const std::string& text)
    {
        put(_folder / "rt", text);
        return read_rigid(_folder / "rt");
    }
    Folder _folder;
};

const std::string head = "%YAML:1.0\n---\n",
                  axis = "axis_point: [ 100., 50., 600. ]\naxis_direction: [ 0., -2., 0. ]\n";

TEST_F(ViewPosesFiles, PosesGoToTheViewsByTheirNamesElseInTheirOrder)
{
    const std::string names = "picture,x,y,z,qx,qy,qz,qw\n", b = "b,200,0,0,0,0,0,1\n", a = "a,100,0,0,0,0,0,1\n";
    const auto x_of
        = [](const ViewPoses& poses, std::size_t i) { return poses.common_from_camera[i].translation()[0]; };
    const ViewPoses by_name = read("p.csv", names + b + "c,300,0,0,0,0,0,1\n" + a, { "a", "b" });
    ASSERT_EQ(by_name.common_from_camera.size(), 2U);
    EXPECT_EQ(x_of(by_name, 0), 100);
    EXPECT_EQ(x_of(by_name, 1), 200);
    const ViewPoses in_order = read("p.csv", names + b + a, { "first", "second" });
    EXPECT_EQ(x_of(in_order, 0), 200);
    EXPECT_NE(in_order.read_as, by_name.read_as) << "what was assumed is said";
    EXPECT_TRUE(refused("p.csv", names + b + a, { "a", "second" })) << "some by name, some not";
    EXPECT_TRUE(refused("p.csv", names + b + a, { "x", "y", "z" })) << "one pose too few";
    EXPECT_TRUE(refused("p.csv", names + b + a, { "x" })) << "one too many";
}

TEST_F(ViewPosesFiles, TheOtherReadingsAreThoseThatTheirAdviceAsksFor)
{
    const std::string text = "picture,x,y,z,a,b,c\n1,100,-200,300,10,20,30\n2,5,6,700,-40,50,60\n";
    const ViewPoses poses = read("p.csv", text, { "1", "2" }, { "ZYX" });
    bool tried_inverse = false, tried_unit = false;
    for (const ViewPoses::Other& other : poses.others) {
        PoseReadingRequest said { "ZYX" };
        std::istringstream words(other.advice);
        for (std::string word; words >> word;) {
            if (word == "--inverse") said.inverse = tried_inverse = true;
            if (word == "--rotation") words >> said.rotation;
            if (word == "--angles") said.degrees = words >> word && word == "degrees";
            if (word == "--unit") said.unit_mm = words >> word && word == "m" ? 1000.0 : 1.0, tried_unit = true;
        }
        const ViewPoses as_said = read("p.csv", text, { "1", "2" }, said);
        ASSERT_EQ(other.common_from_camera.size(), 2U) << other.advice;
        for (std::size_t i = 0; i < 2; ++i)
            EXPECT_LT(cv::norm(as_said.common_from_camera[i].matrix - other.common_from_camera[i].matrix), 1e-6)
                << other.advice;
    }
    EXPECT_TRUE(tried_inverse && tried_unit);
}

TEST_F(ViewPosesFiles, ATurntableTurnsTheCameraAboutItsAxisAgainstTheObject)
{
    const ViewPoses poses = read("t.yaml", head + axis + "step_deg: 90.\n", { "a", "b", "c" });
    ASSERT_EQ(poses.common_from_camera.size(), 3U);
    EXPECT_LT(cv::norm(poses.common_from_camera[0].matrix - cv::Matx44d::eye()), rounding);
    for (const cv::Affine3d& pose : poses.common_from_camera)
        for (const double y : { -30.0, 400.0 })
            EXPECT_LT(cv::norm(pose * cv::Vec3d(100, y, 600) - cv::Vec3d(100, y, 600)), rounding) << "the axis rests";
    // A point of the object 10 mm to the right of the axis goes, by 90 degrees right-handed about -y, 10 mm farther
    // off.
    const cv::Vec3d before(110, 0, 600), after(100, 0, 610);
    EXPECT_LT(cv::norm(poses.common_from_camera[1] * after - before), rounding);
    const ViewPoses listed = read("t.yml", head + axis + "angles_deg: [ 0., 90, 180. ]\n", { "a", "b", "c" });
    for (std::size_t i = 0; i < 3; ++i)
        EXPECT_LT(cv::norm(listed.common_from_camera[i].matrix - poses.common_from_camera[i].matrix), rounding);
    const std::string in_metres
        = "axis_point: [ 0.1, 0.05, 0.6 ]\naxis_direction: [ 0., -1., 0. ]\nunit: m\nstep_deg: 90\n";
    const ViewPoses same = read("t.yaml", head + in_metres, { "a", "b" });
    EXPECT_LT(cv::norm(same.common_from_camera[1].matrix - poses.common_from_camera[1].matrix), rounding);
}

TEST_F(ViewPosesFiles, ATurntableThatCannotBeIsRefused)
{
    for (const std::string& text : { axis, axis + "step_deg: 0\n", axis + "step_deg: 361.\n", axis + "step_deg: .nan\n",
             axis + "step_deg: much\n", axis + "step_deg: 90\nangles_deg: [ 0., 90. ]\n", axis + "angles_deg: [ 0. ]\n",
             axis + "angles_deg: [ 0., .inf ]\n", axis + "angles_deg: [ 0., a ]\n", axis + "unit: feet\nstep_deg: 90\n",
             std::string("axis_point: [ 1., 2., 3. ]\naxis_direction: [ 0., 0., 0. ]\nstep_deg: 90\n"),
             std::string("axis_point: [ 1., 2. ]\naxis_direction: [ 0., 1., 0. ]\nstep_deg: 90\n"),
             std::string("axis_direction: [ 0., 1., 0. ]\nstep_deg: 90\n"), std::string("a: !!binary |\n") })
        EXPECT_TRUE(refused("t.yaml", head + text, { "a", "b" }));
    PoseReadingRequest inverse;
    inverse.inverse = true;
    for (const PoseReadingRequest& request : { PoseReadingRequest { "ZYX" }, PoseReadingRequest { "", true }, inverse })
        EXPECT_TRUE(refused("t.yaml", head + axis + "step_deg: 90\n", { "a", "b" }, request)) << "asks what it ignores";
    EXPECT_TRUE(is_one_line(refusal([&] { read_view_poses(_folder / "none.yaml", { "a" }, {}); })));
}

TEST_F(ViewPosesFiles, ARigidTransformReadsAlikeFromYamlAndFromText)
{
    const std::string numbers = "0.6, 0., 0.8, 10., 0., 1., 0., -20., -0.8, 0., 0.6, 30.5, 0., 0., 0., 1.";
    const cv::Matx44d right(0.6, 0, 0.8, 10, 0, 1, 0, -20, -0.8, 0, 0.6, 30.5, 0, 0, 0, 1);
    const std::string yaml
        = head + "RT: !!opencv-matrix\n   rows: 4\n   cols: 4\n   dt: d\n   data: [ " + numbers + " ]\n";
    std::string blanks, lines = "# robot\r\n" + numbers + "\r\n";
    for (const char c : numbers)
        blanks += c == ',' ? '\n' : c;
    for (const std::string& text : { yaml, numbers, blanks, lines })
        EXPECT_LT(cv::norm(rigid(text) - right), 1e-12) << text;
    EXPECT_LT(cv::norm(inverse_of_rigid(right) * right - cv::Matx44d::eye()), rounding);
}

TEST_F(ViewPosesFiles, WhatBendsScalesMirrorsOrIsNotFiniteIsNoRigidTransform)
{
    const std::string shift = ",5,0,1,0,6,0,0,1,7,0,0,0,1";
    EXPECT_EQ(refusal([&] { rigid("1,0,0" + shift); }), "");
    for (const std::string& text : { "1.001,0,0" + shift, "-1,0,0" + shift, "1,0.01,0" + shift, "nan,0,0" + shift,
             "1,0,0,inf" + shift.substr(2), "1,0,0,1e400" + shift.substr(2), "1,0,0" + shift + ",1", "1,0" + shift,
             "1,0,0" + shift.substr(0, shift.size() - 1) + "2", "1,0,x" + shift, std::string("\0\xFF", 2),
             std::string("RT: [ 1, 2, 3 ]\n"), head + "RT: 5\n", std::string(100000, '1'), std::string(90000, '\n') }) {
        const std::string why = refusal([&] { rigid(text); });
        EXPECT_TRUE(is_one_line(why) && why.rfind(_folder / "rt", 0) == 0) << text.substr(0, 100) << ": " << why;
    }
}

} // namespace
