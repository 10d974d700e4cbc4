// The files with poses of a robot that `vexo handeye` and `vexo merge` read.

#include "host/cameras/robot_poses.h"
#include "base/failure.h"
#include "target.h"

#include <cmath>

#include <unistd.h>

namespace {

bool is_rotation(const cv::Affine3d& pose)
{
    const cv::Matx33d R = pose.rotation();
    return cv::norm(R * R.t() - cv::Matx33d::eye()) < 1e-9 && cv::determinant(R) > 0;
}

/// Every reading of the rows that the file and its forms allow.
void must_read(const vexo::RobotPoseFile& file)
{
    for (const char* rotation : { "", "xyzw", "vector", "ZYX", "zxz" }) {
        try {
            const vexo::PoseReading reading = vexo::reading_of(file, { rotation });
            for (const vexo::RobotPoseRow& row : file.rows) {
                const auto pose = vexo::robot_pose(row, reading);
                must(pose && is_rotation(*pose), "each row of a reading is a pose");
            }
        } catch (const vexo::Failure&) {
        }
    }
}

} // namespace

std::string good_input()
{
    return "picture,x_mm,y_mm,z_mm,qx,qy,qz,qw\n1,100,-200,300.5,0,0.6,0,0.8\n2,1,2,3,0,0,0,1\n";
}

bool fuzz_one(const std::string& bytes)
{
    const std::string path = "/dev/shm/vexo_fuzz_" + std::to_string(getpid()) + ".csv";
    std::ofstream(path, std::ios::binary) << bytes;
    bool read = false;
    try {
        const vexo::RobotPoseFile file = vexo::read_robot_poses(path);
        must(!file.rows.empty(), "a file that is read has a pose");
        for (const vexo::RobotPoseRow& row : file.rows) {
            must(row.rotation.size() == file.rows.front().rotation.size(), "rotations of one kind");
            must(std::isfinite(cv::norm(row.place, cv::NORM_INF)) && !row.picture.empty(), "a place and a picture");
        }
        must_read(file);
        read = true;
    } catch (const vexo::Failure& failure) {
        for (const char c : std::string(failure.what()))
            must(static_cast<unsigned char>(c) >= ' ' && c != '\x7F', "a message moves no cursor");
    }
    std::remove(path.c_str());
    return read;
}
