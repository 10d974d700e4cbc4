#include "host/cameras/find_hand_eye.h"

#include "base/failure.h"
#include "base/statistics.h"
#include "base/text.h"
#include "host/cameras/hand_eye_readings.h"
#include "host/cameras/hand_eye_scale.h"
#include "host/cameras/hand_eye_strays.h"

#include <opencv2/calib3d.hpp>

#include <algorithm>
#include <cmath>
#include <limits>
#include <numeric>

namespace vexo {

namespace {

/// Robots repeat to 0.02 to 0.1 mm and are right to 0.2 to 1 mm.
constexpr HandEyeResidual good_fit { 1.0, 0.2 }, poor_fit { 3.0, 0.6 };

Weight level(const HandEyeResidual& r, const HandEyeResidual& good, const HandEyeResidual& poor)
{
    if (!std::isfinite(r.mm) || !std::isfinite(r.deg)) return Weight::unknown;
    if (r.mm > poor.mm || r.deg > poor.deg) return Weight::spoils;
    return r.mm > good.mm || r.deg > good.deg ? Weight::worse : Weight::good;
}

std::string text_of(const HandEyeResidual& r)
{
    return number(r.mm, r.mm < 10 ? 3 : 1) + " mm and " + number(r.deg, r.deg < 10 ? 3 : 1) + " degrees";
}

/// Rotation vectors about the first view's turn, less their mean; by the standard deviations of their principal axes.
TurnSpread spread_of(const std::vector<cv::Matx33d>& rotations)
{
    std::vector<cv::Vec3d> turns;
    cv::Vec3d mean;
    for (const cv::Matx33d& rotation : rotations) {
        cv::Vec3d turn;
        cv::Rodrigues(rotations.front().t() * rotation, turn);
        turns.push_back(turn);
        mean += turn / static_cast<double>(rotations.size());
    }
    cv::Matx33d sum;
    for (const cv::Vec3d& turn : turns)
        sum += (turn - mean) * (turn - mean).t();
    cv::Vec3d values;
    cv::eigen(sum * (1.0 / static_cast<double>(rotations.size())), values);
    const auto degrees = [](double square) { return std::sqrt(std::max(0.0, square)) * 180 / CV_PI; };
    return { degrees(values[0]), degrees(values[1]) };
}

std::vector<cv::Matx33d> rotations_of(const std::vector<HandEyePose>& poses, bool of_robot)
{
    std::vector<cv::Matx33d> all;
    for (const HandEyePose& pose : poses)
        all.push_back((of_robot ? pose.base_from_gripper : pose.camera_from_board()).rotation());
    return all;
}

constexpr const char* more_turning
    = "tilt the gripper by 20 degrees and more about at least two axes that are not parallel, and turn it, too";

void refuse_little_turning(const TurnSpread& spread)
{
    constexpr double least = 2.0; // degrees: 0.1 mm of the robot are 3 mm of the camera's place at one pose
    if (spread.second_deg >= least) return;
    const bool none = spread.first_deg < least;
    throw Failure(std::string("the poses turn too little to find the camera: ")
        + (none ? "by " + number(spread.first_deg, 2) + " degrees (standard deviation)"
                : "by " + number(spread.first_deg, 1) + " degrees about one axis, but by "
                    + number(spread.second_deg, 2) + " about the others")
        + "; " + more_turning);
}

/// The solution of the setup that was asked for, else of the one that fits better; of the latter a finding.
HandEye solved_for(const std::vector<HandEyePose>& poses, const HandEyeRequest& request, std::vector<Finding>& findings)
{
    std::optional<HandEye> best;
    double least = std::numeric_limits<double>::infinity(), next = least;
    for (const HandEyeSetup setup : { HandEyeSetup::eye_in_hand, HandEyeSetup::eye_to_hand }) {
        if (request.setup && setup != *request.setup) continue;
        const auto found = solve_hand_eye(poses, setup);
        if (!found) continue;
        const double mm = rms_of(residuals_of(poses, *found, request.board_point_mm)).mm;
        next = mm < least ? least : mm;
        if (mm < least) best = found;
        least = std::min(least, mm);
    }
    if (!best)
        throw Failure(
            std::string("the poses determine no camera: the robot's poses are all alike, or turn about one axis; ")
            + more_turning);
    constexpr double clearly = 3.0;
    const bool clear = next > clearly * least;
    if (!request.setup && least < poor_fit.mm) // else there is more to be said than that
        findings.push_back({ "setup", clear ? Weight::note : Weight::spoils, "",
            std::string("the poses are those of ") + name_of(best->setup) + ": they fit to " + number(least, 3) + " mm"
                + (std::isfinite(next) ? ", of the other setup to " + number(next, 3) + " mm" : "")
                + "; poses of the other setup that are the base's in the gripper are the same numbers",
            clear ? "" : "say --setup eye-in-hand or --setup eye-to-hand: the poses alone do not" });
    return *best;
}

std::vector<HandEyeResidual> hold_out(
    const std::vector<HandEyePose>& poses, const HandEye& solved, const cv::Vec3d& board_point_mm)
{
    constexpr std::size_t most_folds = 20;
    const std::size_t folds = std::min(poses.size(), most_folds);
    constexpr double none = std::numeric_limits<double>::quiet_NaN();
    std::vector<HandEyeResidual> all(poses.size(), { none, none });
    for (std::size_t fold = 0; fold < folds; ++fold) {
        std::vector<HandEyePose> rest;
        for (std::size_t i = 0; i < poses.size(); ++i)
            if (i % folds != fold) rest.push_back(poses[i]);
        const auto found = refine_hand_eye(rest, solved, solved.noise);
        for (std::size_t i = fold; found && i < poses.size(); i += folds)
            all[i] = found->residual(poses[i], board_point_mm);
    }
    return all;
}

std::vector<std::size_t> worst_of(const std::vector<HandEyeResidual>& held_out)
{
    constexpr std::size_t most = 3;
    std::vector<std::size_t> order(held_out.size());
    std::iota(order.begin(), order.end(), 0U);
    std::stable_sort(order.begin(), order.end(), [&](std::size_t a, std::size_t b) {
        const auto rank = [&](std::size_t i) { return std::isnan(held_out[i].mm) ? -1.0 : held_out[i].mm; };
        return rank(a) > rank(b);
    });
    order.resize(std::min(order.size(), most));
    return order;
}

Finding check_fit(const FoundHandEye& found)
{
    const Weight weight = level(found.held_out_rms, good_fit, poor_fit);
    if (weight == Weight::unknown)
        return { "held-out", weight, "", "the poses are too few to hold one out of them", "take 15 poses" };
    return { "held-out", weight, "",
        "poses that were held out are off by " + text_of(found.held_out_rms) + " (rms); of all poses "
            + text_of(found.rms),
        weight == Weight::good ? ""
                               : "see that board and camera are fastened, that the robot stands still in each photo, "
                                 "and that the tool frame is the one the poses are of" };
}

Finding check_sigma(const FoundHandEye& found)
{
    constexpr HandEyeResidual good { 0.5, 0.1 }, poor { 3.0, 0.6 };
    const HandEyeResidual sigma { cv::norm(found.solved.translation_sigma_mm()),
        cv::norm(found.solved.rotation_sigma_deg()) };
    const Weight weight = level(sigma, good, poor);
    return { "sigma", weight, "", "the camera's place is known to " + text_of(sigma) + " (one standard deviation)",
        weight == Weight::good ? "" : std::string("take more poses; ") + more_turning };
}

Finding check_turning(const FoundHandEye& found)
{
    constexpr double good = 8.0;
    const bool enough = found.spread.second_deg >= good;
    return { "turning", enough ? Weight::good : Weight::worse, "",
        "the poses turn by " + number(found.spread.first_deg, 1) + " and " + number(found.spread.second_deg, 1)
            + " degrees about two axes (standard deviations)",
        enough ? "" : more_turning };
}

Finding check_count(std::size_t count)
{
    constexpr std::size_t good = 10, fair = 6;
    const Weight weight = count >= good ? Weight::good : count >= fair ? Weight::note : Weight::worse;
    return { "poses", weight, "", std::to_string(count) + " poses with a photo of the board",
        weight == Weight::good ? "" : "15 give a better result, and let wrong ones stand out" };
}

/// Views far above the others: of errors in three coordinates one in 10 000 exceeds three medians.
std::vector<Finding> check_single(const std::vector<HandEyeView>& views, const FoundHandEye& found)
{
    std::vector<double> mm, deg;
    for (const HandEyeResidual& r : found.held_out)
        if (std::isfinite(r.mm)) {
            mm.push_back(r.mm);
            deg.push_back(r.deg);
        }
    std::vector<Finding> findings;
    if (mm.size() < 5) return findings;
    const double most_mm = 3 * median(mm) + 0.1, most_deg = 3 * median(deg) + 0.02;
    for (std::size_t i = 0; i < views.size(); ++i) {
        const HandEyeResidual& r = found.held_out[i];
        if (!(r.mm > most_mm || r.deg > most_deg)) continue;
        findings.push_back(
            { "pose", Weight::worse, views[i].picture, "it is off by " + text_of(r) + ", far more than the others",
                "take it again, or leave line " + std::to_string(views[i].row.line) + " out" });
    }
    return findings;
}

/// Where all poses but a few fit: which.
std::optional<Finding> check_strays(
    const std::vector<HandEyeView>& views, const HandEyeRequest& request, const FoundHandEye& found)
{
    const StrayPoses stray
        = find_stray_poses(poses_of(views, request.reading), found.solved.setup, request.board_point_mm, good_fit);
    if (stray.strays.empty()) return std::nullopt;
    std::string names, lines;
    for (const std::size_t i : stray.strays) {
        names += (names.empty() ? "" : ", ") + views[i].picture;
        lines += (lines.empty() ? "" : ", ") + std::to_string(views[i].row.line);
    }
    return Finding { "strays", Weight::spoils, "",
        "all poses but " + names + " fit, to " + text_of(stray.rms) + ": their photos or poses are others'",
        "put right or leave out the lines: " + lines };
}

/// Where poses do not fit: which other meaning of the numbers does.
std::vector<Finding> check_reading(
    const std::vector<HandEyeView>& views, const HandEyeRequest& request, const FoundHandEye& found)
{
    if (level(found.rms, good_fit, poor_fit) == Weight::good) return {};
    const auto other = best_other_reading(views, request, found.solved.setup);
    const bool fits
        = other && level(other->rms, good_fit, poor_fit) != Weight::spoils && 3 * other->rms.mm < found.rms.mm;
    const std::string as_read = describe(request.reading) + "; " + name_of(found.solved.setup);
    if (fits)
        return { { "convention", Weight::spoils, "",
            "read as " + as_read + ", the poses fit to " + text_of(found.rms) + "; " + other->words
                + ", they would fit to " + text_of(other->rms),
            other->advice } };
    if (level(found.rms, good_fit, poor_fit) != Weight::spoils) return {};
    if (const auto strays = check_strays(views, request, found)) return { *strays };
    const double robot_deg = spread_of(rotations_of(poses_of(views, request.reading), true)).first_deg;
    return { { "convention", Weight::spoils, "",
        "the poses fit to " + text_of(found.rms) + ", read as " + as_read
            + "; no other order, unit, inverse or setup fits. The robot says that it turns by " + number(robot_deg, 1)
            + " degrees, the photos say " + number(found.spread.first_deg, 1),
        "see that poses and photos belong together by their numbers, that the board's pitch is right, and that "
        "nothing moved but the robot" } };
}

/// Whether board and robot agree about a mm. Not asked of poses that do not fit at all.
std::vector<Finding> check_scale(
    const std::vector<HandEyePose>& poses, const HandEyeRequest& request, const FoundHandEye& found)
{
    constexpr HandEyeResidual any_scale { 30.0, poor_fit.deg }; // 3 % of a metre
    if (level(found.rms, any_scale, any_scale) != Weight::good) return {};
    const auto scale = find_board_scale(poses, found.solved.setup, request.board_point_mm, found.rms);
    if (!scale) return {};
    const double share = scale->factor - 1;
    constexpr double harmless = 0.002; // 1 mm at half a metre
    return { { "scale", std::abs(share) > harmless ? Weight::spoils : Weight::worse, "",
        "with a board " + number(100 * std::abs(share), 2) + (share > 0 ? " % larger" : " % smaller")
            + " than its file says the poses fit to " + number(scale->rms.mm, 3) + " mm, not "
            + number(found.rms.mm, 3),
        "measure the board with a ruler, and set its pitch; calibrate again with it; if the pitch is right, the "
        "robot's lengths are not" } };
}

} // namespace

FoundHandEye find_hand_eye(const std::vector<HandEyeView>& views, const HandEyeRequest& request)
{
    if (views.size() < fewest_hand_eye_views)
        throw Failure(std::to_string(views.size()) + " poses have a photo in which the board is found: at least "
            + std::to_string(fewest_hand_eye_views) + " are needed, and 15 are better");
    const std::vector<HandEyePose> poses = poses_of(views, request.reading);
    FoundHandEye found;
    found.spread = spread_of(rotations_of(poses, false));
    refuse_little_turning(found.spread);
    found.solved = solved_for(poses, request, found.findings);
    found.residuals = residuals_of(poses, found.solved, request.board_point_mm);
    found.rms = rms_of(found.residuals);
    found.held_out = hold_out(poses, found.solved, request.board_point_mm);
    found.held_out_rms = rms_of(found.held_out);
    found.worst = worst_of(found.held_out);
    for (const Finding& finding : check_reading(views, request, found))
        found.findings.push_back(finding);
    for (const Finding& finding : check_scale(poses, request, found))
        found.findings.push_back(finding);
    for (const Finding& finding :
        { check_fit(found), check_sigma(found), check_turning(found), check_count(views.size()) })
        found.findings.push_back(finding);
    for (const Finding& finding : check_single(views, found))
        found.findings.push_back(finding);
    return found;
}

} // namespace vexo
