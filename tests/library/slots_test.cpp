#include "library/loaded_library.h"

#include <cfloat>
#include <cmath>

using namespace vexo;

namespace {

/// Ideal pair: f 500 px, centre (160, 120), baseline 50 along x, 320 x 240.
iStereoCamera* ideal_pair(const LoadedLibrary& library)
{
    const double K[] = { 500, 0, 160, 0, 500, 120, 0, 0, 1 };
    const double D[] = { 0, 0, 0, 0, 0 };
    const double R[] = { 1, 0, 0, 0, 1, 0, 0, 0, 1 };
    const double T[] = { -50, 0, 0 };
    StereoCameraParam param;
    param.inp_width = 320;
    param.inp_height = 240;
    param.flags = 1024;
    auto* create = library.factory<decltype(CreateStereoCameraFromRaw)>("CreateStereoCameraFromRaw");
    return create(K, D, K, D, R, T, &param);
}

class Slots : public testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(library.ok()) << dlerror(); }

    const LoadedLibrary library;
};

/// set_parameters(), slot 3 of whatever recognises boards.
void set_board(void* object)
{
    PreProcParam pre;
    CircleMarkerParam circle;
    CalibBoardParam board;
    const auto set = [&] {
        return call_slot<bool, PreProcParam&, CircleMarkerParam&, CalibBoardParam&>(object, 3, pre, circle, board);
    };
    EXPECT_FALSE(set()) << "pitch 0";
    board.pitch = 10;
    board.columns = 3;
    board.rows = 2;
    board.origin_x = 1;
    EXPECT_TRUE(set());
}

} // namespace

TEST_F(Slots, StereoCamera)
{
    void* camera = ideal_pair(library);
    ASSERT_NE(camera, nullptr);

    EXPECT_NEAR(call_slot<double>(camera, 1), 50.0, 1e-9);
    int w = 0, h = 0;
    call_slot<void, int*, int*>(camera, 2, &w, &h);
    EXPECT_EQ(cv::Size(w, h), cv::Size(320, 240));
    w = h = 0;
    call_slot<void, int*, int*>(camera, 3, &w, &h);
    EXPECT_EQ(cv::Size(w, h), cv::Size(320, 240));

    cv::Mat_<uchar> raw(240, 320, uchar { 77 }), rectified(240, 320, uchar { 0 });
    using Remap = bool (*)(void*, uchar*, unsigned long, uchar*, unsigned long, int);
    auto remap = reinterpret_cast<Remap>((*static_cast<void***>(camera))[4]);
    EXPECT_FALSE(remap(camera, raw.data, 320, rectified.data, 320, 3));
    EXPECT_EQ(rectified(120, 160), 0);
    EXPECT_TRUE(remap(camera, raw.data, 320, rectified.data, 320, 0));
    EXPECT_EQ(rectified(120, 160), 77);

    // Depth 1000 has disparity f b / Z = 25; three ways to the same point.
    double q[3] = {}, p[3] = {}, v[3] = {};
    const double at0[] = { 200, 100 }, at1[] = { 175, 100 };
    EXPECT_TRUE((call_slot<bool, double*, int, int, double>(camera, 5, q, 200, 100, 25.0)));
    EXPECT_TRUE((call_slot<bool, double*, const double*, const double*>(camera, 6, p, at0, at1)));
    EXPECT_TRUE((call_slot<bool, double*, double, const double*, const double*>(camera, 7, v, 1e-6, at0, at1)));
    for (const double* point : { q, p, v }) {
        EXPECT_NEAR(point[0], 80.0, 1e-6);
        EXPECT_NEAR(point[1], -40.0, 1e-6);
        EXPECT_NEAR(point[2], 1000.0, 1e-6);
    }
    call_slot<void>(camera, 0);
}

namespace {

struct Receiver : PointCloudCallback {
    int calls = 0, width = -1, height = -1, count = -1;
    void receive(unsigned char*, std::size_t, int w, int h, cv::Point3_<float>*, int n) override
    {
        ++calls;
        width = w;
        height = h;
        count = n;
    }
};

/// Drives a generator through its slots with blank frames of the ideal pair.
void drive_generator(void* generator, iStereoCamera* camera, void* record, int frames)
{
    call_slot<void, iStereoCamera*>(generator, 1, camera);
    EXPECT_FALSE((call_slot<bool, std::string>(generator, 2, std::string("/nowhere/RT.yaml"))));
    std::vector<double> identity { 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1 };
    EXPECT_TRUE((call_slot<bool, std::vector<double>&>(generator, 3, identity)));
    EXPECT_TRUE((call_slot<bool, void*>(generator, 4, record)));
    EXPECT_EQ(call_slot<int>(generator, 5), frames);

    cv::Mat_<uchar> frame(240, 320, uchar { 50 });
    using Set = bool (*)(void*, void*, unsigned long, int, int);
    auto setpict = reinterpret_cast<Set>((*static_cast<void***>(generator))[6]);
    EXPECT_FALSE(setpict(generator, frame.data, 320, 3, 0));
    for (int i = 0; i < frames; ++i)
        for (int cam = 0; cam < 2; ++cam)
            EXPECT_TRUE(setpict(generator, frame.data, 320, cam, i));
    EXPECT_FALSE((call_slot<bool, std::string, int, int>(generator, 7, std::string("/nowhere/0.png"), 0, 0)));

    uchar* data = nullptr;
    int w = 0, h = 0;
    unsigned long step = 0;
    EXPECT_TRUE(
        (call_slot<bool, uchar**, int*, int*, unsigned long*, int, int>(generator, 8, &data, &w, &h, &step, 0, 0)));
    EXPECT_EQ(cv::Size(w, h), cv::Size(320, 240));
    EXPECT_TRUE(call_slot<bool>(generator, 9));
    call_slot<void, iPointCloudGenerator::Method3D, bool>(generator, 10, iPointCloudGenerator::MethodQ, false);

    Receiver receiver;
    const int count = call_slot<int, PointCloudCallback*>(generator, 11, &receiver);
    EXPECT_EQ(receiver.calls, 1);
    EXPECT_EQ(receiver.count, count);
    EXPECT_EQ(cv::Size(receiver.width, receiver.height), cv::Size(320, 240));
}

} // namespace

TEST_F(Slots, PointCloudGenerators)
{
    iStereoCamera* camera = ideal_pair(library);
    ASSERT_NE(camera, nullptr);
    auto* create = library.factory<decltype(CreatePointCloudGenerator)>("CreatePointCloudGenerator");
    EXPECT_EQ(create(3), nullptr);
    EXPECT_EQ(create(-1), nullptr);

    SGBMatchingParam sgbm;
    GrayPhaseMatchingParam gray;
    MultiPhaseMatchingParam multi;
    void* const records[] = { &sgbm, &gray, &multi };
    const int frames[] = { 1, 13, 14 };
    for (int selector = 0; selector < 3; ++selector) {
        SCOPED_TRACE(selector);
        void* generator = create(selector);
        ASSERT_NE(generator, nullptr);
        drive_generator(generator, camera, records[selector], frames[selector]);
        // Slots 12 and 13 are the destructor; the phase matchers add get_datatype() behind it.
        if (selector > 0) {
            gray.datatype = multi.datatype = 1;
            call_slot<bool, void*>(generator, 4, records[selector]);
            EXPECT_EQ(call_slot<int>(generator, 14), 1);
            gray.datatype = multi.datatype = 0;
        }
        call_slot<void>(generator, 0);
    }
    camera->destroy();
}

TEST_F(Slots, BoardRecognizer)
{
    void* recognizer = library.factory<decltype(CreateCalibBoardRecognizer)>("CreateCalibBoardRecognizer")();
    ASSERT_NE(recognizer, nullptr);

    set_board(recognizer);

    cv::Mat image(60, 80, CV_8UC1, cv::Scalar(200));
    std::vector<cv::Point2f> points;
    using Recognize = int (*)(void*, cv::Mat&, std::vector<cv::Point2f>&);
    EXPECT_EQ(reinterpret_cast<Recognize>((*static_cast<void***>(recognizer))[4])(recognizer, image, points), 2);
    EXPECT_EQ((call_slot<std::string, int>(recognizer, 5, 2)), "Few_Contours");
    EXPECT_EQ(call_slot<cv::Size>(recognizer, 6), cv::Size(80, 60));
    EXPECT_EQ(call_slot<cv::Rect>(recognizer, 7), cv::Rect(1, 1, 3, 2));
    EXPECT_EQ((call_slot<int, cv::Point>(recognizer, 8, cv::Point(0, 0))), 2);

    const std::vector<cv::Point2f> none(6, { FLT_MAX, FLT_MAX });
    std::vector<cv::Point2f> out0, out1;
    std::vector<cv::Point3f> object;
    using Points = const std::vector<cv::Point2f>&;
    using Out = std::vector<cv::Point2f>&;
    using Object = std::vector<cv::Point3f>&;
    EXPECT_EQ((call_slot<int, Points, Out, Object>(recognizer, 9, none, out0, object)), 0);
    EXPECT_EQ((call_slot<int, Points, Points, Out, Out, Object>(recognizer, 10, none, none, out0, out1, object)), 0);

    call_slot<void, std::string, int>(recognizer, 11, testing::TempDir() + "/no_such_kind.png", 1);
    cv::Mat picture;
    call_slot<void, cv::Mat&, int>(recognizer, 12, picture, 2);
    EXPECT_EQ(picture.size(), cv::Size(80, 60));
    call_slot<void>(recognizer, 0);
}

TEST_F(Slots, CameraCalibrator)
{
    void* calibrator = library.factory<decltype(CreateCameraCalibrator)>("CreateCameraCalibrator")();
    ASSERT_NE(calibrator, nullptr);

    cv::Mat_<uchar> blank(60, 80, uchar { 200 });
    using Put = int (*)(void*, uchar*, int, int, unsigned long, bool, std::string);
    auto put_image = reinterpret_cast<Put>((*static_cast<void***>(calibrator))[4]);
    EXPECT_EQ(put_image(calibrator, blank.data, 80, 60, 80, false, ""), -1) << "before set_parameters";
    set_board(calibrator);
    EXPECT_EQ(put_image(calibrator, blank.data, 80, 60, 80, false, ""), 2);
    EXPECT_EQ((call_slot<int, std::string, bool, std::string>(calibrator, 5, "/nowhere.png", false, "")), 2);
    CameraCalibParam param;
    double rms = -7;
    EXPECT_FALSE(
        (call_slot<bool, CameraCalibParam&, std::vector<double>*, double*>(calibrator, 6, param, nullptr, &rms)));
    EXPECT_EQ(rms, -7) << "no view";
    EXPECT_FALSE((call_slot<bool, std::string, std::string>(calibrator, 7, "/nowhere/cam.yaml", "cam")));
    call_slot<void>(calibrator, 2);
}

TEST_F(Slots, StereoCalibrator)
{
    void* calibrator = library.factory<decltype(CreateStereoCalibrator)>("CreateStereoCalibrator")();
    ASSERT_NE(calibrator, nullptr);

    set_board(calibrator);
    cv::Mat_<uchar> blank(60, 80, uchar { 200 });
    using Put = int (*)(void*, int, uchar*, int, int, unsigned long, bool, std::string);
    auto put_image = reinterpret_cast<Put>((*static_cast<void***>(calibrator))[4]);
    EXPECT_EQ(put_image(calibrator, 2, blank.data, 80, 60, 80, false, ""), -1) << "no third camera";
    EXPECT_EQ(put_image(calibrator, 1, blank.data, 80, 60, 80, false, ""), 2);
    EXPECT_EQ((call_slot<int, int, std::string, bool, std::string>(calibrator, 5, 0, "/nowhere.png", false, "")), 2);
    EXPECT_EQ((call_slot<int, std::string, bool, std::string>(calibrator, 6, "/nowhere.png", false, "")), 2);

    CameraCalibParam param;
    using PerView = std::vector<std::vector<double>>*;
    EXPECT_FALSE((call_slot<bool, CameraCalibParam&, PerView, double*>(calibrator, 7, param, nullptr, nullptr)));
    EXPECT_FALSE((call_slot<bool, std::string, std::string>(calibrator, 8, "", "")));
    RectifyParam rectify;
    EXPECT_EQ((call_slot<double, RectifyParam&, int*, int*>(calibrator, 9, rectify, nullptr, nullptr)), -1.0);
    EXPECT_FALSE((call_slot<bool, uchar*, unsigned long, uchar*, unsigned long>(
        calibrator, 10, blank.data, 80ul, blank.data, 80ul)));
    EXPECT_FALSE((call_slot<bool, std::string, std::string>(calibrator, 11, "/nowhere.png", "/nowhere.png")));
    EXPECT_FALSE((call_slot<bool, std::string>(calibrator, 12, "/nowhere.png")));
    EXPECT_FALSE((call_slot<bool, std::string, std::string, std::string>(calibrator, 13, "/nowhere/s.yaml", "", "")));
    EXPECT_FALSE((call_slot<bool, std::string, std::string, std::string, bool>(
        calibrator, 14, "/nowhere/a", "/nowhere/b", "/nowhere/c", false)));
    EXPECT_FALSE((call_slot<bool, std::string>(calibrator, 15, "/nowhere/rt.yaml")));
    call_slot<void>(calibrator, 2);
}
