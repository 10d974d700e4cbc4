#include "base/failure.h"
#include "base/whole_file.h"
#include "host/cameras/camera_file.h"
#include "host/cameras/stereo.h"
#include "sim/capture.h"
#include "support/folder.h"

#include <gtest/gtest.h>

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

} // namespace
