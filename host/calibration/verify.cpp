#include "host/calibration/verify.h"

#include "base/failure.h"
#include "base/statistics.h"
#include "base/text.h"
#include "host/calibration/levels.h"
#include "host/calibration/pair_agreement.h"

#include <cmath>

namespace vexo {

namespace {

/// As for a calibration's own views: centres of discs are found to 0.03 to 0.15 px in sharp pictures.
constexpr double good_rms = 0.2, poor_rms = 0.5;

/// A median over all markers, free of their noise. Half a period of the finest usual fringes is matched wrongly from
/// some px on; measuring warns from 0.3 px on.
constexpr double good_row = 0.1, poor_row = 0.3;

/// 0.05 % is 0.3 mm at 600 mm, which a camera that turned towards the other by 0.01 degrees gives at a baseline of
/// 160 mm.
constexpr double good_distance = 5e-4, poor_distance = 2e-3;

constexpr const char* again = "calibrate again, and fasten cameras and lenses";

Finding check_reprojection(const Verified& v)
{
    std::vector<double> rms;
    for (const CameraFit& fit : v.fits)
        rms.push_back(fit.rms);
    const Weight l = level(largest_of(rms), good_rms, poor_rms);
    return { "reprojection", l, "",
        "markers lie " + each(rms, 3, " px (rms) from where the calibrated camera puts them"),
        l == Weight::good ? ""
                          : "take sharp photos of the board at rest, with its own board.yaml; else a lens has "
                            "changed: calibrate again" };
}

Finding check_rows(const Verified& v)
{
    const Weight l = level(std::abs(v.row_median), good_row, poor_row);
    return { "rows", l, "",
        "rows differ by " + number(v.row_median, 3) + " px (median of all markers), single markers by "
            + number(v.pair.row_rms, 3) + " px rms",
        l == Weight::good ? "" : std::string("a camera was pitched or rolled since; ") + again };
}

Finding check_distances(const Verified& v)
{
    const DistanceErrors &x = v.pair.along_x, &y = v.pair.along_y;
    const double worst = std::max(std::abs(x.bias) / x.length, std::abs(y.bias) / y.length);
    const Weight l = level(worst, good_distance, poor_distance);
    const auto text = [](const DistanceErrors& d) {
        return number(d.bias, 3) + " mm (rms " + number(d.rms, 3) + ") over " + number(d.length, 0) + " mm";
    };
    return { "distances", l, "", "marker distances are off by " + text(x) + " along x, " + text(y) + " along y",
        l == Weight::good ? ""
                          : std::string("a camera was turned or moved since, or the board is another one; ") + again };
}

/// Photos that were mixed up would be taken for a rig that moved.
std::vector<Finding> check_partners(
    const Verified& v, const std::vector<CalibratedCamera>& cameras, const BoardFile& board)
{
    const std::string words = exchange_in_words(pair_agreement(cameras, v.views, v.used, board), v.views);
    if (!words.empty())
        return { { "exchanged", Weight::spoils, "", words, "give the files their right names, and verify again" } };
    if (std::abs(v.row_median) <= poor_row && v.pair.row_rms <= poor_row) return {};
    const BoardViews turned { { v.views.cameras[1], v.views.cameras[0] } };
    if (fit_pair({ { cameras, v.used } }, turned, board).row_rms > poor_row) return {};
    return { { "exchanged", Weight::spoils, "", "camera 0's photos are those of camera 1",
        "exchange cam0 and cam1, and verify again" } };
}

void check_sizes(const std::vector<CalibratedCamera>& cameras, const BoardViews& views)
{
    for (std::size_t k = 0; k < cameras.size(); ++k)
        for (const BoardPicture& picture : views.cameras[k])
            if (picture.size != cameras[k].size)
                throw Failure(picture.path + ": the picture is " + size_text(picture.size.width, picture.size.height)
                    + ", the camera is calibrated for " + size_text(cameras[k].size.width, cameras[k].size.height));
}

void fit(Verified& v, const std::vector<CalibratedCamera>& cameras, const BoardFile& board)
{
    const std::vector<Fold> all { { cameras, v.used } };
    for (std::size_t k = 0; k < cameras.size(); ++k)
        v.fits.push_back(fit_camera(all, k, v.views, board));
    if (cameras.size() < 2) return;
    v.pair = fit_pair(all, v.views, board);
    v.row_median = quantile(v.pair.row_errors, 0.5);
}

} // namespace

Verified verify_calibration(
    const std::vector<CalibratedCamera>& cameras, BoardViews views, const BoardFile& board, const OnStep& on_step)
{
    Verified v;
    v.views = std::move(views);
    recognise(v.views, board, on_step);
    check_sizes(cameras, v.views);
    for (std::size_t view = 0; view < v.views.count(); ++view)
        v.used.push_back(v.views.good(view));
    if (!v.views.any_good()) {
        const BoardPicture& first = v.views.cameras[0][0];
        throw Failure(
            "the board was recognised in no view; the first picture, " + first.path + ": " + outcome(first, board));
    }
    // A camera that moved or changed shows the board elsewhere than the other's pose says: what it refused stays
    // refused.
    v.refinement = refine_views(v.views, v.used, board, cameras, Refused::leave);
    fit(v, cameras, board);
    if (v.is_pair()) v.findings = check_partners(v, cameras, board);
    v.findings.push_back(check_reprojection(v));
    if (v.is_pair()) v.findings.insert(v.findings.end(), { check_rows(v), check_distances(v) });
    return v;
}

} // namespace vexo
