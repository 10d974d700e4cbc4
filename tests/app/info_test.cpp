#include "program.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <cstdint>
#include <cstring>

namespace {

using Json = nlohmann::json;
using program::Outcome;

template <class T> std::string bytes_of(const std::vector<T>& values)
{
    std::string bytes(values.size() * sizeof(T), '\0');
    std::memcpy(bytes.data(), values.data(), bytes.size());
    return bytes;
}

TEST(Info, TellsTheKindOfEachFileTheLibraryWritesAndItsFigures)
{
    const program::Folder work;
    // f = 1000, camera 1 stands 50 to the right: 12 numbers of a projection matrix
    program::write(work / "right.hmat", bytes_of<double>({ 1000, 0, 320, -50000, 0, 1000, 240, 0, 0, 0, 1, 0 }));
    const std::string table = bytes_of<std::int32_t>({ 5, 3, 3, 0 }) + std::string(40, '\0');
    program::write(work / "maps", table + table);
    const std::string bare = bytes_of<std::int32_t>({ 9, 0 }) + std::string(40, '\0');
    program::write(work / "tables", bare + bare + bare + bare);
    program::write(work / "cloud.ply",
        "ply\nformat binary_little_endian 1.0\nelement vertex 1\nproperty float x\nproperty float y\n"
        "property float z\nend_header\n"
            + bytes_of<float>({ 1, 2, 600 }));
    const std::string Q = "%YAML:1.0\n---\nStereoName: stereo\noldcamSize: [ 640, 480 ]\nQ: !!opencv-matrix\n"
                          "   rows: 4\n   cols: 4\n   dt: d\n   data: [ 1., 0., 0., -320., 0., 1., 0., -240.,\n"
                          "       0., 0., 0., 1000., 0., 0., 0.02, 0. ]\n";
    program::write(work / "stereo.yaml", Q);

    const auto info = [&work](const std::string& arguments) {
        const Outcome run = program::run(work, "info --json " + arguments);
        EXPECT_EQ(run.code, 0) << run.err;
        return run.code == 0 ? Json::parse(run.out) : Json {};
    };
    const Json hmat = info(work / "right.hmat");
    EXPECT_EQ(hmat["kind"], "projection matrix (hmat)");
    EXPECT_NEAR(hmat["fx"].get<double>(), 1000, 1e-9);
    EXPECT_NEAR(hmat["centre"][0].get<double>(), 50, 1e-9);
    EXPECT_EQ(info(work / "maps")["tables"].size(), 2U);
    EXPECT_EQ(info(work / "tables")["kind"], "rectification tables of an hmat set");
    EXPECT_NEAR(info(work / "cloud.ply")["depth"]["q50"].get<double>(), 600, 0);
    const Json stereo = info(work / "stereo.yaml --depth 500:1000");
    EXPECT_NEAR(stereo["baseline"].get<double>(), 50, 1e-9);
    EXPECT_NEAR(stereo["disparity_range"]["min_disparity"].get<double>(), 50, 1e-9);
    EXPECT_NEAR(stereo["disparity_range"]["max_disparity"].get<double>(), 100, 1e-9);
}

TEST(Info, SaysWhatAFolderIsWhetherItIsWholeAndWhatItsCamerasSee)
{
    const program::Folder work;
    ASSERT_EQ(program::run(work, "simulate plane --size 320x256 --quiet --out " + work / "scan").code, 0);
    ASSERT_EQ(program::run(work, "measure --quiet " + work / "scan --out " + work / "result").code, 0);
    Json info = Json::parse(program::run(work, "info --json " + work / "scan").out);
    EXPECT_EQ(info["whole"], true);
    EXPECT_NEAR(info["depth"].get<double>(), 600, 15); // the rig looks at the plane's middle, 600 mm away
    EXPECT_NEAR(info["field_of_view"][0].get<double>(), 320 * info["per_px"].get<double>(), 1e-6);
    info = Json::parse(program::run(work, "info --json " + work / "result").out);
    EXPECT_EQ(info["kind"], "result of a measurement");
    EXPECT_GT(info["expected_sigma"].get<double>(), 0.0);

    program::write(work / "scan/cam1/frame04.png", "x");
    std::filesystem::remove(work / "result/report.json");
    const Outcome changed = program::run(work, "info " + work / "scan");
    EXPECT_EQ(changed.code, 1);
    EXPECT_NE(changed.out.find("changed: cam1/frame04.png"), std::string::npos) << changed.out;
    EXPECT_EQ(program::run(work, "info " + work / "result").code, 1);
    program::expect_refused(work, "info " + work / "scan/cam0", "holds nothing");
}

TEST(Info, HostileFilesGetOneLineAndExitCodeOne)
{
    const program::Folder work;
    const std::string yaml = "%YAML:1.0\n---\n";
    const std::string files[] = {
        std::string(96, '\xFF'), // NaN in an hmat
        std::string(96, '\0'),   // singular
        bytes_of<std::int32_t>({ 5, 30000, 30000, 0 }),
        bytes_of<std::int32_t>({ 5, -1, 3, 0 }),
        bytes_of<std::int32_t>({ 0x7FFFFFFF, 0, 0, 0 }),
        yaml,
        yaml + "cam0_K: 3\n",
        yaml + "cam0_K: !!opencv-matrix\n   rows: 2\n   cols: 2\n   dt: d\n   data: [ 1., 2. ]\n",
        yaml + "StereoName: x\nQ: 1\n",
        "ply\n",
        "ply\nformat binary_little_endian 1.0\nelement vertex 4000000000\nproperty float x\nproperty float y\n"
        "property float z\nend_header\n",
        "ply\nformat binary_little_endian 1.0\nelement vertex 1\nend_header\n",
        "ply\nformat binary_little_endian 1.0\nelement vertex 1\nproperty list uchar int x\nend_header\n",
    };
    for (const std::string& bytes : files) {
        SCOPED_TRACE(bytes.substr(0, 80));
        program::write(work / "hostile", bytes);
        program::expect_refused(work, "info " + work / "hostile", "hostile");
    }
}

TEST(Help, EveryCommandShowsAnExampleAndTheCommonOptions)
{
    const program::Folder work;
    for (const char* command : { "simulate", "measure", "compare", "info" }) {
        const Outcome run = program::run(work, std::string(command) + " --help");
        EXPECT_EQ(run.code, 0) << command;
        EXPECT_NE(run.out.find(std::string("Example:\n  vexo ") + command), std::string::npos) << run.out;
        for (const char* option : { "--json", "--quiet", "--threads" })
            EXPECT_NE(run.out.find(option), std::string::npos) << command << " " << option;
    }
}

} // namespace
