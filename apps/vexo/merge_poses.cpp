#include "merge_poses.h"

#include "base/failure.h"
#include "base/text.h"
#include "host/calibration/poses.h"
#include "host/cameras/inverted.h"
#include "host/results/lit_frame.h"

namespace vexo::app {

ViewPoses poses_by_board(const std::vector<std::string>& results, const std::string& board, const OnStep& on_step)
{
    const BoardFile file = load_board(board);
    ViewPoses poses;
    poses.read_as = "the board in the lit frames";
    for (const std::string& result : results) {
        const LitFrame lit = lit_frame_of(result);
        const PosedPicture seen = find_poses({ lit.path }, lit.camera, file, on_step)[0];
        if (!seen.pose)
            throw Failure(result + ": the board is not found in " + lit.path + ": " + seen.reason
                + "; place it so that each view sees it, or give the poses with --poses");
        poses.common_from_camera.push_back(inverted(cv::Affine3d(seen.pose->rvec, seen.pose->tvec)));
        poses.where.push_back("board in " + lit.path + ", rms " + number(seen.pose->rms_px, 3) + " px");
    }
    return poses;
}

} // namespace vexo::app
