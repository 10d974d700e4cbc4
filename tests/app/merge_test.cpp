#include "program.h"

namespace {

/// A bust on a turntable, from six sides; three of them are used.
class Merge : public program::Suite {
protected:
    static void SetUpTestSuite()
    {
        program::Suite::SetUpTestSuite();
        ASSERT_EQ(run("simulate bust --turntable 6 --size 320x256 --period 16 --quiet --out " + at("v")).code, 0);
        for (const char* view : { "view5", "view0", "view1", "view3" })
            ASSERT_EQ(run("measure " + at("v/") + view + " --quiet --out " + at("r/") + view).code, 0) << view;
    }
    static std::string three() { return at("r/view5") + " " + at("r/view0") + " " + at("r/view1"); }
    static std::string merge(const std::string& results, const std::string& poses)
    {
        return results + " --poses " + poses + " --out " + at("m");
    }
    /// The file of the simulator's poses with one word in place of another.
    static std::string changed(const std::string& file, const std::string& from, const std::string& to)
    {
        std::string text = program::read(at("v/" + file));
        text.replace(text.find(from), from.size(), to);
        program::write(at("changed_" + file), text);
        return at("changed_" + file);
    }
};

TEST_F(Merge, MakesOneCloudInTheFrameOfThePosesOfWhichEachPointKnowsItsView)
{
    const auto by_name = told("merge", merge(three(), at("v/poses.csv")));
    std::size_t kept = 0;
    for (const auto& view : by_name["views"]) {
        kept += view["kept"].get<std::size_t>();
        EXPECT_LT(view["moved"]["mm"], 0.15)
            << "the poses are true: the noise of 0.1 mm of thousands of points is left";
        EXPECT_GT(view["doubled"], 1000);
    }
    EXPECT_EQ(by_name["points"], kept);
    const std::string ply = program::read(at("m/cloud.ply"));
    const std::size_t header = ply.find("end_header\n") + 11, stride = 6 * 4 + 3 + 4 + 1;
    ASSERT_EQ(ply.size(), header + kept * stride);
    EXPECT_NE(ply.substr(0, header).find("property uchar view"), std::string::npos);
    std::array<std::size_t, 3> of_view {};
    for (std::size_t i = header; i < ply.size(); i += stride)
        ++of_view.at(static_cast<unsigned char>(ply[i + stride - 1]));
    for (std::size_t i = 0; i < 3; ++i)
        EXPECT_EQ(of_view[i], by_name["views"][i]["kept"]);
    EXPECT_EQ(told("info", at("m"))["points"], kept);
    // The turntable's file knows no names: its order is that of the results, view5 the first.
    const auto by_axis = told("merge", merge(three(), at("v/turntable.yaml")) + " --also whole.stl cloud.glb");
    const std::size_t stl_head = 84, a_triangle = 50;
    EXPECT_EQ(program::read(at("m/whole.stl")).size(),
        stl_head + a_triangle * by_axis["mesh"]["triangles"].get<std::size_t>());
    EXPECT_EQ(program::read(at("m/cloud.glb")).substr(0, 4), "glTF");
    EXPECT_NEAR(by_axis["points"].get<double>(), static_cast<double>(kept), 0.01 * static_cast<double>(kept));
}

TEST_F(Merge, RefusesWhatDoesNotFitByNameAndSaysHowThePosesWouldBeRead)
{
    const std::string poses = at("v/poses.csv"), axis = at("v/turntable.yaml"), nothing = at("m2");
    const auto refused = [&](const std::string& arguments, const std::string& why) {
        program::expect_refused(*work, "merge " + arguments + " --out " + nothing, why, nothing);
    };
    refused(three() + " --poses " + changed("turntable.yaml", "step_deg: ", "step_deg: -"), "the other way round");
    refused(three() + " --poses " + changed("turntable.yaml", "%YAML:1.0", ""), "%YAML:1.0");
    refused(three() + " --inverse --poses " + poses, "without --inverse");
    refused(three() + " --unit m --poses " + poses, "--unit mm");
    refused(three() + " --rectified --poses " + poses, "without --rectified");
    refused(at("r/view0") + " " + at("r/view3") + " --poses " + poses, "view3");
    refused(at("r/view1") + " " + at("r/view0") + " --poses " + axis, "do not fit");
    refused(at("r/view0") + " " + at("r/../r/view0") + " --poses " + poses, "named twice");
    refused(at("r/view0") + " --poses " + poses, "two results");
    refused(three(), "--poses FILE or --board FILE");
    refused(three() + " --poses " + axis + " --also up/mesh.glb", "give the name of a file");
    refused(three() + " --poses " + axis + " --also mesh.ply", "is written already");
    refused(three() + " --poses " + axis + " --also mesh.max", "names no format");
    refused(three() + " --poses " + changed("poses.csv", "view5", "other"), "but not view5");
    refused(three() + " --poses " + changed("turntable.yaml", "step_deg: 60", "angles_deg: [ 0, 60 ]"), "3 numbers");
    std::filesystem::copy(at("r/view0"), at("r/copy"), std::filesystem::copy_options::recursive);
    refused(at("r/view0") + " " + at("r/copy") + " --poses " + axis, "same frames");
    std::string report = program::read(at("r/copy/report.json"));
    report.replace(report.find("\"unit\": \"mm\""), 12, "\"unit\": \"cm\"");
    program::write(at("r/copy/report.json"), report);
    refused(at("r/view0") + " " + at("r/copy") + " --poses " + axis, "is in cm");
}

TEST_F(Merge, FindsThePosesByTheBoardThatStandsBesideTheObjectWhileItsFramesAreUnchanged)
{
    const std::string plates = at("p/a") + " " + at("p/b");
    for (const char* name : { "a --turned 20", "b --turned -20" })
        ASSERT_EQ(run("simulate plate --size 640x512 --quiet --out " + at("s/") + name).code, 0);
    for (const char* name : { "a", "b" })
        run("measure " + at("s/") + name + " --quiet --out " + at("p/") + name);
    ASSERT_EQ(run("board --quiet --out " + at("board.pdf")).code, 0);
    const auto m = told("merge", plates + " --accept-verdict --board " + at("board.yaml") + " --out " + at("mp"));
    EXPECT_LT(m["views"][1]["moved"]["mm"], 0.2) << "285 markers of 0.02 px, at 600 mm";
    EXPECT_LT(m["views"][1]["moved"]["deg"], 0.05);
    EXPECT_GT(m["pairs"][0]["overlap"], 0.5);
    std::filesystem::copy_file(
        at("s/b/cam0/frame00.png"), at("s/b/cam0/frame01.png"), std::filesystem::copy_options::overwrite_existing);
    program::expect_refused(*work, "merge " + plates + " --board " + at("board.yaml") + " --out " + at("mq"),
        "was changed since", at("mq"));
}

} // namespace
