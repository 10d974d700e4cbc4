#include "host/measurement/judge.h"

#include "base/parallel.h"
#include "base/text.h"
#include "host/cameras/rectification.h"
#include "host/captures/check.h"
#include "host/captures/exposures.h"
#include "host/measurement/range_words.h"

#include <algorithm>

namespace vexo {

namespace {

const char* const exchange = "exchange cam0 and cam1";

class Judgement {
public:
    Judgement(Measured& measured, const Capture& capture, const Stereo& stereo, const MeasureRequest& request)
        : m(measured)
        , _capture(capture)
        , _camera(*stereo.camera)
        , _request(request)
    {
    }

    void judge()
    {
        const bool fringes = !_capture.files.decoded && m.method() != Method::sgbm;
        if (fringes) _judge_frames();
        if (m.cloud.count == 0) {
            _judge_nothing();
            return;
        }
        _noise = std::max(grey_noise(_lit(0)), grey_noise(_lit(1)));
        m.rows = test_rows(m.texture, rectified(_camera, _lit(1), 1), m.disparity, _noise);
        const bool settled = m.rows.tested() && m.rows.fits();
        if (settled || !fringes)
            m.findings.push_back(judge_rows(m.rows));
        else
            _judge_projector();
        _judge_side();
        _judge_coverage();
    }

private:
    const cv::Mat& _lit(std::size_t camera) const { return lit_picture(_capture, camera); }

    void _judge_frames()
    {
        std::array<std::vector<Finding>, 2> found;
        in_parallel(2, [&](std::size_t camera) {
            std::vector<std::string> names;
            const std::vector<std::string>& paths = _capture.frames.paths[camera];
            for (std::size_t k = 0; k < paths.size(); ++k)
                names.push_back(name_of_frame(paths[k], k));
            found[camera] = judge_frames_of(
                _capture.frames.frames[camera], { m.method(), m.periods() }, static_cast<int>(camera), names);
        });
        if (_capture.exposures)
            for (std::vector<Finding>& of_camera : found)
                advise_exposures(of_camera);
        for (const std::vector<Finding>& of_camera : found)
            m.findings.insert(m.findings.end(), of_camera.begin(), of_camera.end());
    }

    void _judge_projector()
    {
        const ProjectorTest test = test_projector(_camera, _capture.frames.frames, { m.method(), m.periods() });
        m.projector = test.given;
        m.findings.push_back(judge_rows(m.rows, test.cameras_exchanged()));
        if (test.given.tested()) m.findings.push_back(judge_projector(test));
    }

    void _judge_side()
    {
        const auto behind = static_cast<double>(cv::countNonZero(m.depth < 0.0));
        if (behind > 0.5 * m.cloud.count)
            m.findings.push_back({ "behind", Weight::spoils, "",
                percent(behind, m.cloud.count) + " of the points lie behind the cameras: these are exchanged",
                exchange });
    }

    void _say_nothing(const std::string& text, const std::string& advice)
    {
        m.findings.push_back({ "coverage", Weight::spoils, "", "no point was measured; " + text, advice });
    }

    void _judge_nothing()
    {
        const std::string swapped = "check that cam0 and cam1 are not swapped";
        if (m.range_origin == no_range)
            return _say_nothing("the two pictures fit each other nowhere",
                "pass --depth or --disparity if they should, and " + swapped);
        if (m.causes[Cause::disparity] > 0)
            return _say_nothing(
                "every disparity lies outside " + limits_text(m) + ": measured range " + measured_range(m),
                "pass --disparity or --depth");
        if (m.method() == Method::sgbm)
            return _say_nothing("no pixel of the two pictures matches at disparities " + limits_text(m),
                "pass --disparity or --depth, and " + swapped);
        const Cause worst = likeliest_cause(m.causes);
        _say_nothing((worst == Cause::contrast ? "most pixels: " : "most lit pixels: ") + std::string(words_of(worst)),
            remedy_of(worst, m.method()));
    }

    /// Pixels that could have been measured: lit, or, for block matching, with texture; within the limits, if the user
    /// gave some.
    double _possible() const
    {
        const bool limited = _request.disparity || _request.depth;
        const long long left_out = limited ? m.causes[Cause::disparity] : 0;
        if (m.method() != Method::sgbm) return static_cast<double>(lit_pixels(m.causes) - left_out);
        if (limited) return m.cloud.count; // beyond the range nothing can match
        cv::Mat possible = textured_pixels(m.texture, _noise);
        possible.setTo(0, m.causes.causes == static_cast<int>(Cause::outside_image));
        possible.setTo(0, m.causes.causes == static_cast<int>(Cause::outside_overlap));
        return cv::countNonZero(possible);
    }

    /// Good captures leave out a tenth to a third: shadows, edges, glare. Of two pictures that do not belong together
    /// block matching finds up to a fifth by chance; fringes out of focus or in the dark leave some islands.
    void _judge_coverage()
    {
        constexpr double most = 0.5, least = 0.02, least_of_blocks = 0.3, least_of_picture = 0.001;
        const bool blocks = m.method() == Method::sgbm;
        const double possible = _possible(), share = possible > 0 ? m.cloud.count / possible : 1;
        const bool few = m.cloud.count < least_of_picture * static_cast<double>(m.depth.total());
        if (share >= most && !few) return;
        const Cause worst = few && share >= most ? Cause::contrast : likeliest_cause(m.causes);
        m.findings.push_back(
            { "coverage", few || share < (blocks ? least_of_blocks : least) ? Weight::spoils : Weight::worse, "",
                "only " + grouped(m.cloud.count) + " pixels were measured, " + percent(m.cloud.count, possible)
                    + " of the " + (blocks ? "textured" : "lit") + " ones; most others: " + words_of(worst),
                remedy_of(worst, m.method()) });
    }

    Measured& m;
    const Capture& _capture;
    iStereoCamera& _camera;
    const MeasureRequest& _request;
    double _noise = 0;
};

} // namespace

void judge_measured(Measured& measured, const Capture& capture, const Stereo& stereo, const MeasureRequest& request)
{
    Judgement(measured, capture, stereo, request).judge();
}

} // namespace vexo
