#include "base/failure.h"
#include "host/cameras/robot_poses.h"
#include "support/folder.h"
#include "support/refusal.h"

#include <gtest/gtest.h>

#include <cmath>
#include <random>

namespace {

using namespace vexo;

/// A file of its own for each text.
class RobotPoses : public testing::Test {
protected:
    RobotPoseFile read(const std::string& text)
    {
        put(_path, text);
        return read_robot_poses(_path);
    }
    std::string why_not(const std::string& text)
    {
        return refusal([&] { read(text); });
    }
    std::string why_unread(const std::string& text, const PoseReadingRequest& request)
    {
        const RobotPoseFile file = read(text);
        return refusal([&] { reading_of(file, request); });
    }
    cv::Affine3d pose(const std::string& text, const PoseReadingRequest& request = {})
    {
        const RobotPoseFile file = read(text);
        return robot_pose(file.rows.front(), reading_of(file, request)).value();
    }
    /// Whether a text is refused in one line that names the file and the line.
    testing::AssertionResult refused_at(int line, const std::string& text)
    {
        const std::string why = why_not(text);
        if (!is_one_line(why)) return testing::AssertionFailure() << "not one line: " << why.substr(0, 1000);
        if (why.find(_path + ": line " + std::to_string(line) + ": ") == 0) return testing::AssertionSuccess();
        return testing::AssertionFailure() << why;
    }

private:
    Folder _folder;
    std::string _path = _folder / "poses.csv";
};

const std::string header = "picture,x,y,z,qx,qy,qz,qw\n";
const std::string row = "a.png,100,-200,300.5,0,0,0,1\n";

TEST_F(RobotPoses, OneFileReadsAlikeHoweverASpreadsheetWroteIt)
{
    const std::string body = "7 100 -200 300.5 0 0.6 0 0.8\n";
    const auto with = [&](const std::string& between, const std::string& end) {
        std::string text;
        for (const char c : "picture x y z qx qy qz qw\n" + body)
            text += c == ' ' ? between : c == '\n' ? end : std::string(1, c);
        return text;
    };
    const std::vector<std::string> texts { with(",", "\n"), with(";", "\r\n"), with("\t", "\n"), with("   ", "\r\n"),
        "\xEF\xBB\xBF" + with(", ", "\n"), "# from the robot\n\n" + with(",", " # end\n"), with("\",\"", "\n\n\n"),
        with(" ", "\n").substr(0, with(" ", "\n").size() - 1) };
    for (const std::string& text : texts) {
        const RobotPoseFile file = read(text);
        ASSERT_EQ(file.rows.size(), 1U) << text;
        EXPECT_EQ(file.rows[0].picture, "7") << text;
        EXPECT_EQ(file.rows[0].place, cv::Vec3d(100, -200, 300.5)) << text;
        EXPECT_EQ(file.rows[0].rotation, (std::vector<double> { 0, 0.6, 0, 0.8 })) << text;
    }
}

TEST_F(RobotPoses, ColumnsMayStandInAnyOrderAndStrangersAreIgnored)
{
    const auto plain = pose("picture,x,y,z,qx,qy,qz,qw\np,1,2,300,0,0.6,0,0.8\n");
    for (const std::string text : { "qw,qz,qy,qx,z,y,x,picture\n0.8,0,0.6,0,300,2,1,p\n",
             "time,picture,qw,qx,qy,qz,note,x,y,z\nnoon,p,0.8,0,0.6,0,good,1,2,300\n",
             "Picture;QW;QX;QY;QZ;Y [mm];X (mm);Z_mm\np;0.8;0;0.6;0;2;1;300\n" })
        EXPECT_LT(cv::norm(pose(text).matrix - plain.matrix), 1e-12) << text;
}

TEST_F(RobotPoses, WhatTheHeaderSaysOfUnitsIsNotGuessed)
{
    const PoseReadingRequest zyx { "ZYX" };
    const RobotPoseFile file = read("picture,x_m,y_m,z_m,rx_deg,ry_deg,rz_deg\np,1,2,3,1,2,3\n");
    const PoseReading reading = reading_of(file, zyx);
    EXPECT_TRUE(reading.guessed.empty());
    EXPECT_EQ(reading.unit_mm, 1000.0);
    EXPECT_TRUE(reading.rotation.degrees);
    EXPECT_EQ(reading_of(read("picture,x,y,z,rx,ry,rz\np,1,2,3,1,2,3\n"), zyx).guessed.size(), 2U);
    for (const std::string names : { "picture,x_mm,y_m,z,rx,ry,rz", "picture,x_deg,y,z,rx,ry,rz",
             "picture,x,y,z,rx_deg,ry_rad,rz", "picture,x,y,z,rx_mm,ry,rz" })
        EXPECT_TRUE(refused_at(1, names + "\np,1,2,3,1,2,3\n")) << names;
}

TEST_F(RobotPoses, AnInversePoseUndoesThePose)
{
    const std::string text = header + "p,100,-200,300.5,0,0.6,0,0.8\n";
    PoseReadingRequest inverse;
    inverse.inverse = true;
    const cv::Affine3d both = pose(text) * pose(text, inverse);
    EXPECT_LT(cv::norm(both.matrix - cv::Matx44d::eye()), 1e-9); // of places of 300 mm
}

TEST_F(RobotPoses, AMatrixOfSixteenNumbersIsThePoseThatAQuaternionSays)
{
    const std::string numbers = "0.28,0,0.96,100,0,1,0,-200,-0.96,0,0.28,300.5,0,0,0,1";
    const auto same = pose(header + "p,100,-200,300.5,0,0.6,0,0.8\n");
    EXPECT_LT(cv::norm(pose("p," + numbers + "\n").matrix - same.matrix), 1e-12);
    std::string names = "picture";
    for (const char* r : { "0", "1", "2", "3" })
        for (const char* c : { "0", "1", "2", "3" })
            names += std::string(",m") + r + c;
    EXPECT_LT(cv::norm(pose(names + "\np," + numbers + "\n").matrix - same.matrix), 1e-12);
    const std::string transposed = "p,0.28,0,-0.96,0,0,1,0,0,0.96,0,0.28,0,100,-200,300.5,1\n";
    EXPECT_TRUE(refused_at(1, transposed));
    EXPECT_NE(why_not(transposed).find("transposed"), std::string::npos);
    EXPECT_TRUE(refused_at(1, "p,1,0,0,5,0,1,0,5,0,0,1,5,0,0,0,2\n"));
}

TEST_F(RobotPoses, EachDamagedLineIsNamed)
{
    const std::string good = header + row;
    for (const std::string bad :
        { "b.png,1,2,3,0,0,0\n", "b.png,1,2,3,0,0,0,1,9\n", "b.png,1,2,x,0,0,0,1\n", "b.png,1,2,,0,0,0,1\n",
            "b.png,1,2,1e400,0,0,0,1\n", "b.png,1,2,-1e999,0,0,0,1\n", "b.png,1,2,1e307,0,0,0,1\n",
            "b.png,1,2,nan,0,0,0,1\n", "b.png,1,2,inf,0,0,0,1\n", "b.png,1,2,0x10,0,0,0,1\n", "b.png,1,2,3 4,0,0,0,1\n",
            "b.png,1,2,+-3,0,0,0,1\n", "b.png,1,2,++3,0,0,0,1\n", "b.png,1;2;3;0;0;0;1\n", ",1,2,3,0,0,0,1\n",
            "a.png,1,2,3,0,0,0,1\n", "b.png,1.2.3,2,3,0,0,0,1\n", "b.png,1,2,3,0,0,0,1e\n" })
        EXPECT_TRUE(refused_at(3, good + bad)) << bad;
    EXPECT_TRUE(refused_at(5, "\n# a comment\n" + good + "b.png,1\n"));
    EXPECT_NE(why_not("picture;x;y;z;rx;ry;rz\na;1,5;2;3;0;0;0\n").find("decimal point"), std::string::npos);
}

TEST_F(RobotPoses, HeadersThatLackOrDoubleAColumnAreRefused)
{
    for (const std::string names : { "x,y,z,qx,qy,qz,qw", "picture,x,y,qx,qy,qz,qw", "picture,x,y,z,qx,qy,qz",
             "picture,x,y,z,rx,ry,rz,qw", "picture,x,y,z,roll,ry,c", "picture,x,x,y,z,qx,qy,qz,qw",
             "picture,name,x,y,z,qx,qy,qz,qw", "picture,x,y,z", "picture,m00,m01,m02,m03", "picture,x,y,z,rvx,rvy,qz",
             "picture,x,y,z,a,b", "one,two,three", "picture,x,y,z,qx,qy,qz,qw,m00" })
        EXPECT_TRUE(refused_at(1, names + "\n" + row)) << names;
}

TEST_F(RobotPoses, AFileWithoutAPoseSaysSo)
{
    for (const std::string& text : { header, std::string("\n\n"), std::string("# only a comment"),
             std::string("\xEF\xBB\xBF"), std::string(" \t\r\n") }) {
        const std::string why = why_not(text);
        EXPECT_TRUE(is_one_line(why)) << text;
        EXPECT_NE(why.find("no pose"), std::string::npos) << why;
    }
    EXPECT_TRUE(is_one_line(why_not("")));
    EXPECT_TRUE(is_one_line(refusal([] { read_robot_poses("/nowhere/poses.csv"); })));
    EXPECT_TRUE(is_one_line(refusal([] { read_robot_poses("/tmp"); })));
}

TEST_F(RobotPoses, JunkIsRefusedInOneShortLineThatNamesItsLine)
{
    const std::string wide = std::string(100000, ',') + "\n", endless(300000, 'q');
    EXPECT_TRUE(refused_at(1, wide));
    EXPECT_TRUE(refused_at(3, header + row + wide));
    EXPECT_TRUE(refused_at(1, endless));
    EXPECT_TRUE(refused_at(3, header + row + "b.png,1,2," + endless + ",0,0,0,1\n"));
    EXPECT_TRUE(refused_at(3, header + endless + ",1,2,3,0,0,0,1\n" + endless + ",1,2,3,0,0,0,1\n"));
    EXPECT_TRUE(refused_at(1, "picture,x_mm," + endless + ",y_deg,z\n"));
    EXPECT_TRUE(refused_at(3, header + row + "b.png,1,2,\x1B[2J,0,0,0,1\n")) << "a terminal would obey";
    EXPECT_TRUE(refused_at(3, header + row + std::string("b.png,1,2,\0\r9,0,0,0,1\n", 21)));
    std::string old_mac = header + row + row;
    for (char& c : old_mac)
        if (c == '\n') c = '\r';
    EXPECT_TRUE(refused_at(1, old_mac));
}

TEST_F(RobotPoses, NoBytesMakeItCrashOrSayNothing)
{
    std::mt19937 random(5);
    const std::string good = header + row + "b.png,1,2,3,0,0.6,0,0.8\n";
    for (int trial = 0; trial < 100; ++trial) {
        std::string text = good;
        for (int k = 0; k < 1 + trial % 5; ++k)
            text[random() % text.size()] = static_cast<char>(random() % 256);
        const std::string why = why_not(text.substr(0, 1 + random() % text.size()));
        EXPECT_TRUE(why.empty() || is_one_line(why)) << why;
    }
}

TEST_F(RobotPoses, MoreThanTenThousandPosesAreRefusedAtTheFirstTooMany)
{
    std::string text = header;
    for (int i = 0; i < 10000; ++i)
        text += std::to_string(i) + ",1,2,3,0,0,0,1\n";
    EXPECT_EQ(read(text).rows.size(), 10000U);
    EXPECT_TRUE(refused_at(10002, text + "x,1,2,3,0,0,0,1\n"));
}

TEST_F(RobotPoses, ARequestThatTheFileContradictsIsRefusedAndNotFollowed)
{
    const std::string angles = "p,100,2,3,10,20,30\n", quaternion = header + row;
    EXPECT_TRUE(is_one_line(why_unread(angles, {}))) << "nothing says what the three numbers are";
    for (const std::string asked : { "xyzw", "matrix", "ZZY", "zyX", "quaternion" })
        EXPECT_TRUE(is_one_line(why_unread(angles, { asked }))) << asked;
    EXPECT_TRUE(is_one_line(why_unread(quaternion, { "ZYX" })));
    EXPECT_TRUE(is_one_line(why_unread(quaternion, { "", true })));
    EXPECT_TRUE(is_one_line(why_unread("picture,x,y,z,rx,ry,rz\np,100,2,3,10,20,30\n", { "ZYZ" })));
    EXPECT_EQ(why_unread("picture,x,y,z,a,b,c\np,100,2,3,10,20,30\n", { "ZYZ" }), "");
    const std::string why = why_unread(quaternion + "b.png,1,2,3,0,0,0,2\n", {});
    EXPECT_NE(why.find("line 3"), std::string::npos) << why;
}

} // namespace
