// UndistortCamera and its two binary formats.
#include "base/plain_yaml.h"
#include "camera/camera_undistort.h"
#include "camera/toed_in_pair.h"

#include <cstring>
#include <numeric>
#include <opencv2/imgproc.hpp>
#include <sys/stat.h>

using vexo::UndistortCamera;

namespace {

UndistortCamera rectified(cv::Size size = { 64, 48 })
{
    UndistortCamera cam(size, "u");
    const vexo::DistortCamera real = rig::camera("r", { 80, 60 }, 90, { -0.2, 0.1, 0.002, 0.001 });
    cam.K = real.K.clone();
    cam.compose();
    cam.initMap(real, rig::rotation(0, 0.02, 0.01));
    return cam;
}

cv::Mat noise(cv::Size size, int type)
{
    cv::Mat image(size, type);
    cv::RNG rng(3);
    rng.fill(image, cv::RNG::UNIFORM, 0, 255);
    return image;
}

int int_at(const std::string& bytes, std::size_t offset)
{
    int value = 0;
    std::memcpy(&value, &bytes.at(offset), sizeof value);
    return value;
}

class TableFiles : public rig::Folder { };

} // namespace

TEST(Tables, RecordsLieWhereTheFormatsSayAndAreReadBack)
{
    const cv::Mat map = noise({ 9, 5 }, CV_32FC1).colRange(2, 5); // rows apart in memory
    const std::string pixels(map.clone().ptr<char>(), 60);
    std::ostringstream os, bare, empty;
    ASSERT_TRUE(vexo::save_map(os, map) && vexo::save_map(os, map) && vexo::_save_rtable(bare, map));
    EXPECT_FALSE(vexo::save_map(empty, cv::Mat()));
    EXPECT_TRUE(empty.str().empty());
    const std::string bytes = os.str();
    ASSERT_EQ(bytes.size(), 2 * (16U + 60U + 4U));
    for (const std::size_t record : { std::size_t { 0 }, std::size_t { 80 } }) {
        EXPECT_EQ(int_at(bytes, record), CV_32FC1);
        EXPECT_EQ(int_at(bytes, record + 4), 3);
        EXPECT_EQ(int_at(bytes, record + 8), 5);
        EXPECT_EQ(int_at(bytes, record + 12), 0);
        EXPECT_EQ(bytes.substr(record + 16, 60), pixels);
        EXPECT_EQ(int_at(bytes, record + 76), 0);
    }
    ASSERT_EQ(bare.str().size(), 8U + 60U + 4U);
    EXPECT_EQ(int_at(bare.str(), 0), 15);
    EXPECT_EQ(int_at(bare.str(), 4), 0);
    EXPECT_EQ(bare.str().substr(8, 60), pixels);

    cv::Mat read, bare_read(map.size(), CV_32FC1), other(2, 7, CV_32FC1);
    std::istringstream is(bytes), bare_is(bare.str()), again(bare.str());
    ASSERT_TRUE(vexo::load_map(is, read) && vexo::_load_rtable(bare_is, bare_read));
    EXPECT_TRUE(same_bits(read, map) && same_bits(bare_read, map));
    EXPECT_FALSE(vexo::_load_rtable(again, other));
    EXPECT_EQ(again.tellg(), 4); // just behind the count
}

TEST(Tables, CutAndForeignRecordsAreRefusedAndTheTableKept)
{
    const UndistortCamera cam = rectified({ 5, 3 });
    std::ostringstream os;
    std::ostringstream bare;
    ASSERT_TRUE(vexo::save_map(os, cam.map1) && vexo::SaveRectifyTables(&cam, bare));
    const cv::Mat kept = noise({ 4, 4 }, CV_32FC1);
    for (std::size_t cut = 0; cut < os.str().size(); ++cut) {
        cv::Mat map = kept.clone();
        std::istringstream is(os.str().substr(0, cut));
        EXPECT_FALSE(vexo::load_map(is, map)) << cut;
        EXPECT_TRUE(same_bits(map, kept)) << cut;
    }
    for (std::size_t cut = 0; cut < bare.str().size(); ++cut) {
        UndistortCamera other = cam;
        std::istringstream is(bare.str().substr(0, cut));
        EXPECT_FALSE(vexo::LoadRectifyTables(&other, is)) << cut;
        EXPECT_TRUE(same_bits(other, cam)) << cut;
    }
    struct Header {
        int type, cols, rows;
    };
    for (const Header& h : { Header { 6, 5, 3 }, { 5, 0, 3 }, { 5, -5, -3 }, { 5, 1 << 16, 1 << 16 },
             { 5, 32766, 2048 }, { 5, 65537, 65537 }, { -1, 5, 3 }, { 0xFFF, 5, 3 }, { 5, 5, 4 } }) {
        std::string bytes = os.str();
        std::memcpy(bytes.data(), &h, sizeof h);
        cv::Mat map = kept.clone();
        std::istringstream is(bytes);
        EXPECT_FALSE(vexo::load_map(is, map)) << h.type << ' ' << h.cols << ' ' << h.rows;
        EXPECT_TRUE(same_bits(map, kept));
    }
    UndistortCamera empty({ 5, 3 }, "u");
    std::istringstream is(bare.str());
    EXPECT_FALSE(vexo::LoadRectifyTables(&empty, is));
}

TEST(Tables, EveryElementTypeThatIsWrittenIsReadBack)
{
    for (int depth = CV_8U; depth <= CV_16F; ++depth)
        for (const int channels : { 1, 2, 3, 4, CV_CN_MAX }) {
            cv::Mat map(2, 3, CV_MAKETYPE(depth, channels)), read;
            std::iota(map.data, map.data + map.total() * map.elemSize(), uchar { 1 });
            std::stringstream stream;
            ASSERT_TRUE(vexo::save_map(stream, map));
            EXPECT_TRUE(vexo::load_map(stream, read)) << cv::typeToString(map.type());
            EXPECT_TRUE(same_bits(read, map)) << cv::typeToString(map.type());
        }
}

TEST(Undistort, UnknownInterpolationIsLinearAndOutsideIsFill)
{
    UndistortCamera cam = rectified();
    cam.fill = cv::Scalar::all(77);
    const cv::Mat raw = noise({ 80, 60 }, CV_8UC1);
    cv::Mat linear;
    cv::Mat other;
    ASSERT_TRUE(cam.remap(raw, linear));
    for (const int odd : { 7, -1, 4 }) {
        cam.interpolation = odd;
        ASSERT_TRUE(cam.remap(raw, other));
        EXPECT_TRUE(same_bits(linear, other)) << odd;
    }
    cam.interpolation = 0;
    ASSERT_TRUE(cam.remap(raw, other));
    EXPECT_FALSE(same_bits(linear, other));

    cam.map1.setTo(-100);
    ASSERT_TRUE(cam.remap(raw, other));
    EXPECT_EQ(cv::countNonZero(other != 77), 0);
    ASSERT_TRUE(cam.remap(raw, other, cv::Scalar::all(0)));
    EXPECT_EQ(cv::countNonZero(other), 0);
    EXPECT_EQ(cam.fill, cv::Scalar::all(77));
    cam.map1.setTo(NAN);
    EXPECT_TRUE(cam.remap(raw, other));
}

TEST(Undistort, RemapRefusesWhatItCannotDo)
{
    cv::Mat out;
    const UndistortCamera empty({ 64, 48 }, "u");
    EXPECT_FALSE(empty.remap(noise({ 80, 60 }, CV_8UC1), out));
    const UndistortCamera cam = rectified();
    EXPECT_FALSE(cam.remap(cv::Mat(), out));
    const int sizes[] = { 3, 3, 3 };
    EXPECT_FALSE(cam.remap(cv::Mat(3, sizes, CV_8UC1), out));
    EXPECT_FALSE(cam.remap(noise({ 80, 60 }, CV_32SC1), out));

    cv::Mat in_place = noise({ 64, 48 }, CV_8UC1);
    ASSERT_TRUE(cam.remap(in_place.clone(), out));
    ASSERT_TRUE(cam.remap(in_place, in_place));
    EXPECT_TRUE(same_bits(in_place, out));
}

TEST(Undistort, WithoutFloatMapsInitMapThrows)
{
    UndistortCamera cam({ 64, 48 }, "u");
    cam.float_maps = 0;
    EXPECT_THROW(cam.initMap(rig::camera("r", { 80, 60 }, 90, {}), rig::rotation(0, 0, 0)), cv::Exception);
}

TEST_F(TableFiles, CameraAndTablesAreReadBack)
{
    UndistortCamera cam = rectified();
    cam.roi = { 1, 2, 30, 40 };
    cam.map_file = path("tables.bin");
    const std::string text = rig::yaml(cam);
    EXPECT_NE(text.find("u_roi: [ 1, 2, 30, 40 ]"), std::string::npos);
    UndistortCamera other({ 0, 0 }, "u");
    other.map_file = cam.map_file;
    ASSERT_TRUE(rig::load_text(other, text));
    EXPECT_TRUE(same_bits(other, cam));
}

TEST_F(TableFiles, FixedPointTablesAreReadBackAndPairsThatCvRemapDoesNotTakeAreDamaged)
{
    UndistortCamera cam = rectified(), other({ 0, 0 }, "u");
    const cv::Mat raw = noise({ 80, 60 }, CV_8UC1);
    cv::convertMaps(rectified().map1, rectified().map2, cam.map1, cam.map2, CV_16SC2);
    cam.map_file = other.map_file = path("fixed.bin");
    const std::string text = rig::yaml(cam);
    ASSERT_TRUE(rig::load_text(other, text));
    UndistortCamera assigned({ 1, 1 }, "");
    assigned = other;
    EXPECT_TRUE(same_bits(assigned, cam));
    cv::Mat by_fixed, by_float;
    ASSERT_TRUE(assigned.remap(raw, by_fixed) && rectified().remap(raw, by_float));
    EXPECT_TRUE(same_bits(by_fixed, by_float)); // cv::remap itself rounds floats to this form

    std::ostringstream os;
    EXPECT_FALSE(vexo::SaveRectifyTables(&cam, os)); // positions in two channels have no bare form
    EXPECT_FALSE(vexo::SaveRectifyTables(nullptr, os));
    std::istringstream none;
    EXPECT_FALSE(vexo::LoadRectifyTables(nullptr, none) || vexo::LoadRectifyTables(&assigned, none));
    std::swap(cam.map1, cam.map2);
    std::ostringstream swapped;
    ASSERT_TRUE(vexo::save_map(swapped, cam.map1) && vexo::save_map(swapped, cam.map2));
    put(other.map_file, swapped.str());
    EXPECT_FALSE(rig::load_text(other, text));
    EXPECT_TRUE(same_bits(other, assigned));
}

TEST_F(TableFiles, MissingTableFileIsAWarningAndADamagedOneIsNot)
{
    UndistortCamera cam = rectified();
    cam.map_file = path("tables.bin");
    const std::string text = rig::yaml(cam);
    const std::string tables = content(cam.map_file);

    UndistortCamera other = rectified({ 20, 10 });
    for (const std::string& missing : { std::string(), path("absent.bin") }) {
        UndistortCamera loaded = other;
        loaded.map_file = missing;
        testing::internal::CaptureStderr();
        EXPECT_TRUE(rig::load_text(loaded, text));
        EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "!!Warning!! Rectify map not found. You must do rectify and make map.\n");
        EXPECT_EQ(loaded.size, cam.size);
        EXPECT_TRUE(same_bits(loaded.map1, other.map1));
    }
    std::ostringstream small;
    ASSERT_TRUE(vexo::save_map(small, other.map1) && vexo::save_map(small, other.map2));
    put(path("cut"), tables.substr(0, tables.size() - 1));
    put(path("one"), tables.substr(0, tables.size() / 2));
    put(path("empty"), "");
    put(path("small"), small.str());
    ASSERT_EQ(mkfifo(path("fifo").c_str(), 0600), 0);
    for (const std::string damaged : { "cut", "one", "empty", "small", "fifo", "" }) {
        UndistortCamera loaded = other;
        loaded.map_file = path(damaged); // "": the folder itself
        testing::internal::CaptureStderr();
        EXPECT_FALSE(rig::load_text(loaded, text)) << damaged;
        EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
        EXPECT_TRUE(same_bits(loaded, other)) << damaged;
    }
}

TEST_F(TableFiles, EmptyTablesLeaveTheirFileEmptyAndTheYamlIsWritten)
{
    UndistortCamera cam({ 64, 48 }, "u"), other = rectified();
    cam.map_file = other.map_file = path("tables.bin");
    put(cam.map_file, "old");
    const std::string text = rig::yaml(cam);
    EXPECT_NE(text.find("u_roi:"), std::string::npos);
    EXPECT_EQ(content(cam.map_file), "");
    EXPECT_FALSE(rig::load_text(other, text)); // no old tables beside new parameters
}

TEST_F(TableFiles, TablesThatCannotBeWrittenMakeSaveFalse)
{
    UndistortCamera cam = rectified();
    cam.map_file = path("no/such/folder");
    cv::FileStorage fs = vexo::memory_yaml();
    EXPECT_FALSE(cam.save(&fs));
    EXPECT_EQ(fs.releaseAndGetString().find("u_roi"), std::string::npos);
}
