// Random sequences of interface calls with values from the edges of their types. Every buffer that the host hands
// over ends at a page that cannot be touched and is revoked when the call is over.

#include "support/child.h"
#include "support/guarded_buffer.h"
#include "support/mutate.h"
#include "support/samples.h"

#include "support/board_image.h"

#include <climits>
#include <cmath>
#include <map>
#include <numeric>

using namespace vexo;
using namespace hard;

namespace {

constexpr long calls_per_trial = 100;

/// What the calls must have reached at least once, counted over all child processes.
enum Reached {
    executed0,
    executed1,
    executed2,
    points,
    remapped,
    recognised,
    one_calibrated,
    pair_calibrated,
    rectified,
    reached_count
};
constexpr const char* reached_names[] = { "exec of block matching", "exec of gray code", "exec of multi-period",
    "a cloud with points", "remap", "a board", "a calibration", "a calibration of a pair", "a stereo camera" };
long* reached = nullptr;

/// Counts and hands through.
bool note(Reached what, bool happened)
{
    if (happened) ++reached[what];
    return happened;
}

/// The cloud's buffers are read whole, as a host does.
struct Receiver : PointCloudCallback {
    int calls = 0, w = -1, h = -1;
    long not_nan = 0, sum = 0;
    void receive(
        unsigned char* texture, std::size_t step, int width, int height, cv::Point3_<float>* points, int) override
    {
        ++calls;
        w = width;
        h = height;
        for (int y = 0; texture != nullptr && y < h; ++y)
            sum = std::accumulate(
                texture + static_cast<std::size_t>(y) * step, texture + static_cast<std::size_t>(y) * step + w, sum);
        not_nan = std::count_if(points, points + std::ptrdiff_t { w } * h,
            [](const cv::Point3f& p) { return !std::isnan(p.x) || !std::isnan(p.y) || !std::isnan(p.z); });
    }
};

/// A host that makes no promise but this: its buffers are as large as it says.
class Host {
public:
    Host(Rng& choices, const Folder& files)
        : rng(choices)
        , folder(files)
    {
        for (g = 0; g < 3; ++g)
            make_generator();
        recognizer();
    }
    ~Host()
    {
        for (auto& generator : generators)
            generator.reset(); // before their cameras
    }

    /// One call of some operation. @return the fault seen, or null
    const char* call()
    {
        using Call = const char* (Host::*)();
        constexpr Call calls[] = { &Host::make_camera, &Host::make_generator, &Host::init, &Host::setparams,
            &Host::setpict, &Host::setpict, &Host::all_frames, &Host::loadpict, &Host::getpict, &Host::exec,
            &Host::measure, &Host::genPC, &Host::get_pointcloud, &Host::convert, &Host::remap, &Host::positions,
            &Host::recognizer, &Host::recognize, &Host::board_lists, &Host::board_pictures, &Host::put_image,
            &Host::put_pair, &Host::calibrate, &Host::save };
        g = below(rng, 3);
        return (this->*calls[below(rng, sizeof calls / sizeof calls[0])])();
    }

private:
    bool chance(std::size_t one_in) { return !calm && below(rng, one_in) == 0; }
    int number() { return one_of<int>(rng, { INT_MIN, -1, 0, 1, 2, 3, 5, 9, 13, 14, 15, 1000, INT_MAX }); }
    double real()
    {
        return one_of<double>(rng, { 0.0, -0.0, 1.0, -1.0, 0.5, 1e-300, 1e300, 1e9, NAN, INFINITY, -INFINITY });
    }
    unsigned long step_of(unsigned long row)
    {
        if (chance(8)) return one_of<unsigned long>(rng, { 1, row - 1, ULONG_MAX, ULONG_MAX / 2 + 1 });
        return row + one_of<unsigned long>(rng, { 0, 0, 1, 7, 64 });
    }
    /// A buffer for this call; revoked by the next.
    GuardedBuffer& buffer(std::size_t bytes)
    {
        if (!buffers.empty()) buffers.back()->revoke();
        buffers.push_back(std::make_unique<GuardedBuffer>(std::min(bytes, std::size_t { 1 } << 24)));
        for (std::size_t i = 0; i < buffers.back()->size(); ++i)
            buffers.back()->data()[i] = static_cast<uint8_t>(rng() >> 56);
        return *buffers.back();
    }
    /// Some field of a record set to a value from the edges.
    template <class Record> void disturb(Record& record, std::size_t bytes = sizeof(Record))
    {
        const bool wide = chance(2) && bytes >= 8;
        const std::size_t size = wide ? 8 : 4;
        const std::size_t at = below(rng, bytes / size) * size;
        const double r = real();
        const int n = number();
        std::memcpy(reinterpret_cast<char*>(&record) + at, wide ? static_cast<const void*>(&r) : &n, size);
    }
    iStereoCamera* any_camera() { return cameras.empty() ? nullptr : cameras[below(rng, cameras.size())].get(); }

    const char* make_camera()
    {
        double K[] = { 60, 0, 24, 0, 60, 18, 0, 0, 1 }, D[] = { -0.1, 0.02, 0.001, 0, 0 };
        double R[] = { 1, 0, 0, 0, 1, 0, 0, 0, 1 }, T[] = { -50, 0, 0 };
        StereoCameraParam param;
        const cv::Size size = chance(4) ? one_of<cv::Size>(rng,
                                  { { 1, 1 }, { 1, 36 }, { 33, 2 }, { 0, 0 }, { -1, 5 }, { 32766, 1 }, { 1, 32767 },
                                      { 8192, 8193 }, { INT_MAX, INT_MAX } })
                                        : one_of<cv::Size>(rng, { { 48, 36 }, { 64, 48 }, { 49, 37 } });
        param.inp_width = size.width;
        param.inp_height = size.height;
        if (chance(3)) param.out_width = 40, param.out_height = 30;
        if (chance(4)) disturb(param);
        if (chance(3)) one_of<double*>(rng, { K, D, R, T })[below(rng, 3)] = real();
        if (param.out_width > 40000 || param.out_height > 4000 || param.inp_height > 40000) return nullptr;
        const double* const null = nullptr;
        if (chance(4)) return keep(Owned<iStereoCamera>(rig::make_camera().release()));
        Owned<iStereoCamera> made(
            CreateStereoCameraFromRaw(K, D, chance(40) ? null : K, D, R, T, chance(40) ? nullptr : &param));
        return made ? keep(std::move(made)) : nullptr;
    }

    const char* keep(Owned<iStereoCamera> made)
    {
        if (!(made->get_baseline_length() > 0.0)) return "a camera without a baseline";
        if (cameras.size() < 3) {
            cameras.push_back(std::move(made));
            return nullptr;
        }
        auto& replaced = cameras[below(rng, cameras.size())];
        for (auto& generator : generators)
            generator->init(nullptr);
        std::fill(std::begin(bound), std::end(bound), nullptr);
        replaced.swap(made);
        return nullptr;
    }

    const char* make_generator()
    {
        generators[g].reset(CreatePointCloudGenerator(static_cast<int>(g)));
        bound[g] = nullptr;
        float_from[g] = none;
        return generators[g] ? nullptr : "no generator";
    }

    const char* init()
    {
        bound[g] = chance(10) ? nullptr : any_camera();
        generators[g]->init(bound[g]);
        return nullptr;
    }

    template <class Record> bool hand_over(const Record& record, std::size_t bytes)
    {
        GuardedBuffer& copy = buffer(bytes);
        std::memcpy(copy.data(), &record, bytes);
        return generators[g]->setparams(copy.data());
    }

    const char* setparams()
    {
        if (chance(20)) return generators[g]->setparams(nullptr) ? "a null record was taken" : nullptr;
        const int changes = chance(2) ? static_cast<int>(1 + below(rng, 3)) : 0;
        const auto taken = [&](auto record, std::size_t bytes) {
            for (int i = 0; i < changes; ++i)
                disturb(record, bytes);
            const bool good = hand_over(record, bytes);
            if (good && why_invalid(record) != nullptr) fault = "an invalid record was taken";
            return good;
        };
        GrayPhaseMatchingParam gray;
        MultiPhaseMatchingParam multi;
        SGBMatchingParam sgbm;
        gray.datatype = multi.datatype = chance(2) ? 1 : 0;
        sgbm.numDisparities = 16;
        gray.max_phase_diff = 0.15;
        gray.anchor_length = 2;
        if (g == 0) taken(sgbm, sizeof sgbm);
        // The type of the frames follows the record that was taken, which may not be the one made here.
        if (g == 1 && taken(gray, sizeof gray)) float_from[1] = last_datatype(gray) == 0 ? none : 3;
        if (g == 2 && taken(multi, multi_phase_param_bytes)) float_from[2] = last_datatype(multi) == 0 ? none : 2;
        return fault;
    }
    template <class Record> int last_datatype(const Record&) const
    {
        Record handed;
        std::memcpy(
            static_cast<void*>(&handed), buffers.back()->data(), std::min(sizeof handed, buffers.back()->size()));
        return handed.datatype;
    }

    bool give(int cam, int frame, unsigned long step, const cv::Mat& picture = {})
    {
        int w = 0, h = 0;
        if (bound[g] != nullptr) bound[g]->get_inpimage_size(&w, &h);
        const auto width_bytes = static_cast<unsigned long>(w) * (frame >= float_from[g] ? 4 : 1);
        const unsigned long row = width_bytes * (cam == 2 ? 2 : 1);
        const unsigned long used = step == 0 ? row : step;
        const bool sound = used >= row && used < 1UL << 20 && h > 0;
        const unsigned long last = cam == 2 ? std::max(row, used / 2 + width_bytes) : row;
        GuardedBuffer& frame_bytes = buffer(sound ? (static_cast<unsigned long>(h) - 1) * used + last : 64);
        if (picture.isContinuous() && picture.total() == frame_bytes.size())
            std::memcpy(frame_bytes.data(), picture.data, picture.total());
        const bool taken = generators[g]->setpict(frame_bytes.data(), step, cam, frame);
        if (taken && (!sound || cam < 0 || cam > 2 || (g > 0 && frame < 0))) fault = "a frame was taken wrongly";
        return taken;
    }

    const char* setpict()
    {
        if (chance(20)) return generators[g]->setpict(nullptr, 0, 0, 0) ? "a null frame was taken" : nullptr;
        const int cam = chance(5) ? number() : static_cast<int>(below(rng, 3));
        const int frame = chance(5) ? number() : static_cast<int>(below(rng, 15));
        give(cam, frame, chance(3) ? 0 : step_of(frame >= float_from[g] ? 400 : 100));
        return fault;
    }

    const char* all_frames()
    {
        static const std::vector<cv::Mat> captures[2][2] = { { rig::gray_phase_frames(0), rig::gray_phase_frames(1) },
            { rig::multi_phase_frames(0), rig::multi_phase_frames(1) } };
        for (int frame = 0; frame < generators[g]->requiredframes(); ++frame)
            for (int cam = 0; cam < 2; ++cam)
                give(cam, frame, 0, g == 0 ? cv::Mat() : captures[g - 1][cam][static_cast<std::size_t>(frame)]);
        return fault;
    }

    const char* loadpict()
    {
        const auto* name = one_of<const char*>(rng, { "picture.png", "picture.pgm", "rt.yaml", "none", "" });
        generators[g]->loadpict(folder / name, chance(4) ? number() : 0, chance(4) ? number() : 1);
        return nullptr;
    }

    const char* getpict()
    {
        unsigned char* data = nullptr;
        int w = -7, h = -7;
        unsigned long step = 7;
        const int cam = chance(5) ? number() : static_cast<int>(below(rng, 3));
        const bool given = generators[g]->getpict(
            chance(30) ? nullptr : &data, &w, chance(30) ? nullptr : &h, &step, cam, chance(5) ? number() : 1);
        if (!given) return data == nullptr && w == -7 && h == -7 && step == 7 ? nullptr : "outputs were touched";
        long sum = 0;
        for (int y = 0; y < h; ++y)
            sum = std::accumulate(
                data + static_cast<unsigned long>(y) * step, data + static_cast<unsigned long>(y) * step + w, sum);
        return sum < 0 || w < 1 || h < 1 ? "an empty picture was handed out" : nullptr;
    }

    const char* exec()
    {
        try {
            const auto what = static_cast<Reached>(executed0 + static_cast<int>(g));
            if (note(what, generators[g]->exec()) && bound[g] == nullptr) return "exec succeeded without a camera";
        } catch (const cv::Exception&) {
            if (g != 0) throw; // block matching states that it may
        }
        return nullptr;
    }

    const char* genPC()
    {
        method[g] = chance(6) ? number() : 0;
        generators[g]->genPC(static_cast<iPointCloudGenerator::Method3D>(method[g]), chance(2));
        return nullptr;
    }

    const char* get_pointcloud()
    {
        Receiver seen;
        const int count = generators[g]->get_pointcloud(&seen);
        if (seen.calls != 1 || generators[g]->get_pointcloud(nullptr) != count) return "not called once";
        note(points, count > 0);
        int w = 0, h = 0;
        if (bound[g] != nullptr) bound[g]->get_outimage_size(&w, &h);
        if (seen.w != 0 && (seen.w != w || seen.h != h)) return "a cloud of another size";
        if (count < 0 || count > w * h) return "an impossible count";
        const bool by_rays = method[g] == 1 || method[g] == 2;
        return seen.w == 0 || by_rays || count == seen.not_nan ? nullptr : "a wrong count";
    }

    /// A measurement as it should be, amid all else.
    const char* measure()
    {
        calm = true;
        using Call = const char* (Host::*)();
        for (const Call step : std::initializer_list<Call> { &Host::make_generator, &Host::init, &Host::setparams,
                 &Host::all_frames, &Host::exec, &Host::genPC, &Host::get_pointcloud })
            if (fault == nullptr) fault = (this->*step)();
        calm = false;
        return fault;
    }

    const char* convert()
    {
        if (chance(3)) {
            generators[g]->convert_coordinate(folder / one_of<const char*>(rng, { "rt.yaml", "cams.yaml", "none" }));
            return nullptr;
        }
        std::vector<double> rt { 1, 0, 0, 1, 0, 1, 0, 2, 0, 0, 1, 3, 0, 0, 0, 1 };
        if (chance(2)) rt[below(rng, 16)] = real();
        if (chance(5)) rt.resize(below(rng, 20));
        rt.shrink_to_fit();
        const bool bad
            = rt.size() < 16 || !std::all_of(rt.begin(), rt.begin() + 16, [](double v) { return std::isfinite(v); });
        return generators[g]->convert_coordinate(rt) && bad ? "a bad transform was taken" : nullptr;
    }

    const char* remap()
    {
        iStereoCamera* camera = any_camera();
        if (camera == nullptr) return nullptr;
        int in_w = 0, in_h = 0, w = 0, h = 0;
        camera->get_inpimage_size(&in_w, &in_h);
        camera->get_outimage_size(&w, &h);
        const int which = chance(5) ? number() : static_cast<int>(below(rng, 3));
        const unsigned long halves = which == 2 ? 2 : 1;
        const unsigned long in_row = halves * static_cast<unsigned long>(in_w),
                            row = halves * static_cast<unsigned long>(w);
        const unsigned long in_step = chance(4) ? 0 : step_of(in_row), step = chance(4) ? 0 : step_of(row);
        const auto sound = [](unsigned long s, unsigned long least) { return s == 0 || (s >= least && s < 1UL << 20); };
        const auto bytes = [](int rows, unsigned long s, unsigned long least) {
            return (static_cast<unsigned long>(rows) - 1) * (s == 0 ? least : s) + least; // 0: packed rows
        };
        const bool both = sound(in_step, in_row) && sound(step, row) && which >= 0 && which <= 2;
        const GuardedBuffer to(both ? bytes(h, step, row) : 16);
        GuardedBuffer& from = buffer(both ? bytes(in_h, in_step, in_row) : 16);
        const bool done = camera->remap(from.data(), in_step, to.data(), step, which);
        return note(remapped, done) == both ? nullptr : done ? "remapped wrongly" : "a good picture was refused";
    }

    const char* positions()
    {
        iStereoCamera* camera = any_camera();
        if (camera == nullptr) return nullptr;
        double xyz[3];
        const GuardedBuffer space(32);
        auto* pixels = reinterpret_cast<double*>(space.data());
        for (int i = 0; i < 4; ++i)
            pixels[i] = chance(3) ? real() : 10.0 * i;
        if (!camera->get3dposition(xyz, number(), number(), real())) return "the Q method answered false";
        camera->get3dposition(xyz, pixels, pixels + 2);
        camera->get3dposition(xyz, real(), pixels, pixels + 2);
        camera->get3dposition(nullptr, 1, 1, 1.0);
        return nullptr;
    }

    // --- the board ---------------------------------------------------------------------------------------

    static const cv::Mat& board_picture()
    {
        static const cv::Mat picture = board_image::small_picture();
        return picture;
    }

    template <class Object> void set_board(Object& object)
    {
        PreProcParam pre;
        CircleMarkerParam circle = board_image::marker_settings();
        CalibBoardParam board = board_image::coarse_board().param;
        if (chance(2)) {
            if (chance(3)) disturb(circle);
            if (chance(4)) disturb(board);
            if (chance(4)) pre.binarize_mode = number(), pre.threshold = number(), pre.C = number();
            if (chance(4)) pre.gamma = real();
            pre.invert = chance(4), pre.median = chance(2), pre.equalize = chance(3);
        }
        circle.debug_scale = 0; // no windows here
        const bool taken = object.set_parameters(pre, circle, board);
        if (taken) bad_block[&object] = pre.binarize_mode == 2 && (pre.threshold < 3 || pre.threshold % 2 == 0);
        if (taken && (!(board.pitch > 0) || board.columns < 1 || board.rows < 1)) fault = "a bad board was taken";
    }

    const char* recognizer()
    {
        if (!board || chance(10)) board.reset(CreateCalibBoardRecognizer());
        if (!camera_calibrator || chance(30)) camera_calibrator.reset(CreateCameraCalibrator());
        if (!stereo_calibrator || chance(30)) stereo_calibrator.reset(CreateStereoCalibrator());
        set_board(*board);
        set_board(*camera_calibrator);
        set_board(*stereo_calibrator);
        return fault;
    }

    /// A picture in a buffer of its own: the board, noise, or nothing good.
    cv::Mat picture(bool seen)
    {
        const cv::Mat& good = board_picture();
        if (seen) {
            GuardedBuffer& copy = buffer(good.total());
            std::memcpy(copy.data(), good.data, good.total());
            return cv::Mat(good.rows, good.cols, CV_8U, copy.data());
        }
        const int type = one_of<int>(rng, { CV_8U, CV_8U, CV_8U, CV_8UC3, CV_16U, CV_32F });
        const cv::Size size
            = one_of<cv::Size>(rng, { { 400, 320 }, { 1, 1 }, { 1, 200 }, { 0, 0 }, { 64, 1 }, { 90, 70 } });
        GuardedBuffer& noise
            = buffer(static_cast<std::size_t>(size.area()) * static_cast<std::size_t>(CV_ELEM_SIZE(type)));
        return size.area() == 0 ? cv::Mat() : cv::Mat(size, type, noise.data());
    }

    template <class Work> int stated_exception(Work work)
    {
        try {
            return work();
        } catch (const cv::Exception&) {
            return INT_MIN;
        }
    }
    /// Of taking a picture: for an adaptive block that is even or too small alone.
    template <class Object, class Work> int block_exception(const Object& object, Work work)
    {
        const int code = stated_exception(work);
        if (code == INT_MIN && !bad_block[object.get()]) fault = "an exception that is not stated";
        return code;
    }

    const char* recognize()
    {
        cv::Mat image = picture(chance(3));
        std::vector<cv::Point2f> found;
        const int code = block_exception(board, [&] { return board->recognize(image, found); });
        const cv::Rect range = board->get_marker_range();
        if (code == 0 && found.size() != static_cast<std::size_t>(range.width) * static_cast<std::size_t>(range.height))
            return "a list of another length";
        if (note(recognised, code == 0)) list = found;
        return code == INT_MIN || (code >= 0 && code <= 5) ? fault : "an unknown code";
    }

    const char* board_lists()
    {
        std::vector<cv::Point2f> a, b, in = list;
        std::vector<cv::Point3f> on_board;
        if (chance(3)) in.resize(below(rng, 200));
        in.shrink_to_fit();
        const int n = board->corresponding_points(in, a, on_board);
        if (n != static_cast<int>(a.size()) || a.size() != on_board.size()) return "lists of unequal length";
        const int m = board->corresponding_points(in, list, a, b, on_board);
        board->get_marker_index({ number(), number() });
        board->get_error_name(number());
        return m == static_cast<int>(b.size()) && a.size() == b.size() ? nullptr : "lists of unequal length";
    }

    const char* board_pictures()
    {
        cv::Mat copy;
        board->copy_result_image(copy, number());
        board->show_result_image(number());
        board->save_result_image(folder / one_of<const char*>(rng, { "out.png", "out", "no/out.png", "." }), number());
        return nullptr;
    }

    const char* put_image()
    {
        cv::Mat image = picture(chance(3));
        int w = image.cols, h = image.rows;
        unsigned long step = image.empty() ? 0 : image.step[0];
        if (chance(6)) w = one_of<int>(rng, { INT_MIN, -1, 0 });
        if (chance(6)) step = one_of<unsigned long>(rng, { 0, 1, ULONG_MAX, ULONG_MAX / 2 + 1 });
        if (chance(20)) image.data = nullptr, w = 400, h = 320;
        const std::string save = chance(8) ? folder / "result.png" : "";
        block_exception(
            camera_calibrator, [&] { return camera_calibrator->put_image(image.data, w, h, step, false, save); });
        const int code = block_exception(stereo_calibrator, [&] {
            return stereo_calibrator->put_image(chance(5) ? number() : 0, image.data, w, h, step, false, save);
        });
        return code == INT_MIN || (code >= -1 && code <= 5) ? fault : "an unknown code";
    }

    const char* put_pair()
    {
        cv::Mat image = picture(true);
        for (int cam = 0; cam < 2; ++cam)
            block_exception(stereo_calibrator,
                [&] { return stereo_calibrator->put_image(cam, image.data, 400, 320, 400, false, ""); });
        block_exception(
            stereo_calibrator, [&] { return stereo_calibrator->put_image(folder / "picture.png", false, ""); });
        block_exception(
            camera_calibrator, [&] { return camera_calibrator->put_image(folder / "picture.jpg", false, ""); });
        return fault;
    }

    const char* calibrate()
    {
        if (!chance(16)) return nullptr;
        CameraCalibParam param;
        if (chance(4)) disturb(param);
        std::vector<double> errors;
        std::vector<std::vector<double>> both;
        double rms = 0;
        note(one_calibrated, stated_exception([&] {
            return camera_calibrator->do_calibrate(param, chance(5) ? nullptr : &errors, &rms) ? 1 : 0;
        }) == 1);
        note(pair_calibrated, stereo_calibrator->do_calibrate(param, &both, chance(5) ? nullptr : &rms));
        RectifyParam rectify;
        if (chance(3)) disturb(rectify);
        if (rectify.width > 40000 || rectify.height > 4000) rectify = {};
        int roi[4];
        note(rectified, stereo_calibrator->create_stereo_camera(rectify, chance(3) ? nullptr : roi, nullptr) > 0);
        cv::Mat image = picture(true);
        stereo_calibrator->create_stereo_brdcrd(image.data, 400, image.data, chance(4) ? ULONG_MAX : 400);
        return nullptr;
    }

    const char* save()
    {
        const std::string a = folder / one_of<const char*>(rng, { "a.yaml", "no/a.yaml", "" }), b = folder / "b.bin";
        camera_calibrator->save_calibfile(a, one_of<const char*>(rng, { "", "cam7", "7", "a: b", "\n" }));
        stereo_calibrator->save_calibfile(a, chance(2) ? a : "");
        stereo_calibrator->save_stereofile(a, chance(2) ? b : "", chance(2) ? b : a);
        stereo_calibrator->save_stereohmat(a, b, folder / "c.bin", chance(2));
        stereo_calibrator->save_boardRT(a);
        return nullptr;
    }

    static constexpr long none = LONG_MAX;
    Rng& rng;
    const Folder& folder;
    std::vector<Owned<iStereoCamera>> cameras;
    std::size_t g = 0; ///< the generator of this call
    Owned<iPointCloudGenerator> generators[3];
    iStereoCamera* bound[3] = {};
    long float_from[3] = { none, none, none }; ///< frames from here on are floats
    int method[3] = {};
    Owned<iCalibBoardRecognizer> board;
    Owned<iCameraCalibrator> camera_calibrator;
    Owned<iStereoCalibrator> stereo_calibrator;
    std::map<const void*, bool> bad_block; ///< of the parameters that each object took last
    std::vector<cv::Point2f> list;
    std::vector<std::unique_ptr<GuardedBuffer>> buffers; ///< all but the last revoked
    const char* fault = nullptr;
    bool calm = false; ///< no surprises
};

} // namespace

int main(int argc, char** argv)
{
    const Options options(argc, argv);
    const Folder folder;
    if (in_child([&] { return write_samples(folder) ? 0 : 1; }) != 0) return 1;
    reached = static_cast<long*>(mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    const long found = run_trials("calls: sequences of 100 interface calls", argv[0], options, 20000 / calls_per_trial,
        [&](long i) {
            Rng rng = rng_of(options.seed, i);
            Host host(rng, folder);
            const char* fault = nullptr;
            for (long n = 0; n < calls_per_trial && fault == nullptr; ++n)
                fault = host.call();
            return fault;
        },
        { 30, std::size_t { 3 } << 30 });
    bool all = true;
    for (int i = 0; i < reached_count && options.only < 0; ++i) {
        if (reached[i] > 0) continue;
        all = false;
        std::printf("  never reached: %s\n", reached_names[i]);
    }
    return found == 0 && all ? 0 : 1;
}
