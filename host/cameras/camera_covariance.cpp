#include "host/cameras/camera_covariance.h"

#include "base/boundary.h"
#include "base/failure.h"
#include "base/plain_yaml.h"
#include "base/whole_file.h"
#include "host/files/hash.h"

#include <opencv2/calib3d.hpp>

#include <algorithm>
#include <cmath>
#include <filesystem>

namespace vexo {

namespace {

constexpr const char* lens_names[] = { "fx", "fy", "cx", "cy" };
constexpr const char* distortion_names[]
    = { "k1", "k2", "p1", "p2", "k3", "k4", "k5", "k6", "s1", "s2", "s3", "s4", "tau_x", "tau_y" };
constexpr std::size_t most_distortion = std::size(distortion_names);

/// @param distortions  coefficients of each camera, one or two
std::vector<std::string> names_of(const std::vector<std::size_t>& distortions)
{
    std::vector<std::string> names;
    for (std::size_t k = 0; k < distortions.size(); ++k) {
        const std::string camera = "cam" + std::to_string(k) + ".";
        for (const char* name : lens_names)
            names.push_back(camera + name);
        for (std::size_t i = 0; i < std::min(distortions[k], most_distortion); ++i)
            names.push_back(camera + distortion_names[i]);
    }
    if (distortions.size() < 2) return names;
    for (const char* what : { "rotation", "translation" })
        for (const char axis : { 'x', 'y', 'z' })
            names.push_back(std::string(what) + "." + axis);
    return names;
}

/// Whether these are the names of a camera's or a pair's parameters, whatever their number of coefficients.
bool are_names(const std::vector<std::string>& names)
{
    std::vector<std::size_t> distortions;
    for (const char* camera : { "cam0.", "cam1." }) {
        const auto own = static_cast<std::size_t>(std::count_if(
            names.begin(), names.end(), [camera](const std::string& name) { return name.rfind(camera, 0) == 0; }));
        if (own >= std::size(lens_names)) distortions.push_back(own - std::size(lens_names));
    }
    return !distortions.empty() && names == names_of(distortions);
}

/// The eigenvalues of the correlations, which unlike those of the covariance have one size, whatever the units.
struct Correlations {
    static constexpr double impossible = 2.0;     ///< of a parameter that does not vary with another one
    cv::Mat_<double> deviations, values, vectors; ///< N x 1, N x 1 descending, eigenvectors as rows
    double asymmetry = 0.0;

    explicit Correlations(const cv::Mat_<double>& covariance)
    {
        cv::sqrt(cv::Mat_<double>(covariance.diag().clone()), deviations);
        cv::Mat_<double> correlation = covariance.clone();
        for (int i = 0; i < covariance.rows; ++i)
            for (int j = 0; j < covariance.cols; ++j) {
                const double scale = deviations(i) * deviations(j);
                correlation(i, j) = scale > 0.0 ? covariance(i, j) / scale : covariance(i, j) == 0.0 ? 0.0 : impossible;
            }
        asymmetry = cv::norm(correlation, correlation.t(), cv::NORM_INF);
        cv::eigen(correlation, values, vectors);
    }
};

bool is_covariance(const cv::Mat_<double>& matrix)
{
    constexpr double rounding = 1e-6; // of correlations, which end at 1
    if (matrix.empty() || matrix.rows != matrix.cols || !cv::checkRange(matrix)) return false;
    double least = 0.0;
    cv::minMaxLoc(matrix.diag(), &least);
    if (least < 0.0) return false;
    const Correlations c(matrix);
    return c.asymmetry <= rounding && c.values(matrix.rows - 1) >= -rounding;
}

bool ascend(const std::array<double, 3>& d)
{
    return d[0] > 0.0 && d[0] < d[1] && d[1] < d[2] && std::isfinite(d[2]);
}

void write_list(cv::FileStorage& yaml, const char* key, const std::vector<std::string>& texts)
{
    yaml.startWriteStruct(key, cv::FileNode::SEQ | cv::FileNode::FLOW);
    for (const std::string& text : texts)
        cv::write(yaml, cv::String(), text);
    yaml.endWriteStruct();
}

/// A matrix of that many columns and at most that many rows: told before one is made of what a file says.
bool read_rows(const cv::FileNode& node, std::size_t least, std::size_t most, int cols, cv::Mat& out)
{
    int rows = 0, columns = 0;
    if (!node.isMap() || !read_whole(node["rows"], rows) || !read_whole(node["cols"], columns)) return false;
    if (rows < static_cast<int>(least) || rows > static_cast<int>(most) || columns != cols) return false;
    node >> out;
    if (out.rows != rows || out.cols != cols || out.channels() != 1 || !cv::checkRange(out)) return false;
    out.convertTo(out, CV_64F);
    return true;
}

bool read_number(const cv::FileNode& node, double& value)
{
    if (!node.isInt() && !node.isReal()) return false;
    value = static_cast<double>(node);
    return std::isfinite(value);
}

/// What is wrong with the keys; nothing: they were all read.
const char* fault_in(const cv::FileStorage& yaml, CovarianceFile& read)
{
    CameraCovariance& c = read.covariance;
    const cv::FileNode hash = yaml["cameras_sha256"], names = yaml["parameters"], distances = yaml["distance_mm"];
    if (!hash.isString()) return "cameras_sha256 holds no hash";
    read.cameras_sha256 = hash.string();
    if (!names.isSeq() || names.size() > names_of({ most_distortion, most_distortion }).size())
        return "parameters are no list of a camera's or a pair's";
    for (const cv::FileNode name : names)
        c.parameters.push_back(name.isString() ? name.string() : "");
    if (!are_names(c.parameters)) return "parameters are no list of a camera's or a pair's";
    cv::Mat matrix;
    const std::size_t n = c.parameters.size();
    if (!read_rows(yaml["covariance"], n, n, static_cast<int>(n), matrix) || !is_covariance(matrix))
        return "covariance is no covariance of these parameters";
    c.covariance = matrix;
    for (const auto& [key, value] :
        { std::pair("residual_px", &c.residual_px), { "marker_sigma_px", &c.marker_sigma_px },
            { "halves_ratio", &c.halves_ratio }, { "blur_over_gap", &c.blur_over_gap } })
        if (!read_number(yaml[key], *value) || *value < 0.0)
            return "residual_px, marker_sigma_px, halves_ratio and blur_over_gap are not all there and at least 0";
    bool three = distances.isSeq() && distances.size() == 3;
    for (int i = 0; three && i < 3; ++i)
        three = read_number(distances[i], c.distance_mm[static_cast<std::size_t>(i)]);
    if (!three || !ascend(c.distance_mm)) return "distance_mm does not hold three depths that ascend";
    return nullptr;
}

/// x1 = R x0 + T, as a rotation vector and T.
cv::Mat_<double> relative_pose(const std::vector<CalibratedCamera>& pair)
{
    const cv::Matx33d R = pair[1].R * pair[0].R.t();
    cv::Vec3d turn;
    cv::Rodrigues(R, turn);
    cv::Mat_<double> pose;
    cv::vconcat(cv::Mat(turn), cv::Mat(pair[1].T - R * pair[0].T), pose);
    return pose;
}

} // namespace

std::vector<std::string> covariance_parameters(const std::vector<CalibratedCamera>& cameras)
{
    std::vector<std::size_t> distortions;
    distortions.reserve(cameras.size());
    for (const CalibratedCamera& camera : cameras)
        distortions.push_back(camera.D.total());
    return names_of(distortions);
}

std::vector<CalibratedCamera> changed_by(const std::vector<CalibratedCamera>& cameras, const cv::Mat_<double>& change)
{
    std::vector<CalibratedCamera> changed = cameras;
    int next = 0;
    for (CalibratedCamera& camera : changed) {
        for (const auto& [row, column] : { std::pair(0, 0), { 1, 1 }, { 0, 2 }, { 1, 2 } })
            camera.K(row, column) += change(next++);
        camera.D = camera.D.clone();
        for (auto d = camera.D.begin<double>(); d != camera.D.end<double>(); ++d)
            *d += change(next++);
        camera.R = cv::Matx33d::eye();
        camera.T = {};
    }
    if (cameras.size() < 2) return changed;
    const cv::Mat_<double> pose(relative_pose(cameras) + change.rowRange(next, next + 6));
    cv::Rodrigues(cv::Vec3d(pose(0), pose(1), pose(2)), changed[1].R);
    changed[1].T = { pose(3), pose(4), pose(5) };
    return changed;
}

std::vector<cv::Mat_<double>> independent_changes(const cv::Mat_<double>& covariance)
{
    std::vector<cv::Mat_<double>> changes;
    if (!is_covariance(covariance)) return changes;
    const Correlations c(covariance);
    for (int i = 0; i < covariance.rows; ++i)
        if (c.values(i) > 0.0)
            changes.emplace_back(std::sqrt(c.values(i)) * c.deviations.mul(cv::Mat_<double>(c.vectors.row(i).t())));
    return changes;
}

std::string covariance_yaml(const CameraCovariance& covariance, const std::string& cameras_yaml)
{
    cv::FileStorage yaml = memory_yaml();
    cv::write(yaml, "cameras_sha256", sha256(cameras_yaml));
    cv::write(yaml, "residual_px", covariance.residual_px);
    cv::write(yaml, "marker_sigma_px", covariance.marker_sigma_px);
    cv::write(yaml, "halves_ratio", covariance.halves_ratio);
    cv::write(yaml, "blur_over_gap", covariance.blur_over_gap);
    yaml.startWriteStruct("distance_mm", cv::FileNode::SEQ | cv::FileNode::FLOW);
    for (const double distance : covariance.distance_mm)
        cv::write(yaml, cv::String(), distance);
    yaml.endWriteStruct();
    write_list(yaml, "parameters", covariance.parameters);
    cv::write(yaml, "covariance", covariance.covariance);
    return yaml.releaseAndGetString();
}

CovarianceFile read_covariance(const std::string& file)
{
    read_bytes(file, max_yaml_bytes); // says what is wrong with the file itself
    cv::FileStorage yaml;
    const std::string damaged = file + ": is damaged; calibrate again, or remove it: ";
    if (!open_yaml(file, yaml) || !yaml.root().isMap()) throw Failure(damaged + "it is no plain YAML");
    CovarianceFile read;
    const char* fault
        = failure_if_opencv_throws(damaged + "its matrices are none", [&] { return fault_in(yaml, read); });
    if (fault != nullptr) throw Failure(damaged + fault);
    return read;
}

FoundCovariance covariance_beside(const std::vector<std::string>& camera_files)
{
    const auto folder = std::filesystem::path(camera_files.front()).parent_path();
    const std::string file = (folder / covariance_file).string();
    std::error_code ignored;
    if (!std::filesystem::exists(file, ignored))
        return { {}, "there is no " + std::string(covariance_file) + " beside " + camera_files.front() };
    const CovarianceFile read = read_covariance(file);
    for (const std::string& cameras : camera_files)
        if (sha256(read_bytes(cameras, max_yaml_bytes)) != read.cameras_sha256)
            return { {}, file + " belongs to another cameras.yaml" };
    return { read.covariance, "" };
}

} // namespace vexo
