#include "program.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace {

namespace fs = std::filesystem;
using Json = nlohmann::json;

/// One small bust in stripes of albedo 1/16 to 4, simulated once at three exposures. Upright stripes a dozen px wide
/// are no texture to test rows by: verdicts are accepted.
class ExposuresProgram : public program::Suite {
protected:
    static void SetUpTestSuite()
    {
        Suite::SetUpTestSuite();
        simulated = run("simulate albedo --size 320x256 --period 32 --exposure 0.25,1,4 --quiet --out " + at("E"));
    }
    void SetUp() override { ASSERT_EQ(simulated.code, 0) << simulated.err; }

    static std::string folders() { return at("E/e0.25") + " " + at("E/e4") + " " + at("E/e1"); }

    inline static program::Outcome simulated;
};

TEST_F(ExposuresProgram, FoldersOrTheListInCaptureJsonGiveOneResultThatSaysWhatCameFromWhere)
{
    const Json report = told("measure", "--accept-verdict --exposures " + folders() + " --out " + at("named"));
    double share[2] = { 0.0, 0.0 };
    for (const Json& set : report["exposures"]["sets"]) {
        share[0] += set["share_cam0"].get<double>();
        share[1] += set["share_cam1"].get<double>();
    }
    EXPECT_NEAR(share[0], 1.0, 1e-9);
    EXPECT_NEAR(share[1], 1.0, 1e-9);
    EXPECT_EQ(report["exposures"]["ordered_by"], "exposure_ms");
    EXPECT_EQ(report["exposures"]["sets"][0]["folder"], at("E/e4"));
    EXPECT_EQ(report["made_from"]["cam0"].size(), 39U);
    told("measure", "--accept-verdict " + at("E") + " --out " + at("listed"));
    EXPECT_EQ(told("info", at("E"))["kind"], "one scene at 3 exposures");
    EXPECT_EQ(program::read(at("named/cloud.ply")), program::read(at("listed/cloud.ply")));
    const auto coverage = [](const std::string& result) {
        return told("compare", at(result) + " " + at("E/e1"))["coverage"]["coverage"].get<double>();
    };
    run("measure --quiet --accept-verdict " + at("E/e1") + " --out " + at("single"));
    EXPECT_GT(coverage("named"), coverage("single") + 0.15); // a quarter of the surface is too dark for it
}

TEST_F(ExposuresProgram, WhatCannotBeMergedOrSimulatedIsRefusedInALine)
{
    const std::string out = at("refused"), one = at("E/e1");
    const auto refused = [&](const std::string& arguments, const std::string& why) {
        program::expect_refused(*work, arguments + " --out " + out, why, out);
    };
    refused("measure " + folders(), "several folders: --exposures");
    refused("measure --exposures " + one, "two exposures or more");
    refused("measure --exposures " + one + " " + one, one + " is named twice");
    refused("measure --exposures " + folders() + " --cam0 " + one + "/cam0", "--cam0");
    refused("check " + at("E"), "lists exposures");
    const std::string odd = copy("E/e4", "odd");
    std::ofstream(odd + "/cameras.yaml", std::ios::app) << "# other\n";
    refused("measure --exposures " + one + " " + odd, odd + "/cameras.yaml: is not the calibration in " + one);
    fs::remove_all(odd + "/cam1");
    fs::copy(one + "/cam0", odd + "/cam1");
    fs::copy(one + "/cameras.yaml", odd, fs::copy_options::overwrite_existing);
    refused("measure --exposures " + one + " " + odd, odd + ", " + one + ": are no exposures of one scene");
    refused("measure --exposures " + one + " " + at("E"), at("E/capture.json") + " lists exposures itself");
    for (const char* list : { "1,1.0", "1,0", "1,-4", "1,1000" })
        refused(std::string("simulate plane --size 64x64 --exposure ") + list, "exposure");
    refused("simulate calibration --exposure 1,4", "--exposure: several are for scenes");
}

} // namespace
