#include "matching/PointCloudGenerator.h"

#include "base/boundary.h"
#include "base/large_pages.h"
#include "base/plain_yaml.h"
#include "camera/stereo_camera.h"
#include "matching/reproject_row.h"
#include "matching/valid_columns.h"

#include <Eigen/Core>

#include <cmath>
#include <cstdint>
#include <numeric>

namespace vexo {
namespace {

using Point = cv::Point3_<float>;

Point to_point(const cv::Vec3d& v) noexcept
{
    return { static_cast<float>(v[0]), static_cast<float>(v[1]), static_cast<float>(v[2]) };
}

cv::Vec3d to_vector(const cv::Mat& centre)
{
    const cv::Mat_<double> c = centre;
    return { c(0), c(1), c(2) };
}

} // namespace

void PointCloudGenerator::init(iStereoCamera* new_camera)
{
    _bind(new_camera);
}

bool PointCloudGenerator::_bind(iStereoCamera* new_camera) noexcept
{
    auto* stereo = static_cast<StereoCamera*>(new_camera);
    int in_width = 0, in_height = 0, out_width = 0, out_height = 0;
    if (stereo != nullptr) {
        stereo->get_inpimage_size(&in_width, &in_height);
        stereo->get_outimage_size(&out_width, &out_height);
    }
    const bool usable = in_width > 0 && in_height > 0 && out_width > 0 && out_height > 0;
    if (!usable) stereo = nullptr;
    const std::uint64_t serial = usable ? stereo->serial() : 0;
    const bool same = stereo == camera && serial == _camera_serial && in_width == input_width
        && in_height == input_height && out_width == output_width && out_height == output_height;

    executed = false;
    if (!same) {
        texture.release();
        disparity.release();
        valid_count = 0;
    }
    camera = stereo;
    _camera_serial = serial;
    input_width = usable ? in_width : 0;
    input_height = usable ? in_height : 0;
    output_width = usable ? out_width : 0;
    output_height = usable ? out_height : 0;
    const bool room = false_if_it_throws([this] {
        const std::size_t pixels = static_cast<std::size_t>(output_width) * static_cast<std::size_t>(output_height);
        points.resize(pixels, nan_point());
    });
    if (!room) { // as without a camera
        camera = nullptr;
        input_width = input_height = output_width = output_height = 0;
    }
    return !same;
}

bool PointCloudGenerator::convert_coordinate(std::string file)
{
    return false_if_it_throws([&] {
        cv::FileStorage storage;
        if (!open_yaml(file, storage)) return false;
        const cv::FileNode node = storage["RT"];
        if (!node.isMap() || !node["rows"].isInt() || !node["cols"].isInt()) return false;
        if (static_cast<int>(node["rows"]) != 4 || static_cast<int>(node["cols"]) != 4) return false;
        cv::Mat rt;
        cv::read(node, rt);
        return _set_transform(rt);
    });
}

bool PointCloudGenerator::convert_coordinate(std::vector<double>& rt)
{
    if (rt.size() < 16) return false;
    return false_if_it_throws([&] { return _set_transform(cv::Mat(4, 4, CV_64F, rt.data())); });
}

/// Points go through the inverse of the pose that the host gives; a singular one would flatten every cloud.
bool PointCloudGenerator::_set_transform(const cv::Mat& rt)
{
    if (rt.rows != 4 || rt.cols != 4 || rt.channels() != 1) return false;
    cv::Mat_<double> pose, inverse;
    rt.convertTo(pose, CV_64F);
    if (!cv::checkRange(pose)) return false;
    if (cv::invert(pose, inverse, cv::DECOMP_LU) == 0.0 || !cv::checkRange(inverse)) return false;
    transform = cv::Matx44d(inverse.ptr<double>());
    return true;
}

void PointCloudGenerator::generate_pointcloud(Method3D method)
{
    valid_count = 0;
    const bool ready = camera != nullptr && disparity.type() == CV_64F && disparity.rows == output_height
        && disparity.cols == output_width && points.size() == disparity.total();
    if (!ready) return _drop_cloud();
    if (method == MethodV)
        generate_pointcloud_V();
    else if (method == MethodP)
        generate_pointcloud_P();
    else
        generate_pointcloud_Q();
}

void PointCloudGenerator::generate_pointcloud_P()
{
    auto point = points.begin();
    for (int r = 0; r < disparity.rows; ++r) {
        const double* row = disparity.ptr<double>(r);
        for (int c = 0; c < disparity.cols; ++c, ++point) {
            *point = nan_point();
            if (row[c] == invalid_disparity) continue;
            bool valid = false;
            const cv::Vec3d position = camera->get3dposition_P(cv::Point2d(c, r), cv::Point2d(row[c], r), &valid);
            if (!valid) continue;
            *point = to_point(position);
            ++valid_count;
        }
    }
}

void PointCloudGenerator::generate_pointcloud_V()
{
    constexpr double largest_gap = 1e-8; // between the two rays, in the calibration's length unit
    cv::Vec3d centre0 = to_vector(camera->cam0.get_center());
    cv::Vec3d centre1 = to_vector(camera->cam1.get_center());
    auto point = points.begin();
    for (int r = 0; r < disparity.rows; ++r) {
        const double* row = disparity.ptr<double>(r);
        for (int c = 0; c < disparity.cols; ++c, ++point) {
            *point = nan_point();
            if (row[c] == invalid_disparity) continue;
            const cv::Vec3d ray1 = camera->cam1.get_sight_vector(cv::Point2d(row[c], r));
            const cv::Vec3d ray0 = camera->cam0.get_sight_vector(cv::Point2d(c, r));
            double gap = 0.0;
            const cv::Vec3d position = camera->position_from_sv(ray0, ray1, gap, centre0, centre1);
            if (gap > largest_gap) continue; // a NaN gap is no reason to drop
            *point = to_point(position);
            ++valid_count;
        }
    }
}

void PointCloudGenerator::generate_pointcloud_Q()
{
    const cv::Matx44d H = _reprojection();
    _begin_cloud();
    const int rows = disparity.rows;
#pragma omp parallel for schedule(dynamic, 32) // each row writes its own points and its own count
    for (int r = 0; r < rows; ++r)
        _row_counts[static_cast<std::size_t>(r)] = _reproject(H, r, disparity.ptr<double>(r));
    valid_count = std::accumulate(_row_counts.begin(), _row_counts.end(), 0);
}

void PointCloudGenerator::_begin_cloud()
{
    valid_count = 0;
    _row_counts.assign(static_cast<std::size_t>(output_height), 0);
}

cv::Matx44d PointCloudGenerator::_reprojection() const
{
    using RowMajor = Eigen::Matrix<double, 4, 4, Eigen::RowMajor>;
    const cv::Matx44d Q = camera->Q;
    cv::Matx44d H;
    Eigen::Map<RowMajor>(H.val) = Eigen::Map<const RowMajor>(transform.val) * Eigen::Map<const RowMajor>(Q.val);
    return H;
}

int PointCloudGenerator::_reproject(const cv::Matx44d& H, int row, const double* disparities) noexcept
{
    return reproject_row(H, row, disparities, output_width, invalid_disparity,
        &points[static_cast<std::size_t>(row) * static_cast<std::size_t>(output_width)]);
}

int PointCloudGenerator::get_pointcloud(PointCloudCallback* callback)
{
    const int count = valid_count; // the callback may measure again, or end this object
    if (callback != nullptr)
        callback->receive(
            texture.data, texture.empty() ? 0 : texture.step[0], texture.cols, texture.rows, points.data(), count);
    return count;
}

void PointCloudGenerator::_drop_cloud() noexcept
{
    texture.release();
    disparity.release();
    valid_count = 0;
    std::fill(points.begin(), points.end(), nan_point());
}

bool PointCloudGenerator::_is_input_size(int cam, int width, int height) const noexcept
{
    return camera != nullptr && height == input_height && width == (cam == 2 ? 2 : 1) * input_width;
}

unsigned long PointCloudGenerator::_checked_step(
    const void* data, unsigned long step, int cam, int pixel_bytes) const noexcept
{
    if (data == nullptr || camera == nullptr || cam < 0 || cam > 2) return 0;
    const unsigned long row_bytes
        = static_cast<unsigned long>(input_width) * static_cast<unsigned long>(pixel_bytes) * (cam == 2 ? 2 : 1);
    if (step == 0) return row_bytes;
    const unsigned long longest = PTRDIFF_MAX / static_cast<unsigned long>(input_height); // rows fit into memory
    return step < row_bytes || step > longest ? 0 : step;
}

bool PointCloudGenerator::_hand_out(
    const cv::Mat& first, const cv::Mat* second, unsigned char** data, int* width, int* height, unsigned long* step)
{
    if (data == nullptr || width == nullptr || height == nullptr || step == nullptr || first.empty()) return false;
    if (second != nullptr && (second->size() != first.size() || second->type() != first.type())) return false;
    const bool copied = false_if_it_throws([&] {
        picture.create(first.rows, first.cols * (second == nullptr ? 1 : 2), first.type());
        first.copyTo(picture.colRange(0, first.cols));
        if (second != nullptr) second->copyTo(picture.colRange(first.cols, 2 * first.cols));
    });
    if (!copied) return false;
    *data = picture.data;
    *width = picture.cols;
    *height = picture.rows;
    *step = picture.step[0];
    return true;
}

} // namespace vexo
