// Random sequences of interface calls with values from the edges of their types. Every buffer that the host hands
// over ends at a page that cannot be touched and is revoked when the call is over. What each call must answer to what
// is held by the modules' own tests; here only what no sequence of calls may lead to.

#include "support/child.h"
#include "support/guarded_buffer.h"
#include "support/mutate.h"
#include "support/reached.h"
#include "support/samples.h"
#include "support/station.h"

#include <climits>
#include <cmath>

using namespace vexo;
using namespace hard;

namespace {

/// A host that makes no promise but this: its buffers are as large as it says.
class Host {
public:
    Host(Rng& choices, const Folder& files)
        : rng(choices)
        , folder(files)
    {
        for (g = 0; g < 3; ++g)
            make_generator();
        make_calibrators();
    }

    /// One call of some operation. @return the fault seen, or null
    const char* call()
    {
        using Call = const char* (Host::*)();
        constexpr Call calls[] = { &Host::make_camera, &Host::make_generator, &Host::init, &Host::setparams,
            &Host::setpict, &Host::setpict, &Host::all_frames, &Host::getpict, &Host::exec, &Host::measure,
            &Host::genPC, &Host::get_pointcloud, &Host::remap, &Host::positions, &Host::make_calibrators,
            &Host::put_image, &Host::calibrate, &Host::save };
        g = static_cast<int>(below(rng, 3));
        return (this->*calls[below(rng, std::size(calls))])();
    }

private:
    bool chance(std::size_t one_in) { return !calm && below(rng, one_in) == 0; }
    int number() { return one_of<int>(rng, { INT_MIN, -1, 0, 1, 2, 3, 5, 9, 13, 14, 15, 1000, INT_MAX }); }
    int mostly(std::size_t most) { return chance(5) ? number() : static_cast<int>(below(rng, most)); }
    double real()
    {
        return one_of<double>(rng, { 0.0, -0.0, 1.0, -1.0, 0.5, 1e-300, 1e300, 1e9, NAN, INFINITY, -INFINITY });
    }
    unsigned long step_of(unsigned long row)
    {
        if (chance(8)) return one_of<unsigned long>(rng, { 1, row - 1, ULONG_MAX, ULONG_MAX / 2 + 1 });
        return row + one_of<unsigned long>(rng, { 0, 0, 1, 7, 64 });
    }
    /// 0: packed rows.
    static bool is_sound(unsigned long step, unsigned long row)
    {
        return step == 0 || (step >= row && step < 1UL << 20);
    }
    /// A buffer for this call, of random bytes; revoked by the next.
    GuardedBuffer& buffer(std::size_t bytes)
    {
        if (!buffers.empty()) buffers.back()->revoke();
        buffers.push_back(std::make_unique<GuardedBuffer>(std::min(bytes, std::size_t { 1 } << 24)));
        for (std::size_t i = 0; i < buffers.back()->size(); ++i)
            buffers.back()->data()[i] = static_cast<uint8_t>(rng() >> 56);
        return *buffers.back();
    }
    GuardedBuffer& buffer(const void* from, std::size_t bytes)
    {
        GuardedBuffer& copy = buffer(bytes);
        std::memcpy(copy.data(), from, bytes);
        return copy;
    }
    /// Some field of a record set to a value from the edges.
    template <class Record> void disturb(Record& record, std::size_t bytes = sizeof(Record))
    {
        const bool wide = chance(2) && bytes >= 8;
        const std::size_t size = wide ? 8 : 4;
        const double r = real();
        const int n = number();
        std::memcpy(reinterpret_cast<char*>(&record) + below(rng, bytes / size) * size,
            wide ? static_cast<const void*>(&r) : &n, size);
    }
    iStereoCamera* any_camera() { return cameras.empty() ? nullptr : cameras[below(rng, cameras.size())].get(); }
    iPointCloudGenerator& generator() { return *generators[g]; }

    const char* make_camera()
    {
        double K[] = { 60, 0, 24, 0, 60, 18, 0, 0, 1 }, D[] = { -0.1, 0.02, 0.001, 0, 0 };
        double R[] = { 1, 0, 0, 0, 1, 0, 0, 0, 1 }, T[] = { -50, 0, 0 };
        StereoCameraParam param;
        auto size = one_of<cv::Size>(rng, { { 48, 36 }, { 64, 48 }, { 49, 37 } });
        if (chance(4))
            size = one_of<cv::Size>(
                rng, { { 1, 1 }, { 1, 36 }, { 33, 2 }, { 0, 0 }, { -1, 5 }, { 1, 32767 }, { INT_MAX, INT_MAX } });
        param.inp_width = size.width;
        param.inp_height = size.height;
        if (chance(3)) param.out_width = 40, param.out_height = 30;
        if (chance(4)) disturb(param);
        if (chance(3)) one_of<double*>(rng, { K, D, R, T })[below(rng, 3)] = real();
        if (param.out_width > 40000 || param.out_height > 4000 || param.inp_height > 40000) return nullptr;
        Owned<iStereoCamera> made(chance(4)
                ? rig::make_camera().release()
                : CreateStereoCameraFromRaw(K, D, chance(40) ? nullptr : K, D, R, T, chance(40) ? nullptr : &param));
        if (!made) return nullptr;
        if (!(made->get_baseline_length() > 0.0)) return "a camera without a baseline";
        for (auto& user : generators)
            user->init(nullptr);
        std::fill(std::begin(bound), std::end(bound), nullptr);
        if (cameras.size() < 3) cameras.emplace_back();
        cameras[below(rng, cameras.size())].swap(made);
        cameras.erase(std::remove(cameras.begin(), cameras.end(), nullptr), cameras.end());
        return nullptr;
    }

    const char* make_generator()
    {
        generators[g].reset(CreatePointCloudGenerator(g));
        bound[g] = nullptr;
        float_from[g] = none;
        return generators[g] ? nullptr : "no generator";
    }

    const char* init()
    {
        bound[g] = chance(10) ? nullptr : any_camera();
        generator().init(bound[g]);
        return nullptr;
    }

    template <class Record> void hand_over(Record record, std::size_t bytes = sizeof(Record))
    {
        for (std::size_t i = chance(2) ? 1 + below(rng, 3) : 0; i > 0; --i)
            disturb(record, bytes);
        const bool taken = generator().setparams(buffer(&record, bytes).data());
        if (taken && why_invalid(record) != nullptr) fault = "an invalid record was taken";
        if constexpr (!std::is_same_v<Record, SGBMatchingParam>) {
            const long first_float = g == 1 ? 3 : 2;
            if (taken) float_from[g] = record.datatype == 0 ? none : first_float;
        }
    }

    const char* setparams()
    {
        Records records;
        records.gray.datatype = records.multi.datatype = chance(2) ? 1 : 0;
        if (g == 0) hand_over(records.sgbm);
        if (g == 1) hand_over(records.gray);
        if (g == 2) hand_over(records.multi, multi_phase_param_bytes);
        return fault;
    }

    /// @param picture  what the frame shows; noise where its size is another
    void give(int cam, int frame, unsigned long step, const cv::Mat& picture = {})
    {
        int w = 0, h = 0;
        if (bound[g] != nullptr) bound[g]->get_inpimage_size(&w, &h);
        const auto width_bytes = static_cast<unsigned long>(w) * (frame >= float_from[g] ? 4 : 1);
        const unsigned long row = width_bytes * (cam == 2 ? 2 : 1);
        const unsigned long used = step == 0 ? row : step;
        const bool sound = is_sound(used, row) && h > 0;
        const unsigned long last = cam == 2 ? std::max(row, used / 2 + width_bytes) : row;
        GuardedBuffer& bytes = buffer(sound ? (static_cast<unsigned long>(h) - 1) * used + last : 64);
        if (picture.isContinuous() && picture.total() == bytes.size())
            std::memcpy(bytes.data(), picture.data, picture.total());
        const bool taken = generator().setpict(bytes.data(), step, cam, frame);
        if (taken && (!sound || cam < 0 || cam > 2 || (g > 0 && frame < 0))) fault = "a frame was taken wrongly";
    }

    const char* setpict()
    {
        const int cam = mostly(3), frame = mostly(15);
        give(cam, frame, chance(3) ? 0 : step_of(frame >= float_from[g] ? 400 : 100));
        return fault;
    }

    const char* all_frames()
    {
        for (int frame = 0; frame < generator().requiredframes(); ++frame)
            for (int cam = 0; cam < 2; ++cam)
                give(cam, frame, 0, plane_frames(g, cam)[static_cast<std::size_t>(frame)]);
        return fault;
    }

    const char* getpict()
    {
        const rig::Picture p(generator(), mostly(3), mostly(2));
        if (!p.given) return p.data == nullptr && p.width == 0 ? nullptr : "outputs were touched";
        const cv::Mat all(p.height, p.width, CV_8U, p.data, p.step);
        return cv::countNonZero(all) >= 0 && !all.empty() ? nullptr : "an empty picture was handed out";
    }

    const char* exec()
    {
        try {
            if (note(executed + g, generator().exec()) && bound[g] == nullptr) return "exec succeeded without a camera";
        } catch (const cv::Exception&) {
            if (g != 0) throw; // block matching states that it may
        }
        return nullptr;
    }

    const char* genPC()
    {
        method[g] = chance(6) ? number() : 0;
        generator().genPC(static_cast<iPointCloudGenerator::Method3D>(method[g]), chance(2));
        return nullptr;
    }

    const char* get_pointcloud()
    {
        const rig::Cloud seen = rig::cloud_of(generator());
        const int count = generator().get_pointcloud(nullptr);
        if (seen.calls != 1 || seen.count != count) return "not called once";
        note(points, count > 0);
        int w = 0, h = 0;
        if (bound[g] != nullptr) bound[g]->get_outimage_size(&w, &h);
        if (seen.width != 0 && (seen.width != w || seen.height != h)) return "a cloud of another size";
        if (count < 0 || count > w * h) return "an impossible count";
        const auto is_point
            = [](const cv::Point3f& p) { return !std::isnan(p.x) || !std::isnan(p.y) || !std::isnan(p.z); };
        const bool by_rays = method[g] == 1 || method[g] == 2;
        const auto seen_points = std::count_if(seen.points.begin(), seen.points.end(), is_point);
        return seen.width == 0 || by_rays || count == seen_points ? nullptr : "a wrong count";
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

    const char* remap()
    {
        iStereoCamera* camera = any_camera();
        if (camera == nullptr) return nullptr;
        int in_w = 0, in_h = 0, w = 0, h = 0;
        camera->get_inpimage_size(&in_w, &in_h);
        camera->get_outimage_size(&w, &h);
        const int which = mostly(3);
        const unsigned long halves = which == 2 ? 2 : 1;
        const unsigned long in_row = halves * static_cast<unsigned long>(in_w),
                            row = halves * static_cast<unsigned long>(w);
        const unsigned long in_step = chance(4) ? 0 : step_of(in_row), step = chance(4) ? 0 : step_of(row);
        const bool good = is_sound(in_step, in_row) && is_sound(step, row) && which >= 0 && which <= 2;
        const auto bytes = [](int rows, unsigned long s, unsigned long least) {
            return (static_cast<unsigned long>(rows) - 1) * (s == 0 ? least : s) + least;
        };
        const GuardedBuffer to(good ? bytes(h, step, row) : 16);
        GuardedBuffer& from = buffer(good ? bytes(in_h, in_step, in_row) : 16);
        const bool done = camera->remap(from.data(), in_step, to.data(), step, which);
        return note(remapped, done) == good ? nullptr : done ? "remapped wrongly" : "a good picture was refused";
    }

    const char* positions()
    {
        iStereoCamera* camera = any_camera();
        if (camera == nullptr) return nullptr;
        double xyz[3];
        const double values[] = { real(), 10, 10, real() };
        const auto* pixels = reinterpret_cast<const double*>(buffer(values, sizeof values).data());
        camera->get3dposition(xyz, pixels, pixels + 2);
        camera->get3dposition(xyz, real(), pixels, pixels + 2);
        camera->get3dposition(nullptr, 1, 1, 1.0);
        return camera->get3dposition(xyz, number(), number(), real()) ? nullptr : "the Q method answered false";
    }

    // --- the board ---------------------------------------------------------------------------------------

    template <class Object> void set_board(Object& object)
    {
        PreProcParam pre;
        CircleMarkerParam circle = board_photos::marker_settings();
        CalibBoardParam board = board_photos::coarse_board().param();
        pre.invert = chance(9), pre.median = chance(2), pre.equalize = chance(3);
        if (chance(5)) disturb(circle);
        if (chance(6)) disturb(board);
        circle.debug_scale = 0; // no windows here
        object.set_parameters(pre, circle, board);
    }

    const char* make_calibrators()
    {
        if (!one || chance(10)) one.reset(CreateCameraCalibrator());
        if (!pair || chance(10)) pair.reset(CreateStereoCalibrator());
        set_board(*one);
        set_board(*pair);
        return nullptr;
    }

    /// Of the board, or noise of some size; with a width or a step that may be wrong.
    const char* put_image()
    {
        static const cv::Mat good = board_photos::small_photo();
        const bool seen = !chance(3);
        const cv::Size size
            = seen ? good.size() : one_of<cv::Size>(rng, { { 400, 320 }, { 1, 1 }, { 1, 200 }, { 64, 1 }, { 90, 70 } });
        const auto bytes = static_cast<std::size_t>(size.area());
        uchar* data = (seen ? buffer(good.data, bytes) : buffer(bytes)).data();
        const int w = chance(6) ? one_of<int>(rng, { INT_MIN, -1, 0 }) : size.width;
        const auto row = static_cast<unsigned long>(size.width);
        const unsigned long step
            = chance(6) ? one_of<unsigned long>(rng, { 0, row - 1, ULONG_MAX, ULONG_MAX / 2 + 1 }) : row;
        const std::string save = chance(8) ? folder / "result.png" : "";
        const int code = one->put_image(chance(20) ? nullptr : data, w, size.height, step, false, save);
        note(recognised, code == 0);
        for (const int cam : { 0, chance(5) ? number() : 1 })
            pair->put_image(cam, data, w, size.height, step, false, save);
        return code == 0 && (w < 0 || !is_sound(step, row)) ? "a picture was taken wrongly" : nullptr;
    }

    const char* calibrate()
    {
        if (!chance(16)) return nullptr;
        CameraCalibParam param;
        if (chance(4)) disturb(param);
        std::vector<double> errors;
        std::vector<std::vector<double>> both;
        double rms = 0;
        try {
            note(one_calibrated, one->do_calibrate(param, chance(5) ? nullptr : &errors, &rms));
        } catch (const cv::Exception&) { // as it states
        }
        note(pair_calibrated, pair->do_calibrate(param, &both, chance(5) ? nullptr : &rms));
        RectifyParam rectify;
        if (chance(3)) disturb(rectify);
        if (rectify.width > 40000 || rectify.height > 4000) rectify = {};
        int roi[4];
        note(rectified, pair->create_stereo_camera(rectify, chance(3) ? nullptr : roi, nullptr) > 0);
        uchar* noise = buffer(400 * 320).data();
        pair->create_stereo_brdcrd(noise, 400, noise, chance(4) ? ULONG_MAX : 400);
        return nullptr;
    }

    const char* save()
    {
        const std::string a = folder / one_of<const char*>(rng, { "a.yaml", "no/a.yaml", "" }), b = folder / "b.bin";
        one->save_calibfile(a, one_of<const char*>(rng, { "", "cam7", "7", "a: b", "\n" }));
        pair->save_calibfile(a, chance(2) ? a : "");
        pair->save_stereofile(a, chance(2) ? b : "", chance(2) ? b : a);
        pair->save_stereohmat(a, b, folder / "c.bin", chance(2));
        pair->save_boardRT(a);
        return nullptr;
    }

    static constexpr long none = LONG_MAX;
    Rng& rng;
    const Folder& folder;
    std::vector<Owned<iStereoCamera>> cameras;
    int g = 0;                                 ///< the generator of this call
    Owned<iPointCloudGenerator> generators[3]; ///< destroyed before their cameras
    iStereoCamera* bound[3] = {};
    long float_from[3] = { none, none, none }; ///< frames from here on are floats
    int method[3] = {};
    Owned<iCameraCalibrator> one;
    Owned<iStereoCalibrator> pair;
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
    count_over_children();
    const auto trial = [&](long i) {
        Rng rng = rng_of(options.seed, i);
        Host host(rng, folder);
        const char* fault = nullptr;
        for (long n = 0; n < 100 && fault == nullptr; ++n)
            fault = host.call();
        return fault;
    };
    long found = run_trials(
        "calls: sequences of 100 interface calls", argv[0], options, 200, trial, { 30, std::size_t { 3 } << 30 });
    if (options.only < 0) found += never_reached();
    return found == 0 ? 0 : 1;
}
