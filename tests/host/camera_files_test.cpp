#include "base/failure.h"
#include "base/whole_file.h"
#include "host/cameras/camera_file.h"
#include "host/cameras/stereo.h"
#include "sim/capture.h"
#include "support/folder.h"

#include <gtest/gtest.h>

#include <filesystem>

namespace {

using namespace vexo;

/// Camera files of a small rig of the simulator, opened as a host does.
class CameraFiles : public testing::Test {
protected:
    static constexpr int width = 320, height = 256;

    CameraFiles()
    {
        sim::RigOptions rig;
        rig.image_size = { width, height };
        text = sim::cameras_yaml(sim::make_rig(rig));
    }
    std::string put(const std::string& name, const std::string& bytes) const
    {
        std::filesystem::create_directories(std::filesystem::path(folder / name).parent_path());
        EXPECT_TRUE(write_file(folder / name, bytes));
        return folder / name;
    }
    static StereoCameraParam param()
    {
        StereoCameraParam p;
        p.inp_width = width;
        p.inp_height = height;
        return p;
    }
    static std::string why_refused(const std::vector<std::string>& files)
    {
        try {
            open_stereo(files, param());
        } catch (const Failure& failure) {
            return failure.what();
        }
        return "";
    }

    Folder folder;
    std::string text;
};

TEST_F(CameraFiles, SayUnitAndVerdictInTheirLastKeysAndABaselineThatLooksLikeAnotherUnitIsAskedAbout)
{
    const std::string bare = text.substr(0, text.rfind("unit:"));
    const struct {
        std::string keys, unit, unit_said, finding;
        Weight weight;
    } cases[] = { { "unit: mm\n", "", "mm", "", Weight::good }, { "", "", "mm", "", Weight::good },
        { "unit: m\n", "", "m", "unit", Weight::worse }, { "unit: um\n", "", "um", "unit", Weight::worse },
        { "unit: um\n", "mm", "mm", "", Weight::good }, { "verdict: good\n", "", "mm", "", Weight::good },
        { "unit: mm\nverdict: usable\n", "", "mm", "calibration", Weight::worse },
        { "unit: mm\nverdict: \"not good enough\"\n", "", "mm", "calibration", Weight::spoils } };
    for (const auto& c : cases) {
        const Stereo stereo = open_stereo({ put("cameras.yaml", bare + c.keys) }, param(), c.unit);
        const std::vector<Finding> findings = judge_calibration(stereo);
        EXPECT_EQ(stereo.notes.unit.name, c.unit_said) << c.keys;
        EXPECT_EQ(stereo.notes.unit.stated, c.keys.find("unit") == 0 || !c.unit.empty()) << c.keys;
        EXPECT_EQ(heaviest(findings), c.weight) << c.keys;
        EXPECT_EQ(findings.empty() ? "" : findings[0].name, c.finding) << c.keys;
    }
    for (const char* keys : { "unit: furlong\n", "unit: 3\n", "unit: mm\nunit: m\n", "verdict: fine\n" })
        EXPECT_NE(why_refused({ put("cameras.yaml", bare + keys) }).find("cameras.yaml"), std::string::npos) << keys;
}

/// A rig in all the forms in which others have it; each in a folder of its own.
class ForeignCameraFiles : public CameraFiles {
protected:
    void SetUp() override
    {
        const std::string cameras = put("ours/cameras.yaml", text);
        const auto pair = read_cameras(std::vector<std::string> { cameras });
        const auto matrix = [](const char* key, const cv::Mat& m) {
            cv::FileStorage storage(".yml", cv::FileStorage::WRITE | cv::FileStorage::MEMORY);
            cv::write(storage, key, m);
            return storage.releaseAndGetString().substr(std::string("%YAML:1.0\n---\n").size());
        };
        const cv::Matx33d R = pair[1].R * pair[0].R.t();
        intrinsics = "%YAML:1.0\n---\n" + matrix("M1", cv::Mat(pair[0].K)) + matrix("D1", pair[0].D)
            + matrix("M2", cv::Mat(pair[1].K)) + matrix("D2", pair[1].D);
        extrinsics = "%YAML:1.0\n---\n" + matrix("R", cv::Mat(R)) + matrix("T", cv::Mat(pair[1].T - R * pair[0].T))
            + matrix("R1", cv::Mat(R)) + matrix("Q", cv::Mat::eye(4, 4, CV_64F));
        put("opencv/intrinsics.yml", intrinsics);
        put("opencv/extrinsics.yml", extrinsics);
    }
    std::string intrinsics, extrinsics;
};

TEST_F(ForeignCameraFiles, OpenAsTheSamePairAndSayNoUnitOfTheirOwn)
{
    const Stereo ours = open_stereo({ folder / "ours" }, param());
    EXPECT_TRUE(ours.notes.unit.stated);
    const std::string in = folder / "opencv/intrinsics.yml", ex = folder / "opencv/extrinsics.yml";
    for (const std::vector<std::string>& named :
        { std::vector<std::string> { folder / "opencv" }, { in, ex }, { ex, in }, { in }, { ex } }) {
        const Stereo theirs = open_stereo(named, param());
        EXPECT_FALSE(theirs.notes.unit.stated);
        EXPECT_EQ(theirs.geometry.f, ours.geometry.f) << named[0];
        EXPECT_EQ(theirs.geometry.slope, ours.geometry.slope) << named[0];
        EXPECT_EQ(cv::norm(*theirs.rectifying_rotation - *ours.rectifying_rotation), 0.0);
    }
    const Geometry rectified = open_rectified({ 400, 150, 120, 0.16 }, param(), "m").geometry;
    EXPECT_NEAR(rectified.f, 400, 1e-6);
    EXPECT_NEAR(rectified.cx, 150, 1e-4); // OpenCV rectifies corners in floats
    EXPECT_NEAR(rectified.cy, 120, 1e-4);
    EXPECT_NEAR(rectified.depth(64), 1.0, 1e-9); // 400 px * 0.16 m / 64 px
}

TEST_F(ForeignCameraFiles, ThatAreDamagedOrIncompleteAreRefusedByNameAndKey)
{
    const auto without = [](std::string yaml, const std::string& what, const std::string& instead) {
        return yaml.replace(yaml.find(what), what.size(), instead);
    };
    const struct {
        std::string in, ex, named;
    } cases[] = { { without(intrinsics, "M2:", "M3:"), extrinsics, "no key M2" },
        { intrinsics, without(extrinsics, "T:", "U:"), "no key T" }, { intrinsics, intrinsics, "both have the key" },
        { intrinsics, extrinsics.substr(0, extrinsics.size() / 2), "b/x.yml" },
        { without(intrinsics, "rows: 3", "rows: 1"), extrinsics, "M1" },
        { without(intrinsics, "data: [ ", "data: [ -"), extrinsics, "M1" },
        { intrinsics, without(extrinsics, "data: [ ", "data: [ 7"), "R is no rotation" } };
    for (const auto& c : cases) {
        const std::string why = why_refused({ put("a/i.yml", c.in), put("b/x.yml", c.ex) });
        EXPECT_NE(why.find(c.named), std::string::npos) << c.named << ": " << why;
        EXPECT_EQ(why.find('\n'), std::string::npos) << why;
    }
    EXPECT_NE(why_refused({ folder / "a/i.yml" }).find("give extrinsics.yml"), std::string::npos);
    EXPECT_NE(why_refused({ folder / "b" }).find("holds no calibration"), std::string::npos);
    EXPECT_THROW(open_rectified({ 400, 150, 999, 0.16 }, param()), UsageFailure);
}

} // namespace
