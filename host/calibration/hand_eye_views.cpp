#include "host/calibration/hand_eye_views.h"

#include "base/failure.h"
#include "base/text.h"
#include "host/calibration/poses.h"
#include "host/captures/find_frames.h"
#include "host/captures/names.h"

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <set>

namespace vexo {

namespace fs = std::filesystem;

namespace {

std::string file_name(const std::string& path)
{
    return fs::path(path).filename().string();
}

bool is_number(const std::string& text)
{
    constexpr std::size_t longest = 9;
    return !text.empty() && text.size() <= longest && text.find_first_not_of("0123456789") == std::string::npos;
}

/// Whether a pose's line means this photo.
bool means(const RobotPoseRow& row, const std::string& photo)
{
    if (row.picture == file_name(photo) || row.picture == fs::path(photo).stem().string()) return true;
    return is_number(row.picture) && number_in_name(photo) == std::stoi(row.picture);
}

/// The photo of a pose; empty: there is none.
std::string photo_of(const RobotPoseRow& row, const std::vector<std::string>& photos, const std::string& file)
{
    std::string found;
    for (const std::string& photo : photos) {
        if (!means(row, photo)) continue;
        if (!found.empty())
            throw Failure(file + ": line " + std::to_string(row.line) + ": picture " + row.picture + " may be " + found
                + " or " + photo + "; write the file's name");
        found = photo;
    }
    return found;
}

/// "a, b, c and 5 others".
std::string list_of(const std::vector<std::string>& names)
{
    constexpr std::size_t most = 8;
    std::string text;
    for (std::size_t i = 0; i < std::min(names.size(), most); ++i)
        text += (i > 0 ? ", " : "") + names[i];
    return names.size() > most ? text + " and " + std::to_string(names.size() - most) + " others" : text;
}

struct Matched {
    std::vector<RobotPoseRow> rows;
    std::vector<std::string> photos; ///< of these rows
    std::vector<Finding> findings;
};

Matched match(const RobotPoseFile& poses, const std::string& where)
{
    const std::vector<std::string> photos = find_frames(where);
    Matched matched;
    std::vector<std::string> no_photo, no_pose;
    std::set<std::string> taken;
    for (const RobotPoseRow& row : poses.rows) {
        const std::string photo = photo_of(row, photos, poses.path);
        if (photo.empty()) {
            no_photo.push_back(row.picture);
            continue;
        }
        if (!taken.insert(photo).second)
            throw Failure(poses.path + ": line " + std::to_string(row.line) + ": " + photo + " has a pose already");
        matched.rows.push_back(row);
        matched.photos.push_back(photo);
    }
    if (2 * matched.rows.size() <= poses.rows.size())
        throw Failure(poses.path + ": " + std::to_string(matched.rows.size()) + " of "
            + std::to_string(poses.rows.size()) + " poses have a photo in " + where
            + "; the column picture must name the files, or the numbers in their names; without a photo: "
            + list_of(no_photo));
    for (const std::string& photo : photos)
        if (taken.count(photo) == 0) no_pose.push_back(file_name(photo));
    if (!no_photo.empty())
        matched.findings.push_back({ "partners", Weight::worse, "", "poses without a photo: " + list_of(no_photo),
            "give the photos, or leave these lines out" });
    if (!no_pose.empty())
        matched.findings.push_back({ "partners", Weight::worse, "", "photos without a pose: " + list_of(no_pose),
            "add their poses, or leave these photos out" });
    return matched;
}

} // namespace

HandEyeViews see_hand_eye(const RobotPoseFile& poses, const std::string& photos, const CalibratedCamera& camera,
    const BoardFile& board, const OnStep& on_step)
{
    const Matched matched = match(poses, photos);
    const std::vector<PosedPicture> seen = find_poses(matched.photos, camera, board, on_step);
    HandEyeViews all;
    all.findings = matched.findings;
    double squares = 0.0;
    for (std::size_t i = 0; i < seen.size(); ++i) {
        const PosedPicture& posed = seen[i];
        if (!posed.pose || !posed.covariance) {
            all.findings.push_back({ "board", Weight::worse, file_name(matched.photos[i]),
                "no pose of the board: " + (posed.pose ? "too few markers" : posed.reason),
                "take this photo again, sharp and with the whole board in it" });
            continue;
        }
        HandEyeView view { file_name(matched.photos[i]), matched.rows[i], {} };
        view.pose.board_rvec = posed.pose->rvec;
        view.pose.board_tvec = posed.pose->tvec;
        view.pose.board_covariance = *posed.covariance;
        all.views.push_back(view);
        all.markers += posed.picture.found;
        squares += posed.pose->rms_px * posed.pose->rms_px * posed.picture.found;
    }
    all.rms_px = all.markers > 0 ? std::sqrt(squares / all.markers) : 0.0;
    return all;
}

cv::Vec3d middle_of(const BoardFile& board)
{
    const auto last = static_cast<std::size_t>(board.markers() - 1);
    const cv::Point3f a = board_point(board, 0), b = board_point(board, last);
    return { 0.5 * (a.x + b.x), 0.5 * (a.y + b.y), 0.5 * (a.z + b.z) };
}

} // namespace vexo
