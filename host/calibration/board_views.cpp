#include "host/calibration/board_views.h"

#include "base/failure.h"
#include "base/pictures.h"
#include "base/text.h"
#include "host/captures/frames.h"
#include "host/captures/names.h"

#include <algorithm>
#include <cfloat>
#include <filesystem>
#include <map>

namespace vexo {

namespace fs = std::filesystem;

namespace {

using Numbered = std::map<int, std::string>;

/// Files by the number in their names. Throws Failure for names without a number and for equal numbers.
Numbered numbered(const std::string& where)
{
    Numbered files;
    for (const std::string& path : find_frames(where)) {
        const auto n = number_in_name(path);
        if (!n) throw Failure(path + ": the name has no number that says which view it is; name it like view07.png");
        const auto [other, added] = files.insert({ *n, path });
        if (!added)
            throw Failure(path + " and " + other->second + " both have the number " + std::to_string(*n)
                + "; give each view a number of its own");
    }
    if (files.empty()) throw Failure(where + ": no pictures found");
    return files;
}

/// Names in `files` whose numbers `others` lacks.
std::string without_partner(const Numbered& files, const Numbered& others)
{
    std::string names;
    for (const auto& [n, path] : files)
        if (others.count(n) == 0) names += (names.empty() ? "" : ", ") + fs::path(path).filename().string();
    return names;
}

void check_pairing(const std::string& cam0, const Numbered& left, const std::string& cam1, const Numbered& right)
{
    const std::string only0 = without_partner(left, right), only1 = without_partner(right, left);
    if (only0.empty() && only1.empty()) return;
    throw Failure(cam0 + " has " + std::to_string(left.size()) + " pictures, " + cam1 + " has "
        + std::to_string(right.size()) + "; pictures pair by the number in their names; without a partner: "
        + (only0.empty() ? "" : "of camera 0 " + only0) + (only0.empty() || only1.empty() ? "" : "; ")
        + (only1.empty() ? "" : "of camera 1 " + only1));
}

std::vector<BoardPicture> list(const Numbered& files, int camera, const std::vector<int>& dropped)
{
    std::vector<BoardPicture> pictures;
    for (const auto& [n, path] : files) {
        if (std::find(dropped.begin(), dropped.end(), n) != dropped.end()) continue;
        BoardPicture picture;
        picture.path = path;
        picture.name = fs::path(path).filename().string();
        picture.number = n;
        picture.camera = camera;
        pictures.push_back(picture);
    }
    return pictures;
}

std::string meaning(int code)
{
    switch (code) {
    case 1:
        return "another size than this camera's first picture";
    case 2:
        return "too few circles (is the board sharp, well lit and in the picture?)";
    case 3:
        return "no ring marker seen (is the middle of the board hidden or blurred?)";
    case 4:
        return "not exactly three ring markers seen";
    case 5:
        return "the three rings do not stand as on this board (is it seen from behind, or partly hidden?)";
    default:
        return "not recognised";
    }
}

/// The radius from which on each of 24 sharp, bright photos at slants of up to 40 degrees was recognised; it is given
/// for rings that are seen from the front.
constexpr double least_hole_px = 2.0;

std::string why_refused(const std::string& name, int code)
{
    constexpr int other_size = 1;
    std::string reason = name + ": " + meaning(code);
    if (code == other_size) return reason;
    return reason + "; the holes of the rings must have a radius of " + number(least_hole_px, 1)
        + " px or more in the picture";
}

void recognise_one(BoardSearch& search, BoardPicture& picture)
{
    const cv::Mat grey = read_grey(picture.path);
    picture.size = grey.size();
    BoardSearchResult result = search.find(grey);
    picture.code = result.code;
    picture.step = result.step;
    picture.markers = std::move(result.markers);
    if (!picture.recognised()) picture.reason = why_refused(search.error_name(picture.code), picture.code);
    picture.found = static_cast<int>(std::count_if(
        picture.markers.begin(), picture.markers.end(), [](const cv::Point2f& p) { return p.x != FLT_MAX; }));
    picture.drawing = encode(".jpg", result.drawing.empty() ? grey : result.drawing);
}

} // namespace

bool BoardViews::good(std::size_t view) const
{
    return std::all_of(cameras.begin(), cameras.end(), [view](const auto& list) { return list[view].recognised(); });
}

bool BoardViews::any_good() const
{
    for (std::size_t v = 0; v < count(); ++v)
        if (good(v)) return true;
    return false;
}

BoardViews find_views(const std::string& cam0, const std::string& cam1, const std::vector<int>& dropped)
{
    const Numbered left = numbered(cam0);
    for (const int n : dropped)
        if (left.count(n) == 0) throw UsageFailure("--drop-view " + std::to_string(n) + ": no view has that number");
    BoardViews views;
    views.cameras.push_back(list(left, 0, dropped));
    if (!cam1.empty()) {
        const Numbered right = numbered(cam1);
        check_pairing(cam0, left, cam1, right);
        views.cameras.push_back(list(right, 1, dropped));
    }
    if (views.count() == 0) throw UsageFailure("--drop-view: no view is left");
    return views;
}

void recognise(BoardViews& views, const BoardFile& board, const OnStep& on_step)
{
    for (std::vector<BoardPicture>& pictures : views.cameras) {
        BoardSearch search(board);
        for (BoardPicture& picture : pictures) {
            next_step(on_step, picture.path);
            recognise_one(search, picture);
        }
    }
}

std::string outcome(const BoardPicture& picture, const BoardFile& board)
{
    if (!picture.recognised()) return picture.reason;
    const std::string how = picture.step == SearchStep::as_set ? "" : std::string(" (") + name_of(picture.step) + ")";
    return "found " + std::to_string(picture.found) + " of " + std::to_string(board.markers()) + " markers" + how;
}

cv::Mat decoded_drawing(const BoardPicture& picture)
{
    return decode_picture(picture.drawing, PictureAs::colour);
}

} // namespace vexo
