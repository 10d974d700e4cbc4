#include "host/cameras/hand_eye_strays.h"

#include "host/cameras/hand_eye_readings.h"

#include <algorithm>
#include <numeric>
#include <optional>

namespace vexo {

StrayPoses find_stray_poses(const std::vector<HandEyePose>& poses, HandEyeSetup setup, const cv::Vec3d& board_point_mm,
    const HandEyeResidual& fits)
{
    constexpr std::size_t most_poses = 40;
    if (poses.size() > most_poses) return {};
    const std::size_t most = poses.size() / 4;
    std::vector<std::size_t> kept(poses.size());
    std::iota(kept.begin(), kept.end(), 0U);
    StrayPoses found;
    while (found.strays.size() < most && kept.size() > fewest_hand_eye_views) {
        std::optional<HandEyeResidual> least;
        std::size_t worst = 0;
        for (std::size_t i = 0; i < kept.size(); ++i) {
            std::vector<HandEyePose> rest;
            for (std::size_t k = 0; k < kept.size(); ++k)
                if (k != i) rest.push_back(poses[kept[k]]);
            const auto solved = closed_hand_eye(rest, setup);
            if (!solved) continue;
            const HandEyeResidual rms = rms_of(residuals_of(rest, *solved, board_point_mm));
            if (least && rms.mm >= least->mm) continue;
            least = rms;
            worst = i;
        }
        if (!least) return {};
        found.strays.push_back(kept[worst]);
        found.rms = *least;
        kept.erase(kept.begin() + static_cast<std::ptrdiff_t>(worst));
        if (least->mm > fits.mm || least->deg > fits.deg) continue;
        std::sort(found.strays.begin(), found.strays.end());
        return found;
    }
    return {};
}

} // namespace vexo
