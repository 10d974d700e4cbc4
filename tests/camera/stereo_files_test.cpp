// Stereo files, hmat sets and the creation functions.
#include "base/plain_yaml.h"
#include "camera/toed_in_pair.h"
#include "vexo/factories.h"

using rig::max_difference;
using rig::Pair;
using rig::rectify;
using rig::Stereo;
using vexo::StereoCamera;

namespace {

/// open_yaml() without the file.
bool open_text(const std::string& text, cv::FileStorage& fs)
{
    try {
        return vexo::yaml_is_plain(text) && fs.open(text, cv::FileStorage::READ | cv::FileStorage::MEMORY);
    } catch (const cv::Exception&) {
        return false;
    }
}

class StereoFiles : public rig::Folder {
protected:
    Stereo from_yaml(const std::vector<std::string>& files) const
    {
        return Stereo(vexo::create_StereoCamera(files, { 0, 0 }, -1, 0, 10, 20));
    }
    Stereo from_hmats(const std::string& prefix, cv::Size size = { 320, 256 }) const
    {
        return Stereo(vexo::create_StereoCamera_from_Hmats(
            path(prefix + "0"), path(prefix + "1"), path(prefix + "2"), size, 10, 20));
    }
    bool store(const StereoCamera* camera, const std::string& prefix) const
    {
        return vexo::store_StereoCamera_to_Hmats(camera, path(prefix + "0"), path(prefix + "1"), path(prefix + "2"));
    }
    /// Both calibrated cameras in one text, camera 0 first.
    static std::string pair_text(Pair cams)
    {
        cv::FileStorage fs = vexo::memory_yaml();
        EXPECT_TRUE(cams[0].save(&fs) && cams[1].save(&fs));
        return fs.releaseAndGetString();
    }
};

} // namespace

TEST_F(StereoFiles, SavedPairIsReadBackUnderAnyName)
{
    ASSERT_EQ(chdir(folder.c_str()), 0);
    for (const std::string name : { "stereo", "cell 7" }) {
        const Stereo stereo = rectify(rig::pair(), 0, { 200, 100 });
        stereo->name = name;
        stereo->cam0.map_file = "left.map";
        stereo->cam1.map_file = "right.map";
        ASSERT_TRUE(stereo->save(nullptr));
        EXPECT_EQ(stereo->cam1.name, name + "R");

        StereoCamera loaded({ 1, 1 });
        loaded.cam0.map_file = "left.map";
        loaded.cam1.map_file = "right.map";
        loaded.name = name;
        ASSERT_TRUE(loaded.load(nullptr));
        EXPECT_EQ(loaded.name + loaded.cam0.name + loaded.cam1.name, name + name + "L" + name + "R");
        EXPECT_TRUE(loaded.input_size == stereo->input_size && loaded.output_size == stereo->output_size);
        EXPECT_TRUE(same_bits(loaded.Q, stereo->Q) && same_bits(loaded.cam0.K, stereo->cam0.K));
        EXPECT_TRUE(same_bits(loaded.cam0_R2, stereo->cam0_R2) && same_bits(loaded.cam1_R2, stereo->cam1_R2));
        EXPECT_TRUE(same_bits(loaded.cam0.map1, stereo->cam0.map1) && same_bits(loaded.cam1.map2, stereo->cam1.map2));
        EXPECT_TRUE(loaded.cam0.roi == stereo->cam0.roi && loaded.cam1.roi == stereo->cam1.roi);
        // P is composed from K, R and T, not read: rounding of entries to 1e5.
        EXPECT_LT(max_difference(loaded.cam1.P, stereo->cam1.P), 1e-9);
        EXPECT_LT(max_difference(loaded.T, stereo->T), 1e-10);
    }
    StereoCamera loaded({ 1, 1 });
    cv::FileStorage fs;
    ASSERT_TRUE(vexo::open_yaml("cell 7_param.yaml", fs));
    ASSERT_TRUE(loaded.load(&fs)); // "stereo" takes the name in the file
    EXPECT_EQ(loaded.name + loaded.cam0.name, "cell 7cell 7L");
    EXPECT_TRUE(fs.isOpened());
    loaded.name = "absent";
    EXPECT_FALSE(loaded.load(nullptr));
}

TEST_F(StereoFiles, NamesThatAreNoKeysAndTwoCamerasOfOneNameAreNotSaved)
{
    ASSERT_EQ(chdir(folder.c_str()), 0);
    const Stereo stereo = rectify(rig::pair());
    cv::FileStorage fs = vexo::memory_yaml();
    for (const std::string name : { "", "7", "a/b", "a:b" }) {
        stereo->name = name;
        EXPECT_FALSE(stereo->save(nullptr) || stereo->save(&fs)) << name;
        EXPECT_FALSE(exists(name + "_param.yaml"));
    }
    stereo->name = "stereo";
    stereo->cam1.name = stereo->cam0.name;
    EXPECT_FALSE(stereo->save(nullptr));
    EXPECT_FALSE(exists("stereo_param.yaml"));
}

TEST_F(StereoFiles, StereoFileWithoutAnyKeyIsRefusedAndTheCameraKept)
{
    const Stereo stereo = rectify(rig::pair());
    const std::string text = rig::yaml(*stereo);
    const StereoCamera before = *rectify(rig::pair(true, { 40, 32 }));
    testing::internal::CaptureStderr(); // there are no tables
    auto check = [&](const std::string& changed) {
        StereoCamera kept = before;
        cv::FileStorage fs;
        if (open_text(changed, fs) && kept.load(&fs)) return false;
        EXPECT_TRUE(same_bits(kept, before));
        return true;
    };
    EXPECT_FALSE(check(text));
    for (const std::string key : { "StereoName", "stereoL_size", "stereoR_size", "Q", "cam0_R2", "cam1_R2" }) {
        std::string changed = text;
        changed.replace(changed.find("\n" + key + ":") + 1, 1, "x");
        EXPECT_TRUE(check(changed)) << key;
    }
    std::string sizes = text;
    sizes.replace(sizes.find("stereoR_size: [ 320"), 19, "stereoR_size: [ 321");
    EXPECT_TRUE(check(sizes));
    sizes = text;
    sizes.replace(sizes.find("oldcamSize: [ 320"), 17, "oldcamSize: [ -20");
    EXPECT_TRUE(check(sizes));
    sizes.replace(sizes.find("[ -20,"), 6, "[ 1, 2,"); // not two integers: the size is kept
    EXPECT_FALSE(check(sizes));

    testing::internal::GetCapturedStderr();
}

TEST_F(StereoFiles, CamerasUnderTheirPresentNamesAreFoundInAFileWithAnotherStereoName)
{
    const Stereo stereo = rectify(rig::pair());
    std::string text = rig::yaml(*stereo);
    text.replace(text.find("StereoName: stereo"), 18, "StereoName: rig");
    StereoCamera loaded({ 1, 1 });
    testing::internal::CaptureStderr(); // there are no tables
    EXPECT_TRUE(rig::load_text(loaded, text) && rig::load_text(loaded, text));
    EXPECT_EQ(loaded.name + " " + loaded.cam0.name + " " + loaded.cam1.name, "rig stereoL stereoR");
    EXPECT_TRUE(same_bits(loaded.cam1.K, stereo->cam1.K));
    const std::string saved = rig::yaml(loaded); // the present names give way to those of the pair
    EXPECT_NE(saved.find("rigR_K"), std::string::npos);
    EXPECT_FALSE(rig::load_text(loaded, text));
    testing::internal::GetCapturedStderr();
}

TEST_F(StereoFiles, CommentsMayHoldAnyByteAndSizesMayBeWrittenAsReals)
{
    const std::string text = pair_text(rig::pair());
    const std::string odd = std::string(" \t# \xC3\xBC \xFF\x01'\"[{- a: %YAML # \\").append(1, '\0') + "\r";
    std::string noted;
    for (const char c : text)
        noted += c == '\n' ? odd + "\n" + odd + "\n#" + odd + "\n" : std::string(1, c);
    put(path("plain"), text);
    put(path("noted"), noted);
    const Stereo plain = from_yaml({ path("plain") }), commented = from_yaml({ path("noted") });
    ASSERT_TRUE(plain && commented);
    EXPECT_TRUE(same_bits(*plain, *commented));

    cv::FileStorage fs;
    put(path("texts"), "%YAML:1.0\n---\na: \"x # \\\" # y\" # \xFC\nb: x#y\nc: 'x # y'\n");
    ASSERT_TRUE(vexo::open_yaml(path("texts"), fs));
    EXPECT_EQ(fs["a"].string() + "|" + fs["b"].string() + "|" + fs["c"].string(), "x # \" # y|x#y|x # y");
    put(path("outside"), "%YAML:1.0\n---\na: x\xFC # y\n");
    EXPECT_FALSE(vexo::open_yaml(path("outside"), fs));

    const std::string size = "cam0_size: [ 320, 256 ]";
    for (const char* written :
        { "[ 320., 256. ]", "[ 3.2e2, 256 ]", "[ 320.5, 256 ]", "[ 1e300, 256 ]", "[ .Nan, 256. ]" }) {
        put(path("sizes"),
            std::string(text).replace(text.find(size), size.size(), std::string("cam0_size: ") + written));
        EXPECT_EQ(from_yaml({ path("sizes") }) != nullptr,
            written[2] == '3' && std::string(written).find(".5") == std::string::npos)
            << written;
    }
}

TEST_F(StereoFiles, OneFileForBothCamerasIsAsGoodAsTwo)
{
    Pair cams = rig::pair();
    put(path("both"), pair_text(rig::pair()));
    put(path("zero"), rig::yaml(cams[0]));
    put(path("one"), rig::yaml(cams[1]));
    const Stereo direct = rectify(cams);
    const Stereo one = from_yaml({ path("both") });
    const Stereo two = from_yaml({ path("zero"), path("one"), path("absent") });
    ASSERT_TRUE(direct && one && two);
    EXPECT_TRUE(same_bits(*direct, *one) && same_bits(*direct, *two));
    vexo::StereoCameraParam param;
    const std::vector<std::string> files { path("both") };
    for (const int width : { 319, 320 }) { // the factory is told what the host's frames measure
        param.inp_width = width;
        param.inp_height = 256;
        using Owner = std::unique_ptr<vexo::iStereoCamera, vexo::Destroy>;
        EXPECT_EQ(Owner(vexo::CreateStereoCamera(2, &files, &param)) != nullptr, width == 320);
    }
    EXPECT_FALSE(from_yaml({}));
    EXPECT_FALSE(from_yaml({ path("zero"), path("absent") }));
    EXPECT_FALSE(from_yaml({ path("zero") }));              // holds no camera 1
    EXPECT_FALSE(from_yaml({ path("one"), path("zero") })); // the keys tell them apart
}

TEST_F(StereoFiles, ThingsThatAreNoCalibrationGiveNull)
{
    const std::string text = pair_text(rig::pair());
    put(path("ok"), text);
    put(path("no_projection"), text.substr(0, text.find("cam0_K")));
    put(path("no_size"), std::string(text).replace(text.find("cam1_size"), 9, "cam1_sice"));
    ASSERT_TRUE(from_yaml({ path("ok") }));
    for (const std::string& file : { path("no_projection"), path("no_size"), path("absent"), folder }) {
        EXPECT_FALSE(from_yaml({ file })) << file;
        EXPECT_FALSE(from_yaml({ path("ok"), file })) << file;
        Stereo hmats(vexo::create_StereoCamera_from_Hmats(file, file, file, { 320, 256 }, 0, 0));
        EXPECT_FALSE(hmats) << file;
    }
}

TEST_F(StereoFiles, HmatSetGivesTheSameImagesAndPoints)
{
    cv::Mat raw(256, 320, CV_8UC1);
    cv::RNG(5).fill(raw, cv::RNG::UNIFORM, 0, 255);
    for (const bool vertical : { false, true })
        for (const bool in_board_frame : { false, true }) {
            const Stereo stereo = rectify(rig::pair(vertical), vertical ? 0 : cv::CALIB_ZERO_DISPARITY);
            if (in_board_frame) {
                ASSERT_TRUE(stereo->convert_coordinate_system(rig::pose(rig::rotation(2.8, 0.2, 1.4), { 9, 8, 600 })));
            }
            ASSERT_TRUE(store(stereo.get(), "h"));
            const Stereo loaded = from_hmats("h");
            ASSERT_TRUE(loaded);
            EXPECT_TRUE(same_bits(loaded->cam0.P, stereo->cam0.P) && same_bits(loaded->cam1.P, stereo->cam1.P));
            EXPECT_LT(max_difference(loaded->Q, stereo->Q), 1e-8);
            EXPECT_LT(max_difference(loaded->T, stereo->T), 1e-9);
            EXPECT_EQ(max_difference(loaded->cam0_R2, cv::Mat(cv::Mat_<double>::eye(3, 3))), 0);
            for (int which = 0; which < 2; ++which) {
                cv::Mat a(256, 320, CV_8UC1);
                cv::Mat b(256, 320, CV_8UC1);
                ASSERT_TRUE(stereo->remap(raw.data, raw.step, a.data, a.step, which));
                ASSERT_TRUE(loaded->remap(raw.data, raw.step, b.data, b.step, which));
                EXPECT_TRUE(same_bits(a, b));
            }
        }
    EXPECT_EQ(content(path("h0")).size(), 96U);
    EXPECT_EQ(content(path("h2")).size(), 4U * (8 + 320 * 256 * 4));
}

TEST_F(StereoFiles, HmatSetsThatDoNotFitAreRefused)
{
    const Stereo stereo = rectify(rig::pair());
    ASSERT_TRUE(store(stereo.get(), "h") && from_hmats("h"));
    EXPECT_FALSE(from_hmats("h", { 320, 255 }));
    EXPECT_FALSE(from_hmats("h", { 0, 0 }));
    EXPECT_FALSE(from_hmats("h", { -320, -256 }));
    const std::string good[3] = { content(path("h0")), content(path("h1")), content(path("h2")) };
    for (int i = 0; i < 3; ++i) {
        const std::string file = path("h" + std::to_string(i));
        for (const std::size_t cut : { std::size_t { 0 }, std::size_t { 8 }, good[i].size() - 1 }) {
            put(file, good[i].substr(0, cut));
            EXPECT_FALSE(from_hmats("h")) << i << ' ' << cut;
        }
        put(file, good[i] + "x");
        EXPECT_FALSE(from_hmats("h")) << i;
        put(file, good[i]);
    }
    put(path("h1"), good[0]); // no baseline
    EXPECT_FALSE(from_hmats("h"));
}

TEST_F(StereoFiles, WhatAnHmatSetCannotExpressIsNotWritten)
{
    const Stereo smaller = rectify(rig::pair(), 0, { 200, 100 });
    const StereoCamera empty({ 320, 256 });
    const Stereo stereo = rectify(rig::pair());
    EXPECT_FALSE(store(smaller.get(), "h") || store(&empty, "h") || store(nullptr, "h"));
    EXPECT_FALSE(vexo::store_StereoCamera_to_Hmats(stereo.get(), path("h0"), path("h0"), path("h2")));
    EXPECT_FALSE(exists(path("h0")) || exists(path("h1")) || exists(path("h2")));
    ASSERT_EQ(symlink("h0", path("link").c_str()), 0); // to be created; one file cannot hold two projections
    EXPECT_FALSE(vexo::store_StereoCamera_to_Hmats(stereo.get(), path("link"), path("h0"), path("h2")));
    EXPECT_FALSE(vexo::store_StereoCamera_to_Hmats(stereo.get(), path("h0"), path("h1"), folder));
    EXPECT_FALSE(exists(path("h0")));
}

TEST(StereoFromRaw, ArraysMakeTheSamePairAsCameras)
{
    const Pair cams = rig::pair();
    vexo::StereoCameraParam param;
    param.inp_width = 320;
    param.inp_height = 256;
    param.fill0 = 10;
    param.fill1 = 200;
    const double* a[6] = { cams[0].K[0], cams[0].D[0], cams[1].K[0], cams[1].D[0], cams[1].R[0], cams[1].T[0] };
    auto make = [&] { return Stereo(vexo::create_StereoCamera_from_raw(a[0], a[1], a[2], a[3], a[4], a[5], &param)); };
    const Stereo raw = make();
    const Stereo direct = rectify(cams);
    ASSERT_TRUE(raw && direct);
    EXPECT_TRUE(same_bits(raw->Q, direct->Q) && same_bits(raw->cam1.map1, direct->cam1.map1));
    EXPECT_EQ(raw->cam1.fill, cv::Scalar(200, 200, 200, 0));
    const double zeros[9] = {};
    for (const double*& array : a) {
        const double* good = array;
        array = nullptr;
        EXPECT_FALSE(make());
        array = zeros;
        const bool is_distortion = &array == &a[1] || &array == &a[3]; // a lens without distortion is one, too
        EXPECT_EQ(make() != nullptr, is_distortion);
        array = good;
    }
    EXPECT_FALSE(Stereo(vexo::create_StereoCamera_from_raw(a[0], a[1], a[2], a[3], a[4], a[5], nullptr)));
    param.inp_width = -320;
    EXPECT_FALSE(make());
}

TEST(StereoRealData, CalibrationsOfOthersGiveTheirKnownRigs)
{
    struct Known {
        const char* set;
        double f, baseline; // printed with this many digits
    };
    for (const Known& known :
        { Known { "gyps_stereo_dental", 4739.4, 62.21 }, Known { "render_stereo_bust", 1759.1, 200.01 } }) {
        const std::string file = std::string(VEXO_SOURCE_DIR) + "/../shared/realdata/" + known.set + "/cameras.yaml";
        if (!std::ifstream(file)) GTEST_SKIP() << "no " << file;
        const Stereo stereo(vexo::create_StereoCamera({ file }, { 0, 0 }, -1, 0, 0, 0));
        ASSERT_TRUE(stereo) << file;
        EXPECT_NEAR(stereo->cam0.K(0, 0), known.f, 0.05);
        EXPECT_NEAR(stereo->get_baseline_length(), known.baseline, 0.005);
        EXPECT_TRUE(stereo->is_horizontal_stereo());
    }
}
