#include "program.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <opencv2/imgcodecs.hpp>

namespace {

namespace fs = std::filesystem;
using Json = nlohmann::json;
using program::Outcome;

/// Small captures of the bust: fringes of 32 projector px are about 11 camera px long, as of a full-size rig.
class Check : public program::Suite {
protected:
    /// Simulates once for each name.
    static void simulate(const std::string& name, const std::string& options)
    {
        if (fs::exists(at(name))) return;
        const Outcome made = run("simulate --size 480x384 --period 16 --quiet " + options + " --out " + at(name));
        ASSERT_EQ(made.code, 0) << made.err;
    }

    static std::string frame(const std::string& name, int camera, int k)
    {
        return program::frame_of(at(name), camera, k);
    }

    static void exchange(const std::string& name, int camera, int i, int k)
    {
        fs::rename(frame(name, camera, i), at("moved.png"));
        fs::rename(frame(name, camera, k), frame(name, camera, i));
        fs::rename(at("moved.png"), frame(name, camera, k));
    }

    /// What check says of a folder; its code must be 1 exactly when the capture is not usable.
    static Json check(const std::string& folder, const std::string& options = "")
    {
        const Outcome o = run("check --json " + folder + " --out " + at("checked") + options);
        const Json json = Json::parse(o.out, nullptr, false);
        EXPECT_FALSE(json.is_discarded()) << o.err;
        const bool usable = json["verdict"].get<std::string>().rfind("not usable", 0) != 0;
        EXPECT_EQ(o.code, usable ? 0 : 1) << json["verdict"] << o.err;
        EXPECT_EQ(usable, o.err.empty()) << o.err;
        EXPECT_EQ(json, Json::parse(program::read(at("checked/check.json"))));
        return json;
    }

    static std::string text_of(const Json& json, const std::string& name, int camera)
    {
        const std::string where = camera < 0 ? "" : "camera " + std::to_string(camera);
        for (const Json& finding : json["findings"]) {
            if (finding["name"] != name || finding["where"] != where) continue;
            const std::string text = finding["text"], advice = finding["advice"];
            return advice.empty() ? text : text + "; " + advice;
        }
        return "";
    }
};

TEST_F(Check, CallsAnOrdinaryCaptureGoodAndTellsTheNoiseThatWasSimulated)
{
    simulate("bust", "bust");
    const Json json = check(at("bust"));
    EXPECT_EQ(json["verdict"], "good") << json.dump(1);
    for (const Json& camera : json["cameras"]) {
        // 1.6 grey levels at grey 128 by the options; read noise of about 1.0 in the dark, plus 8-bit rounding
        EXPECT_NEAR(camera["noise"]["dark"].get<double>(), 1.06, 0.12);
        EXPECT_NEAR(camera["noise"]["fringes"].get<double>(), 1.45, 0.25);
        EXPECT_NEAR(camera["residual"]["second_harmonic"].get<double>(), 0, 0.005);
        EXPECT_GT(camera["fringes_that_fit"].get<double>(), 0.97);
    }
    EXPECT_NEAR(json["gamma"].get<double>(), 1, 0.03);
    for (const char* name : { "exposure0.png", "exposure1.png", "modulation0.png", "modulation1.png", "residual0.png",
             "residual1.png", "modulation_histogram.png" })
        EXPECT_FALSE(cv::imread(at("checked/") + name).empty()) << name;
}

TEST_F(Check, MeasuresTheGammaThatWasSimulatedAndItsTableMakesTheNextCaptureLinear)
{
    simulate("gamma", "plane --gamma 2.2");
    const Json json = check(at("gamma"));
    EXPECT_NEAR(json["gamma"].get<double>(), 2.2, 0.05); // the fringes' mean, which noise and blur leave alone
    EXPECT_NE(text_of(json, "non-linear", 0).find("gamma 2.2"), std::string::npos) << json["findings"].dump(1);
    EXPECT_EQ(json["verdict"].get<std::string>().rfind("usable, but non-linear", 0), 0U) << json["verdict"];
    const Json table = Json::parse(program::read(at("checked/gamma_table.json")));
    for (int i = 0; i < 256; i += 15)
        EXPECT_NEAR(255 * std::pow(table["table"][static_cast<std::size_t>(i)].get<double>() / 255, 2.2), i, 5) << i;
    EXPECT_EQ(run("patterns --quiet --out " + at("p") + " --gamma-table " + at("checked/gamma_table.json")).code, 0);
}

TEST_F(Check, NamesExchangedFrames)
{
    simulate("plane", "plane");
    // dark with lit; gray planes coarse and fine; a plane with a fringe frame; fringe frames next to each other and
    // opposite ones, which leave the residual at zero
    const int pairs[][2] = { { 0, 1 }, { 2, 4 }, { 7, 8 }, { 5, 11 }, { 1, 6 }, { 9, 10 }, { 9, 11 }, { 10, 12 } };
    for (const auto& pair : pairs) {
        copy("plane", "spoilt");
        exchange("spoilt", 1, pair[0], pair[1]);
        const Json json = check(at("spoilt"));
        const std::string expected = fs::path(frame("", 1, pair[0])).filename().string() + " and "
            + fs::path(frame("", 1, pair[1])).filename().string() + " are exchanged; exchange their names";
        EXPECT_EQ(text_of(json, "out-of-order", 1), expected) << json["findings"].dump(1);
        EXPECT_EQ(text_of(json, "out-of-order", 0), "");
    }
}

TEST_F(Check, NamesMissingFramesAndFramesOfAnotherSize)
{
    simulate("plane", "plane");
    copy("plane", "spoilt");
    fs::remove(frame("spoilt", 0, 5));
    EXPECT_NE(text_of(check(at("spoilt")), "frames-missing", 0).find("number 5 is missing"), std::string::npos);
    copy("plane", "spoilt");
    fs::remove(frame("spoilt", 0, 12));
    EXPECT_NE(text_of(check(at("spoilt")), "frames-missing", 0).find("number 12 is missing"), std::string::npos);
    copy("plane", "spoilt");
    cv::imwrite(frame("spoilt", 1, 3), cv::Mat(100, 200, CV_8U, cv::Scalar(7)));
    EXPECT_NE(text_of(check(at("spoilt")), "mixed-size", 1).find("frame03.png is 200 x 100"), std::string::npos);
}

TEST_F(Check, NamesWrongExposures)
{
    simulate("bright", "plane --exposure 1.6");
    simulate("dim", "plane --exposure 0.12");
    EXPECT_NE(text_of(check(at("bright")), "over-exposed", 0).find("at 255"), std::string::npos);
    const Json dim = check(at("dim"));
    EXPECT_NE(text_of(dim, "under-exposed", 1).find("expose more"), std::string::npos);
    EXPECT_EQ(text_of(dim, "moving-scene", 0), "");
}

// The bust steps back by 10 mm before a frame: between gray code frames, before the fringes, between the fringes.
TEST_F(Check, NamesASceneThatMoved)
{
    simulate("bust", "bust");
    simulate("farther", "bust --distance 610");
    for (const int first : { 4, 9, 11 }) {
        copy("bust", "spoilt");
        for (int k = first; k < 13; ++k)
            for (const int camera : { 0, 1 })
                fs::copy(frame("farther", camera, k), frame("spoilt", camera, k), fs::copy_options::overwrite_existing);
        EXPECT_NE(text_of(check(at("spoilt")), "moving-scene", 0), "") << "from frame " << first << " on";
    }
}

// At a third of the full resolution periods of 27 to 31 px are 11 to 13 camera px long.
TEST_F(Check, KnowsMultiPeriodCapturesAndNamesTheirExchangedFrames)
{
    simulate("multi", "plane --method multi-phase --periods 27,29,31");
    const Json good = check(at("multi"), " --periods 27,29,31");
    EXPECT_EQ(good["method"], "multi-phase");
    EXPECT_GT(good["cameras"][0]["fringes_that_fit"].get<double>(), 0.9) << good["cameras"][0].dump(1);
    EXPECT_EQ(text_of(good, "moving-scene", 0) + text_of(good, "out-of-order", 0), "");
    const int pairs[][2] = { { 2, 3 }, { 2, 4 }, { 4, 9 }, { 12, 13 }, { 0, 7 } };
    for (const auto& pair : pairs) {
        copy("multi", "spoilt");
        exchange("spoilt", 0, pair[0], pair[1]);
        const Json json = check(at("spoilt"), " --periods 27,29,31");
        EXPECT_NE(text_of(json, "out-of-order", 0), "") << pair[0] << " and " << pair[1] << json["findings"].dump(1);
    }
}

TEST_F(Check, TellsARealOverExposedCaptureAndAGoodRenderedOne)
{
    const std::string real = VEXO_SOURCE_DIR "/../shared/realdata/";
    if (!fs::exists(real + "gyps_stereo_dental")) GTEST_SKIP() << "no real captures here";
    const Json dental = check(real + "gyps_stereo_dental");
    EXPECT_EQ(dental["verdict"].get<std::string>().rfind("usable, but over-exposed", 0), 0U) << dental["verdict"];
    for (const Json& camera : dental["cameras"]) // 15 to 20 % by the word of those who recorded it
        EXPECT_NEAR(camera["saturated_in_fringes"].get<double>(), 0.16, 0.04);
    EXPECT_EQ(check(real + "render_stereo_bust")["verdict"], "good");
}

} // namespace
