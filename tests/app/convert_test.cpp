#include "program.h"

namespace {

class ConvertFiles : public program::Suite { };

TEST_F(ConvertFiles, StandBesideTheirResultUntilItIsMeasuredAnewAndReplaceNothingOfTheUsers)
{
    const std::string measure = "measure " + at("scan") + " --out " + at("r") + " --quiet";
    const std::string convert = "convert " + at("r") + " --to ";
    ASSERT_EQ(run("simulate bust --size 320x256 --period 16 --quiet --out " + at("scan")).code, 0);
    ASSERT_EQ(run(measure).code, 0);
    const nlohmann::json mesh = told("convert", at("r") + " --to " + at("r/mesh.stl"));
    EXPECT_EQ(std::filesystem::file_size(at("r/mesh.stl")), 84 + 50 * mesh["triangles"].get<std::size_t>());
    EXPECT_GT(mesh["triangles"], 20000) << "two for each pixel of a quarter of the picture at least";
    ASSERT_EQ(run(convert + at("r/cloud.pcd") + " --every 3").code, 0);
    ASSERT_EQ(run(convert + at("r/mesh.stl") + " --box -50 -50 0 50 50 2000").code, 0) << "its own is replaced";
    EXPECT_TRUE(std::filesystem::exists(at("r/cloud.pcd"))) << "and no other";
    program::expect_refused(*work, convert + at("r/cloud.ply"), "made of");
    program::write(at("r/mesh.obj"), "the user's");
    program::expect_refused(*work, convert + at("r/mesh.obj"), "did not write it");
    ASSERT_EQ(run(measure).code, 0);
    EXPECT_FALSE(std::filesystem::exists(at("r/mesh.stl")) || std::filesystem::exists(at("r/cloud.pcd")));
    EXPECT_EQ(program::read(at("r/mesh.obj")), "the user's");
    for (const auto& [arguments, why] : std::vector<std::pair<const char*, const char*>> { { "mesh.step", ".glb" },
             { "mesh.ply --every 2", "--points" }, { "mesh.ply --frame ''", "is empty" },
             { "r/cloud.ply --force", "made of" }, { "a.ply --every 0", "1 or more" },
             { "a.xyz --mesh", "no triangles" }, { "mesh.ply --frame board", "boardRT.yaml" },
             { "mesh.ply --box 0 0 0 1 1 1", "the cloud spans" }, { "mesh.ply --box 0 0 0 1 1 -1", "each 1 above" } })
        program::expect_refused(*work, convert + at(arguments), why, at("mesh.ply"));
}

TEST_F(ConvertFiles, SmoothWhereAskedAndSaySo)
{
    const std::string plain = at("scan") + " --out " + at("r"), smooth = at("scan") + " --smooth --out " + at("s");
    ASSERT_EQ(run("simulate bust --size 320x256 --period 16 --quiet --out " + at("scan")).code, 0);
    const nlohmann::json before = told("measure", plain), after = told("measure", smooth);
    EXPECT_GT(after["smoothing"]["points"], 0.8 * after["pixels"]["measured"].get<double>());
    EXPECT_EQ(before["smoothing"]["points"], 0);
    EXPECT_LT(after["sigma"]["q50"].get<double>(), 0.6 * before["sigma"]["q50"].get<double>());
    EXPECT_EQ(after["pixels"], before["pixels"]) << "no point comes or goes";
    EXPECT_NE(program::read(at("s/cloud.ply")).find("smoothed by quadratics"), std::string::npos);
    EXPECT_EQ(program::read(at("r/cloud.ply")).find("smoothed"), std::string::npos);
    EXPECT_EQ(
        told("convert", at("r") + " --smooth --to " + at("r/mesh.glb"))["smoothed"], after["smoothing"]["points"]);
    EXPECT_NE(program::read(at("r/mesh.glb")).find("smoothed by quadratics"), std::string::npos);
    EXPECT_NE(program::read(at("r/mesh.glb")).find("written as x, -y, -z of that frame"), std::string::npos);
    program::expect_refused(*work, "convert " + at("s") + " --smooth --to " + at("a.ply"), "already", at("a.ply"));
    program::write(at("s/report.json"), program::read(at("s/report.json")) + " ");
    program::expect_refused(*work, "convert " + at("s") + " --to " + at("a.ply"), "was changed", at("a.ply"));
    program::expect_refused(*work, "measure " + smooth + " --interpolate", "no sigma");
    program::expect_refused(*work, "measure " + smooth + " --method sgbm", "no meaning for the method sgbm");
}

} // namespace
