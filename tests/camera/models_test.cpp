// PinHoleCamera and DistortCamera.
#include "camera/toed_in_pair.h"

#include "base/plain_yaml.h"

#include <cfloat>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

using rig::max_difference;
using vexo::DistortCamera;
using vexo::PinHoleCamera;

namespace {

PinHoleCamera posed_camera()
{
    PinHoleCamera cam({ 640, 480 }, "left");
    cam.K = (cv::Mat_<double>(3, 3) << 800, 0.5, 321, 0, 790, 237, 0, 0, 1);
    cam.R = rig::rotation(0.3, -0.4, 0.2);
    cam.T = (cv::Mat_<double>(3, 1) << 30, -20, 700);
    cam.compose();
    return cam;
}

cv::Mat_<double> projection(const PinHoleCamera& cam, double scale)
{
    return cv::Mat_<double>(cv::Mat_<double>(cam.P(cv::Rect(0, 0, 4, 3))) * scale);
}

class CameraFiles : public rig::Folder { };

} // namespace

TEST(PinHole, ComposedMembersAgree)
{
    const PinHoleCamera cam = posed_camera();
    const cv::Point3d X(40, -25, 130);
    const cv::Vec3d x = rig::moved(cam.RT, { X.x, X.y, X.z });
    const cv::Point2d pixel = cam.project_forw(X);
    EXPECT_NEAR(pixel.x, (800 * x[0] + 0.5 * x[1]) / x[2] + 321, 1e-10);
    EXPECT_NEAR(pixel.y, 790 * x[1] / x[2] + 237, 1e-10);
    EXPECT_LT(max_difference(cam.P * cam.P_inv, cv::Mat_<double>::eye(4, 4)), 1e-9);
    EXPECT_LT(max_difference(cam.RT * cam.RT_inv, cv::Mat_<double>::eye(4, 4)), 1e-12);
    EXPECT_EQ(cv::norm(cv::Mat(cam.P.row(3)), cv::Mat((cv::Mat_<double>(1, 4) << 0, 0, 0, 1))), 0.0);

    // The ray through the pixel meets the point.
    const cv::Mat_<double> centre = cam.get_center();
    const cv::Vec3d towards = cv::normalize(cv::Vec3d(X.x - centre(0), X.y - centre(1), X.z - centre(2)));
    EXPECT_LT(cv::norm(cam.get_sight_vector(pixel) - towards), 1e-12);
    EXPECT_NEAR(cv::norm(cam.get_sight_vector({ 1e5, -3 })), 1.0, 1e-15);
}

TEST(PinHole, DecompositionGivesTheCameraBackAndTheScaleOfPInK)
{
    const PinHoleCamera cam = posed_camera();
    for (const double scale : { 1.0, 2.0, -1.0 }) {
        PinHoleCamera other({ 640, 480 }, "");
        other.setPPM(projection(cam, scale));
        EXPECT_NEAR(other.K(2, 2), scale, 1e-12);
        EXPECT_GT(other.K(0, 0), 0) << scale;
        EXPECT_LT(max_difference(other.get_center(), cam.get_center()), 1e-9) << scale;
        const cv::Point3d X(10, 20, 30);
        EXPECT_LT(cv::norm(other.project_forw(X) - cam.project_forw(X)), 1e-9) << scale;
        if (scale < 0) continue; // K and R are turned by 180 degrees about z
        EXPECT_LT(max_difference(other.normalised_K(), cam.K), 1e-9);
        EXPECT_LT(max_difference(other.R, cam.R), 1e-12);
        EXPECT_LT(max_difference(other.T, cam.T), 1e-9);
    }
}

TEST(PinHole, CentreIsALiveViewAndCopiesAreDeep)
{
    PinHoleCamera cam = posed_camera();
    const PinHoleCamera copy = cam;
    PinHoleCamera assigned({ 1, 1 }, "");
    assigned = cam;
    const cv::Mat_<double> centre = cam.get_center();
    const cv::Mat_<double> before = centre.clone();
    cam.T(0) += 5;
    cam.setRT();
    EXPECT_GT(max_difference(centre, before), 1.0);
    EXPECT_TRUE(same_bits(copy, posed_camera()) && same_bits(assigned, posed_camera()));
    cam.P_inv = 0.0;
    EXPECT_EQ(cam.get_sight_vector({ 3, 4 }), cv::Vec3d()); // no inverse, no ray
}

TEST(PinHole, HmatIsTwelveDoublesAndUnusableOnesAreRefused)
{
    const PinHoleCamera cam = posed_camera();
    std::ostringstream os;
    ASSERT_TRUE(cam.save_hmat(os));
    const std::string bytes = os.str();
    EXPECT_EQ(bytes, std::string(cam.P.ptr<char>(), 96));
    PinHoleCamera other({ 640, 480 }, "left");
    std::istringstream good(bytes);
    ASSERT_TRUE(other.load_hmat(good));
    EXPECT_TRUE(same_bits(other.P, cam.P));

    std::vector<std::string> bad { std::string(96, '\0'), std::string(96, '\xff') }; // singular, NaN
    for (std::size_t cut = 0; cut < 96; ++cut)
        bad.push_back(bytes.substr(0, cut));
    for (const std::string& text : bad) {
        PinHoleCamera kept = cam;
        std::istringstream is(text);
        EXPECT_FALSE(kept.load_hmat(is)) << text.size();
        EXPECT_TRUE(same_bits(kept, cam));
    }
}

TEST(PinHole, PoseIsFoundFromGoodPointsAndRefusedFromBadOnes)
{
    DistortCamera cam = rig::camera("c", { 640, 480 }, 800, { -0.2, 0.1, 0.001, 0.002, 0 });
    cam.R = rig::rotation(0.3, -0.2, 0.1);
    cam.T = (cv::Mat_<double>(3, 1) << -30, 20, 500);
    cam.K *= 2.0; // the scale of K means nothing
    cam.compose();
    std::vector<cv::Point3f> object;
    std::vector<cv::Point2f> image;
    for (int i = 0; i < 30; ++i) {
        const int column = i % 6, row = i / 6;
        object.emplace_back(20.F * static_cast<float>(column), 20.F * static_cast<float>(row), 0.F);
        image.emplace_back(cam.project_forw(cv::Point3d(object.back())));
    }
    cv::Mat rvec;
    cv::Mat tvec;
    for (const bool ransac : { false, true }) {
        ASSERT_TRUE(ransac ? cam.solvePnPRansac(rvec, tvec, image, object) : cam.solvePnP(rvec, tvec, image, object));
        // Pixels in single precision: 3e-5 px of 800 px at 500 mm, amplified by the weak depth direction.
        EXPECT_LT(max_difference(tvec, cam.T), 5e-3);
        cv::Mat_<double> R;
        cv::Rodrigues(rvec, R);
        EXPECT_LT(max_difference(R, cam.R), 2e-5);
    }
    const cv::Mat kept = tvec.clone();
    auto refused = [&](std::vector<cv::Point2f> pixels, std::vector<cv::Point3f> places) {
        return !cam.solvePnP(rvec, tvec, pixels, places) && !cam.solvePnPRansac(rvec, tvec, pixels, places)
            && !cam.PinHoleCamera::solvePnP(rvec, tvec, pixels, places)
            && !cam.PinHoleCamera::solvePnPRansac(rvec, tvec, pixels, places);
    };
    EXPECT_TRUE(refused({}, {}));
    EXPECT_TRUE(refused({ image.begin(), image.begin() + 3 }, { object.begin(), object.begin() + 3 }));
    EXPECT_TRUE(refused({ image.begin() + 1, image.end() }, object));
    for (const float poison : { FLT_MAX, INFINITY, NAN }) {
        std::vector<cv::Point2f> pixels = image;
        pixels[7].y = poison;
        EXPECT_TRUE(refused(pixels, object)) << poison;
        std::vector<cv::Point3f> places = object;
        places[7].z = poison;
        EXPECT_TRUE(refused(image, places)) << poison;
    }
    EXPECT_TRUE(same_bits(tvec, kept));
}

TEST(Distort, ProjectionPassesThroughSinglePrecision)
{
    const DistortCamera cam = rig::camera("c", { 640, 480 }, 800, { -0.2, 0.1, 0.001, 0.002, 0 });
    const cv::Point2d pixel = cam.project_forw({ 1.0 / 3, 2.0 / 7, 3.1 });
    EXPECT_EQ(pixel, cv::Point2d(cv::Point2f(pixel)));
    EXPECT_EQ(pixel, cam.project_forw({ 1.0F / 3, 2.0F / 7, 3.1F }));
}

TEST(Distort, ThereIsNoWayBack)
{
    const DistortCamera cam = rig::camera("c", { 640, 480 }, 800, {});
    EXPECT_THROW(cam.get_sight_vector({ 1, 2 }), std::logic_error);
    EXPECT_THROW(cam.project_back({ 1, 2 }), std::logic_error);
}

TEST_F(CameraFiles, SavedCameraIsReadBack)
{
    DistortCamera cam = rig::pair()[1];
    const std::string text = rig::yaml(cam);
    DistortCamera other({ 0, 0 }, "");
    ASSERT_TRUE(rig::load_text(other, text)); // the name comes from the first key
    EXPECT_EQ(other.name, "cam1");
    EXPECT_EQ(other.size, cam.size);
    // Seventeen significant digits: exact.
    EXPECT_TRUE(same_bits(other.K, cam.K) && same_bits(other.R, cam.R) && same_bits(other.T, cam.T));
    EXPECT_TRUE(same_bits(other.P, cam.P) && same_bits(other.D, cam.D));

    const std::string order[] = { "cam1_size: [ 320, 256 ]", "cam1_K:", "cam1_R:", "cam1_T:", "cam1_P:", "cam1_D:" };
    std::size_t at = 0;
    for (const std::string& key : order)
        EXPECT_NE(at = text.find(key, at), std::string::npos) << key;
}

TEST_F(CameraFiles, NamelessCameraIsCalledCamAndTheFileNamesDiffer)
{
    ASSERT_EQ(chdir(folder.c_str()), 0);
    PinHoleCamera pinhole({ 640, 480 }, "");
    ASSERT_TRUE(pinhole.save(nullptr));
    EXPECT_EQ(pinhole.name, "cam");
    EXPECT_NE(content("cam_param.yaml").find("cam_size"), std::string::npos);

    DistortCamera distorted = rig::camera("", { 640, 480 }, 800, { 0.1, 0, 0, 0 });
    ASSERT_TRUE(distorted.save(nullptr));
    EXPECT_EQ(distorted.name, "cam");
    EXPECT_NE(content("_param.yaml").find("cam_D"), std::string::npos);

    DistortCamera nameless({ 0, 0 }, "");
    ASSERT_TRUE(nameless.load(nullptr)); // reads _param.yaml
    EXPECT_TRUE(same_bits(nameless.D, distorted.D));
    EXPECT_EQ(nameless.name, "cam");
    DistortCamera absent({ 7, 7 }, "nobody"), refused({ 640, 480 }, "");
    EXPECT_FALSE(absent.load(nullptr));
    EXPECT_EQ(absent.size, cv::Size(7, 7));
    ASSERT_TRUE(std::filesystem::remove("_param.yaml") && std::filesystem::create_directory("_param.yaml"));
    EXPECT_FALSE(refused.save(nullptr)); // nothing can be written there: it stays nameless
    EXPECT_EQ(refused.name, "");
}

TEST_F(CameraFiles, NamesThatAreNoKeysSaveNothing)
{
    for (const std::string name : { "0cam", "-cam", "a.b", "a/b", "a:b", "k\xc3\xa4mera", "a\n", "#" }) {
        PinHoleCamera pinhole({ 640, 480 }, name);
        DistortCamera distorted = rig::camera(name, { 640, 480 }, 800, {});
        vexo::UndistortCamera rectified({ 640, 480 }, name);
        cv::FileStorage fs = vexo::memory_yaml();
        EXPECT_FALSE(pinhole.save(nullptr) || distorted.save(nullptr) || rectified.save(nullptr)) << name;
        EXPECT_FALSE(pinhole.save(&fs) || distorted.save(&fs) || rectified.save(&fs)) << name;
        EXPECT_EQ(fs.releaseAndGetString().find("size"), std::string::npos);
        EXPECT_FALSE(exists(name + "_param.yaml"));
    }
}

TEST_F(CameraFiles, KRTWinOverPAndPAloneIsEnough)
{
    PinHoleCamera cam = posed_camera();
    std::string text = rig::yaml(cam);
    PinHoleCamera other({ 0, 0 }, "left");
    std::string broken_P = text;
    broken_P.replace(broken_P.find("rows", broken_P.find("left_P")), 7, "rows: 9");
    EXPECT_TRUE(rig::load_text(other, broken_P)); // never looked at

    text.replace(text.find("left_T"), 6, "some_T");
    other = PinHoleCamera({ 0, 0 }, "left");
    ASSERT_TRUE(rig::load_text(other, text));
    EXPECT_TRUE(same_bits(other.P, cam.P));
    EXPECT_LT(max_difference(other.T, cam.T), 1e-9);
}

TEST_F(CameraFiles, StoragesWithoutKeysOfTheCameraChangeNothing)
{
    const PinHoleCamera cam = posed_camera();
    for (const std::string text : { "%YAML:1.0\n---\nother: 5\n", "%YAML:1.0\n---\n- 1\n- 2\n" }) {
        PinHoleCamera kept = cam;
        EXPECT_TRUE(rig::load_text(kept, text));
        EXPECT_TRUE(same_bits(kept, cam));
        PinHoleCamera nameless({ 0, 0 }, "");
        EXPECT_TRUE(rig::load_text(nameless, text));
        EXPECT_EQ(nameless.name, ""); // a key without '_' gives no name
    }
    cv::FileStorage closed;
    PinHoleCamera kept = cam;
    EXPECT_FALSE(kept.load(&closed));
    EXPECT_FALSE(kept.save(&closed));
    EXPECT_TRUE(same_bits(kept, cam));
}

TEST_F(CameraFiles, UnusableEntriesAreRefusedAndTheCameraKept)
{
    DistortCamera cam = rig::pair()[0];
    const std::string text = rig::yaml(cam);
    auto with = [&](const std::string& key, const std::string& value) {
        std::string changed = text;
        const std::size_t begin = changed.find("cam0_" + key + ":") + 6 + key.size();
        const std::size_t end = changed.find("cam0_", begin);
        return changed.replace(begin, end == std::string::npos ? end : end - begin, " " + value + "\n");
    };
    auto matrix = [](const std::string& rows, const std::string& cols, const std::string& dt, const std::string& data) {
        return "!!opencv-matrix\n   rows: " + rows + "\n   cols: " + cols + "\n   dt: " + dt + "\n   data: " + data;
    };
    const std::string eye = "[ 1., 0., 0., 0., 1., 0., 0., 0., 1. ]";
    const auto square = [&](const std::string& data) { return matrix("3", "3", "d", data); };
    const std::vector<std::pair<std::string, std::string>> bad { { "size", "[ 320 ]" }, { "size", "[ -1, 256 ]" },
        { "size", "[ 40000, 256 ]" }, { "size", "[ 3.5, 256 ]" }, { "size", "big" }, { "K", "text" }, { "K", eye },
        { "K", matrix("2", "2", "d", "[ 1., 0., 0., 1. ]") }, { "K", square("[ 1., 0., 0. ]") },
        { "K", matrix("2147483647", "2147483647", "d", eye) }, { "K", matrix("65536", "65536", "u", eye) },
        { "K", matrix("-3", "-3", "d", eye) }, { "K", matrix("3", "3", "\"3d\"", eye) },
        { "K", square("[ .Nan, 0., 0., 0., 1., 0., 0., 0., 1. ]") },
        { "K", square("[ 0., 0., 0., 0., 1., 0., 0., 0., 1. ]") },
        { "K", square("[ 1e308, 0., 1e308, 0., 1e308, 1e308, 0., 0., 1e-308 ]") },
        { "R", square("[ 0., 0., 0., 0., 0., 0., 0., 0., 0. ]") }, { "T", matrix("2", "2", "d", "[ 1., 2., 3., 4. ]") },
        { "T", matrix("0", "0", "d", "[]") }, { "D", matrix("1", "3", "d", "[ 1., 2., 3. ]") },
        { "D", matrix("2", "2", "d", "[ 1., 2., 3., 4. ]") }, { "D", matrix("1", "4", "d", "[ 1., .Inf, 3., 4. ]") } };
    for (const auto& [key, value] : bad) {
        DistortCamera kept = rig::pair()[1];
        kept.name = "cam0";
        const DistortCamera before = kept;
        EXPECT_FALSE(rig::load_text(kept, with(key, value))) << key << ": " << value;
        EXPECT_TRUE(same_bits(kept, before) && same_bits(kept.D, before.D)) << key << ": " << value;
    }
    DistortCamera ok({ 0, 0 }, "cam0");
    EXPECT_TRUE(rig::load_text(ok, with("D", matrix("0", "0", "d", "[]"))));
    EXPECT_TRUE(ok.D.empty());
    EXPECT_TRUE(rig::load_text(ok, with("K", matrix("3", "3", "f", eye))));
    std::string no_D = text.substr(0, text.find("cam0_D"));
    ok.D = cv::Mat_<double>::ones(1, 4);
    EXPECT_TRUE(rig::load_text(ok, no_D));
    EXPECT_TRUE(ok.D.empty());
}
