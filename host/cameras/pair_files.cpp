#include "host/cameras/pair_files.h"

#include "base/boundary.h"
#include "base/plain_yaml.h"

#include <opencv2/calib3d.hpp>

#include <cstdint>

namespace vexo {

namespace {

void write_numbers(cv::FileStorage& yaml, const std::string& key, std::initializer_list<int> numbers)
{
    yaml.startWriteStruct(key, cv::FileNode::SEQ | cv::FileNode::FLOW);
    for (const int number : numbers)
        cv::write(yaml, cv::String(), number);
    yaml.endWriteStruct();
}

/// The keys that every camera has.
void write_pinhole(cv::FileStorage& yaml, const std::string& name, cv::Size size, const cv::Mat& K, const cv::Mat& R,
    const cv::Mat& T, const cv::Mat& P)
{
    write_numbers(yaml, name + "_size", { size.width, size.height });
    cv::write(yaml, name + "_K", K);
    cv::write(yaml, name + "_R", R);
    cv::write(yaml, name + "_T", T);
    cv::write(yaml, name + "_P", P);
}

cv::Mat projection(const CalibratedCamera& camera)
{
    cv::Mat RT;
    cv::hconcat(cv::Mat(camera.R), cv::Mat(camera.T), RT);
    return cv::Mat(camera.K) * RT;
}

/// What cv::stereoRectify makes of a pair.
struct RectifiedCameras {
    cv::Size input, output;
    std::array<cv::Mat, 2> R, P;
    cv::Mat Q;
    std::array<cv::Rect, 2> roi;
    std::array<cv::Mat, 2> map_x, map_y; ///< of cv::initUndistortRectifyMap
};

RectifiedCameras rectified_cameras(const std::array<CalibratedCamera, 2>& cameras, const RectifyParam& rectify)
{
    RectifiedCameras r;
    r.input = r.output = cameras[0].size;
    const cv::Size asked(rectify.width, rectify.height);
    if (asked != cv::Size()) r.output = asked;
    const CalibratedCamera &a = cameras[0], &b = cameras[1];
    cv::stereoRectify(a.K, a.D, b.K, b.D, r.input, b.R, b.T, r.R[0], r.R[1], r.P[0], r.P[1], r.Q, rectify.flags,
        rectify.alpha, r.output, &r.roi[0], &r.roi[1]);
    for (std::size_t i = 0; i < 2; ++i)
        cv::initUndistortRectifyMap(
            cameras[i].K, cameras[i].D, r.R[i], r.P[i].colRange(0, 3), r.output, CV_32FC1, r.map_x[i], r.map_y[i]);
    return r;
}

std::string stereo_yaml(const RectifiedCameras& r)
{
    cv::FileStorage yaml = memory_yaml();
    cv::write(yaml, "StereoName", cv::String("stereo"));
    const std::array<const char*, 2> names { "stereoL", "stereoR" };
    for (std::size_t i = 0; i < 2; ++i) {
        cv::Mat K, R;
        cv::RQDecomp3x3(r.P[i].colRange(0, 3), K, R);
        write_pinhole(yaml, names[i], r.output, K, R, K.inv() * r.P[i].col(3), r.P[i]);
        const cv::Rect& roi = r.roi[i];
        write_numbers(yaml, std::string(names[i]) + "_roi", { roi.x, roi.y, roi.width, roi.height });
    }
    cv::write(yaml, "Q", r.Q);
    write_numbers(yaml, "oldcamSize", { r.input.width, r.input.height });
    cv::write(yaml, "cam0_R2", r.R[0]);
    cv::write(yaml, "cam1_R2", r.R[1]);
    return yaml.releaseAndGetString();
}

void append(std::string& bytes, std::initializer_list<std::int32_t> numbers)
{
    for (const std::int32_t number : numbers)
        bytes.append(reinterpret_cast<const char*>(&number), sizeof number);
    bytes.append((8 - bytes.size() % 8) % 8, '\0');
}

void append(std::string& bytes, const cv::Mat& table)
{
    bytes.append(table.ptr<char>(), table.total() * table.elemSize());
    bytes.append((8 - bytes.size() % 8) % 8, '\0');
}

/// Type, columns and rows before each table.
std::string table_file(const RectifiedCameras& r, std::size_t i)
{
    std::string bytes;
    for (const cv::Mat& table : { r.map_x[i], r.map_y[i] }) {
        append(bytes, { table.type(), table.cols, table.rows });
        append(bytes, table);
    }
    return bytes;
}

/// The number of entries before each table.
std::string bare_tables(const RectifiedCameras& r)
{
    std::string bytes;
    for (std::size_t i = 0; i < 2; ++i)
        for (const cv::Mat& table : { r.map_x[i], r.map_y[i] }) {
            append(bytes, { static_cast<std::int32_t>(table.total()) });
            append(bytes, table);
        }
    return bytes;
}

/// What one rectified camera sees of the board.
struct Sighting {
    std::vector<cv::Point2f> image_px;
    std::vector<cv::Point3f> board_mm;
    cv::Mat K, offset; ///< of the rectified camera, whose axes are those of rectified camera 0
};

Sighting sighting(
    const CalibratedCamera& camera, const cv::Matx33d& rotation, const cv::Matx34d& P, const SeenMarkers& seen)
{
    constexpr int most_steps = 50;
    constexpr double settled = 1e-9;
    Sighting s;
    cv::Mat R;
    const cv::Mat projection(P);
    cv::RQDecomp3x3(projection.colRange(0, 3), s.K, R);
    s.offset = s.K.inv() * projection.col(3);
    s.board_mm = seen.board_mm;
    const cv::TermCriteria until(cv::TermCriteria::COUNT + cv::TermCriteria::EPS, most_steps, settled);
    cv::undistortPoints(seen.image_px, s.image_px, camera.K, camera.D, rotation, s.K, until);
    return s;
}

/// Reprojection errors of a pose (rotation vector, translation; 6 x 1) in both cameras, and their derivatives.
class PairErrors : public cv::LMSolver::Callback {
public:
    explicit PairErrors(const std::array<Sighting, 2>& sightings)
        : _sightings(sightings)
    {
    }

    bool compute(cv::InputArray param, cv::OutputArray errors, cv::OutputArray jacobian) const override
    {
        const cv::Mat pose = param.getMat();
        cv::Mat all_errors, all_derivatives;
        for (const Sighting& s : _sightings) {
            std::vector<cv::Point2f> projected;
            cv::Mat derivatives;
            const cv::Mat translation = pose.rowRange(3, 6) + s.offset;
            cv::projectPoints(s.board_mm, pose.rowRange(0, 3), translation, s.K, cv::noArray(), projected, derivatives);
            cv::Mat miss = cv::Mat(projected) - cv::Mat(s.image_px);
            miss = miss.reshape(1, 2 * miss.rows);
            miss.convertTo(miss, CV_64F);
            all_errors.push_back(miss);
            all_derivatives.push_back(derivatives.colRange(0, 6));
        }
        all_errors.copyTo(errors);
        if (jacobian.needed()) all_derivatives.copyTo(jacobian);
        return true;
    }

private:
    const std::array<Sighting, 2>& _sightings;
};

bool solve_pose(const std::array<Sighting, 2>& sightings, cv::Matx44d& pose)
{
    constexpr int most_steps = 50;
    cv::Mat rvec, tvec, both;
    const Sighting& first = sightings[0];
    if (!cv::solvePnP(first.board_mm, first.image_px, first.K, cv::noArray(), rvec, tvec)) return false;
    cv::vconcat(rvec, tvec, both);
    cv::LMSolver::create(cv::makePtr<PairErrors>(sightings), most_steps)->run(both);
    BoardPose found;
    found.rvec = cv::Vec3d(both.ptr<double>());
    found.tvec = cv::Vec3d(both.ptr<double>(3));
    pose = found.matrix();
    return cv::checkRange(cv::Mat(pose)) && pose(2, 3) > 0.0; // not behind the camera
}

std::string projection_bytes(const cv::Mat& P)
{
    return { P.ptr<char>(), 12 * sizeof(double) };
}

} // namespace

std::string cameras_yaml(const std::vector<CalibratedCamera>& cameras)
{
    cv::FileStorage yaml = memory_yaml();
    for (std::size_t i = 0; i < cameras.size(); ++i) {
        const CalibratedCamera& c = cameras[i];
        const std::string name = "cam" + std::to_string(i);
        write_pinhole(yaml, name, c.size, cv::Mat(c.K), cv::Mat(c.R), cv::Mat(c.T), projection(c));
        cv::write(yaml, name + "_D", c.D);
    }
    return yaml.releaseAndGetString();
}

std::optional<PairFiles> pair_files(const std::array<CalibratedCamera, 2>& cameras, const RectifyParam& rectify)
{
    PairFiles made;
    const bool done = value_if_opencv_throws(false, [&] {
        const RectifiedCameras r = rectified_cameras(cameras, rectify);
        made.baseline = cv::norm(cameras[1].T);
        for (std::size_t i = 0; i < 2; ++i) {
            made.rotations[i] = cv::Matx33d(r.R[i].ptr<double>());
            made.projections[i] = cv::Matx34d(r.P[i].ptr<double>());
        }
        made.files
            = { { "stereo.yaml", stereo_yaml(r) }, { "map0.bin", table_file(r, 0) }, { "map1.bin", table_file(r, 1) } };
        if (r.input != r.output) return true;
        made.files.emplace_back("hmat0.bin", projection_bytes(r.P[0]));
        made.files.emplace_back("hmat1.bin", projection_bytes(r.P[1]));
        made.files.emplace_back("hmat_tables.bin", bare_tables(r));
        return true;
    });
    if (!done) return std::nullopt;
    return made;
}

std::optional<cv::Matx44d> pose_in_rectified(
    const std::array<CalibratedCamera, 2>& cameras, const PairFiles& pair, const std::array<SeenMarkers, 2>& seen)
{
    for (const SeenMarkers& s : seen)
        if (s.board_mm.size() < fewest_markers_of_a_pose) return std::nullopt;
    cv::Matx44d pose;
    const bool solved = value_if_opencv_throws(false, [&] {
        return solve_pose({ sighting(cameras[0], pair.rotations[0], pair.projections[0], seen[0]),
                              sighting(cameras[1], pair.rotations[1], pair.projections[1], seen[1]) },
            pose);
    });
    if (!solved) return std::nullopt;
    return pose;
}

std::string board_pose_yaml(const cv::Matx44d& rectified_from_board)
{
    cv::FileStorage yaml = memory_yaml();
    cv::write(yaml, "RT", cv::Mat(rectified_from_board));
    return yaml.releaseAndGetString();
}

} // namespace vexo
