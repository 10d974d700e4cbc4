#include "host/accuracy/body_check.h"

#include "base/failure.h"
#include "base/statistics.h"
#include "base/text.h"

#include <algorithm>
#include <cmath>

namespace vexo {

namespace {

bool inside(const Region& region, const Sighted& s)
{
    if (region.pixels && !region.pixels->contains(s.pixel)) return false;
    for (int k = 0; region.box && k < 3; ++k)
        if (!(s.point[k] >= (*region.box)[k] && s.point[k] <= (*region.box)[k + 3])) return false;
    return true;
}

/// Without a sigma of its own a point is as far off as the square of its depth is large.
double any_measure(double z)
{
    constexpr double per_mm = 1e-7;
    return per_mm * z * z;
}

/// "x -150:160, y -120:118, z 580:640 mm"
std::string extent_in_words(const Result& result)
{
    std::string text;
    for (int k = 0; k < 3; ++k) {
        std::vector<float> values;
        for (const cv::Point3f& p : result.cloud)
            if (std::isfinite((&p.x)[k])) values.push_back((&p.x)[k]);
        const std::vector<double> ends = quantiles(std::move(values), { 0.01, 0.99 });
        text += std::string(k == 0 ? "" : ", ") + "xyz"[k] + " " + number(ends[0], 0) + ":" + number(ends[1], 0);
    }
    return text + " mm";
}

/// Few points with a sigma far above the others' would make up most of a predicted rms, and say next to nothing.
void leave_out_unsure(Judged& judged)
{
    constexpr double times = 5.0;
    std::vector<double> sigmas;
    for (const Sighted& s : judged.points)
        sigmas.push_back(s.sigma);
    const double limit = times * median(std::move(sigmas));
    const auto all = static_cast<double>(judged.points.size());
    judged.points.erase(std::remove_if(judged.points.begin(), judged.points.end(),
                            [limit](const Sighted& s) { return s.sigma > limit; }),
        judged.points.end());
    judged.unsure = 1.0 - static_cast<double>(judged.points.size()) / all;
}

} // namespace

Judged judged_points(const std::string& folder, const Result& r, const AcceptanceRequest& request, std::size_t fewest)
{
    const StatedShare stated = read_share(r.report, r.report_path);
    Judged judged { folder, {}, !r.sigma.empty(), is_smoothed(r.report), 0.0, 0.0,
        { r.size, r.f, r.cx, r.cy, r.baseline }, stated.usable(), stated };
    std::size_t without = 0;
    for (std::size_t i = 0; i < r.cloud.size(); ++i) {
        const cv::Point3f& p = r.cloud[i];
        Sighted s { { static_cast<double>(p.x), static_cast<double>(p.y), static_cast<double>(p.z) }, 0.0, {} };
        if (!(s.point[2] > 0.0) || !std::isfinite(s.point.dot(s.point))) continue;
        const cv::Point2d seen = judged.sight.pixel(s.point);
        if (!cv::Rect2d(-0.49, -0.49, r.size.width - 0.02, r.size.height - 0.02).contains(seen)) continue;
        s.pixel = { cvRound(seen.x), cvRound(seen.y) };
        if (!inside(request.region, s)) continue;
        s.sigma = judged.sigma_known ? static_cast<double>(r.sigma[i]) : any_measure(s.point[2]);
        if (s.sigma > 0.0 && std::isfinite(s.sigma))
            judged.points.push_back(s);
        else
            ++without;
    }
    const std::size_t all = judged.points.size() + without;
    if (judged.points.size() < fewest)
        throw Failure(folder + ": " + std::to_string(all) + " points lie in the region, "
            + std::to_string(judged.points.size()) + " of use, and at least " + std::to_string(fewest)
            + " are needed; the cloud spans " + extent_in_words(r) + ": choose --box or --pixel within it");
    leave_out_unsure(judged);
    judged.without_sigma = static_cast<double>(without) / static_cast<double>(all);
    return judged;
}

void judge_outliers(double share, const std::string& what, BodyCheck& check)
{
    if (!(share > many_outliers)) return;
    check.findings.push_back({ "outliers", Weight::worse, "", number(100.0 * share, 1) + " % of the points " + what,
        "choose the body alone with --box or --pixel; if it is chosen, look at what is wrong there" });
}

} // namespace vexo
