// why_invalid() of every record, against the calls that the record is for.
#include "support/calibration_views.h"
#include "support/folder.h"
#include "support/no_display.h"
#include "vexo/vexo.h"

#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>

using namespace vexo;

namespace {

std::vector<double> edges(double)
{
    return { -INFINITY, -DBL_MAX, -1.0, -0.0, 0.0, FLT_MIN / 2, FLT_MIN, 0.5, 400.5, FLT_MAX, 4e38, INFINITY, NAN };
}
std::vector<int32_t> edges(int32_t)
{
    return { INT32_MIN, -17, -1, 0, 1, 2, 3, 4, 5, 15, 16, 100, 101, 2903, 32768, 1000000, 1000001, INT32_MAX };
}
std::vector<uint8_t> edges(uint8_t)
{
    return { 0, 1, 255 };
}
std::vector<bool> edges(bool)
{
    return { false, true };
}

template <class Record, class Value> struct Field {
    const char* name;
    Value Record::*member;
};
template <class Record, class Value> Field(const char*, Value Record::*) -> Field<Record, Value>;

/// Whether a fault, or none, is what the call says.
template <class Accepts, class Record>
void expect_fits(const char* fault, const char* field, const Accepts& accepts, Record record)
{
    EXPECT_EQ(fault == nullptr, accepts(record)) << field << ": " << (fault == nullptr ? "no fault" : fault);
    EXPECT_TRUE(fault == nullptr || std::string(fault).find(field) != std::string::npos) << fault;
}

/// Gives one field after the other values at all limits that there are; `sound` is accepted.
template <class Record, class Accepts, class... Values>
void expect_null_exactly_when_accepted(const Record& sound, const Accepts& accepts, Field<Record, Values>... fields)
{
    expect_fits(why_invalid(sound), "", accepts, sound);
    const auto sweep = [&](auto field) {
        for (const auto value : edges(sound.*field.member)) {
            Record record = sound;
            record.*field.member = value;
            expect_fits(why_invalid(record), field.name, accepts, record);
        }
    };
    (sweep(fields), ...);
}

template <class Record, class... Values> void expect_of_generator(int selector, Field<Record, Values>... fields)
{
    const NoDisplay quiet;
    const Owned<iPointCloudGenerator> generator(CreatePointCloudGenerator(selector));
    const auto accepts = [&](Record& record) { return generator->setparams(&record); };
    expect_null_exactly_when_accepted(Record {}, accepts, fields...);
}

/// The fields that both phase matchers' records have.
template <class Record, class... Values> void expect_of_matcher(int selector, Field<Record, Values>... fields)
{
    expect_of_generator<Record>(selector, Field { "max_phase_diff", &Record::max_phase_diff },
        Field { "max_disparity", &Record::max_disparity }, Field { "min_disparity", &Record::min_disparity },
        Field { "fit_points", &Record::fit_points }, Field { "datatype", &Record::datatype },
        Field { "min_contrast", &Record::min_contrast }, Field { "max_white", &Record::max_white },
        Field { "min_white", &Record::min_white }, fields...);
}

/// Both calibrators, with four views of a board each.
struct Calibrators {
    Calibrators()
    {
        EXPECT_TRUE(
            board_photos::know_board(*one) && board_photos::know_board(*pair) && board_photos::give_views(*one, *pair));
    }
    template <class Calibrator> static bool accepts(Calibrator& calibrator, CameraCalibParam& record)
    {
        try {
            return calibrator->do_calibrate(record, nullptr, nullptr);
        } catch (const cv::Exception&) {
            return false;
        }
    }

    const Owned<iCameraCalibrator> one { CreateCameraCalibrator() };
    const Owned<iStereoCalibrator> pair { CreateStereoCalibrator() };
};

} // namespace

TEST(WhyInvalid, OfGeneratorsRecordsIsNullExactlyWhenSetparamsAccepts)
{
    using Sgbm = SGBMatchingParam;
    using Gray = GrayPhaseMatchingParam;
    using Multi = MultiPhaseMatchingParam;
    expect_of_generator<Sgbm>(0, Field { "minDisparity", &Sgbm::minDisparity },
        Field { "numDisparities", &Sgbm::numDisparities }, Field { "blockSize", &Sgbm::blockSize },
        Field { "P1", &Sgbm::P1 }, Field { "P2", &Sgbm::P2 }, Field { "disp12MaxDiff", &Sgbm::disp12MaxDiff },
        Field { "preFilterCap", &Sgbm::preFilterCap }, Field { "uniquenessRatio", &Sgbm::uniquenessRatio },
        Field { "speckleWindowSize", &Sgbm::speckleWindowSize }, Field { "speckleRange", &Sgbm::speckleRange },
        Field { "mode", &Sgbm::mode });
    expect_of_matcher<Gray>(1, Field { "anchor_length", &Gray::anchor_length },
        Field { "reject_length", &Gray::reject_length }, Field { "code_spread", &Gray::code_spread });
    expect_of_matcher<Multi>(2, Field { "steps", &Multi::steps }, Field { "nperiods", &Multi::nperiods });
}

TEST(WhyInvalid, OfBoardRecordsIsNullExactlyWhenTheRecogniserAccepts)
{
    const NoDisplay quiet;
    const Owned<iCalibBoardRecognizer> recognizer(CreateCalibBoardRecognizer());
    cv::Mat picture = board_photos::small_photo();
    const auto accepts = [&](PreProcParam pre, CircleMarkerParam circle, CalibBoardParam board) {
        if (!recognizer->set_parameters(pre, circle, board)) return false;
        std::vector<cv::Point2f> points;
        try {
            recognizer->recognize(picture, points);
            return true;
        } catch (const cv::Exception&) {
            return false;
        }
    };
    using Pre = PreProcParam;
    using Circle = CircleMarkerParam;
    using Board = CalibBoardParam;
    const Board board = board_photos::coarse_board().param();
    Pre adaptive;
    adaptive.binarize_mode = 2;
    adaptive.threshold = 101;
    expect_null_exactly_when_accepted(
        adaptive, [&](Pre& pre) { return accepts(pre, {}, board); }, Field { "invert", &Pre::invert },
        Field { "equalize", &Pre::equalize }, Field { "median", &Pre::median },
        Field { "binarize_mode", &Pre::binarize_mode }, Field { "threshold", &Pre::threshold }, Field { "C", &Pre::C },
        Field { "gamma", &Pre::gamma });
    expect_null_exactly_when_accepted(
        Pre {}, [&](Pre& pre) { return accepts(pre, {}, board); }, Field { "binarize_mode", &Pre::binarize_mode },
        Field { "threshold", &Pre::threshold });
    expect_null_exactly_when_accepted(
        Circle {}, [&](Circle& circle) { return accepts({}, circle, board); },
        Field { "min_fit_score", &Circle::min_fit_score }, Field { "min_markers", &Circle::min_markers },
        Field { "max_radius", &Circle::max_radius }, Field { "min_radius", &Circle::min_radius },
        Field { "image_width", &Circle::image_width }, Field { "image_height", &Circle::image_height },
        Field { "debug_scale", &Circle::debug_scale });
    expect_null_exactly_when_accepted(
        Board { 12.0, 1, 1, 0, 0, 1.2 }, [&](Board& changed) { return accepts({}, {}, changed); },
        Field { "pitch", &Board::pitch }, Field { "columns", &Board::columns }, Field { "rows", &Board::rows },
        Field { "origin_x", &Board::origin_x }, Field { "origin_y", &Board::origin_y },
        Field { "neighbour_limit", &Board::neighbour_limit });
    const Board largest { 12.0, 1000, 1000, 0, 0, 1.2 }, larger { 12.0, 1000, 1001, 0, 0, 1.2 };
    for (const Board& square : { largest, larger })
        expect_fits(
            why_invalid(square), "rows", [&](Board& b) { return accepts({}, {}, b); }, square);
}

TEST(WhyInvalid, OfStereoRecordsIsNullExactlyWhenAPairIsRectified)
{
    const NoDisplay quiet;
    const double K[] = { 60, 0, 24, 0, 60, 18, 0, 0, 1 }, D[5] = {}, R[] = { 1, 0, 0, 0, 1, 0, 0, 0, 1 },
                 T[] = { -50, 0, 0 };
    using Param = StereoCameraParam;
    Param sound;
    sound.inp_width = 48, sound.inp_height = 36, sound.out_width = 40, sound.out_height = 30;
    const Field width { "out_width", &Param::out_width }, height { "out_height", &Param::out_height };
    const Field alpha { "alpha", &Param::alpha };
    const Field flags { "flags", &Param::flags };
    const auto from_raw = [&](Param& param) {
        return Owned<iStereoCamera>(CreateStereoCameraFromRaw(K, D, K, D, R, T, &param)) != nullptr;
    };
    expect_null_exactly_when_accepted(sound, from_raw, Field { "inp_width", &Param::inp_width },
        Field { "inp_height", &Param::inp_height }, width, height, alpha, flags, Field { "fill0", &Param::fill0 },
        Field { "fill1", &Param::fill1 });

    const Calibrators calibrators;
    const Folder folder;
    const std::vector<std::string> file { folder / "cameras.yaml" };
    CameraCalibParam param;
    ASSERT_TRUE(Calibrators::accepts(calibrators.pair, param) && calibrators.pair->save_calibfile(file[0], ""));
    sound.inp_width = 400, sound.inp_height = 320;
    const auto from_file
        = [&](Param& record) { return Owned<iStereoCamera>(CreateStereoCamera(2, &file, &record)) != nullptr; };
    expect_null_exactly_when_accepted(sound, from_file, width, height, alpha, flags);

    using Rectify = RectifyParam;
    const auto rectifies
        = [&](Rectify& record) { return calibrators.pair->create_stereo_camera(record, nullptr, nullptr) > 0; };
    expect_null_exactly_when_accepted(Rectify { -1, 0, 40, 30 }, rectifies, Field { "alpha", &Rectify::alpha },
        Field { "flags", &Rectify::flags }, Field { "width", &Rectify::width }, Field { "height", &Rectify::height },
        Field { "fill0", &Rectify::fill0 }, Field { "fill1", &Rectify::fill1 });
    expect_fits(why_invalid(Rectify {}), "", rectifies, Rectify {});
}

TEST(WhyInvalid, OfCalibrationOptionsIsNullExactlyWhenTheCalibratorsAccept)
{
    const NoDisplay quiet;
    const Calibrators calibrators;
    const double guesses[] = { -INFINITY, -1.0, -0.0, 0.0, 440.0, INFINITY, NAN };
    for (const double guess : guesses)
        for (const int flags : { 0, 1 }) {
            const CameraCalibParam param { 0, 0, guess, flags };
            expect_fits(
                why_invalid(param), "focal_guess",
                [&](CameraCalibParam& record) { return Calibrators::accepts(calibrators.one, record); }, param);
        }
    constexpr int thin_prism = 1 << 15, extrinsic_guess = 1 << 22;
    // In this order: the distortion terms that a calibration has added stay.
    for (const int others : { 0, 1, 1 << 8, 1 << 14, 1 << 18 })
        for (const int flags : { others, others | thin_prism, others | extrinsic_guess }) {
            const CameraCalibParam param { 0, 0, 440.0, flags };
            expect_fits(
                why_invalid_for_pair(param), "flags",
                [&](CameraCalibParam& record) { return Calibrators::accepts(calibrators.pair, record); }, param);
        }
}
