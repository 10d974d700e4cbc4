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
    program::expect_refused(*work, convert + at("r/cloud.ply"), "belongs to vexo measure");
    program::write(at("r/mesh.obj"), "the user's");
    program::expect_refused(*work, convert + at("r/mesh.obj"), "did not write it");
    ASSERT_EQ(run(measure).code, 0);
    EXPECT_FALSE(std::filesystem::exists(at("r/mesh.stl")) || std::filesystem::exists(at("r/cloud.pcd")));
    EXPECT_EQ(program::read(at("r/mesh.obj")), "the user's");
    for (const auto& [arguments, why] : std::vector<std::pair<const char*, const char*>> { { "mesh.step", ".glb" },
             { "mesh.ply --every 2", "--points" }, { "a.ply --every 0", "1 or more" },
             { "a.xyz --mesh", "no triangles" }, { "mesh.ply --frame board", "boardRT.yaml" },
             { "mesh.ply --box 0 0 0 1 1 1", "the cloud spans" }, { "mesh.ply --box 0 0 0 1 1 -1", "each 1 above" } })
        program::expect_refused(*work, convert + at(arguments), why, at("mesh.ply"));
}

} // namespace
