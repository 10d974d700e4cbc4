#include "camera/stereo_construction.h"

#include "base/boundary.h"
#include "base/plain_yaml.h"
#include "base/whole_file.h"
#include "camera/camera_file.h"

#include <cstdint>
#include <memory>
#include <new>
#include <sstream>

namespace vexo {
namespace {

constexpr std::size_t hmat_bytes = 12 * sizeof(double);

bool is_rotation(const cv::Mat_<double>& R)
{
    // Files written by hand carry four digits.
    constexpr double tolerance = 1e-3;
    const cv::Mat_<double> product(R * R.t());
    return cv::norm(product, cv::Mat_<double>::eye(3, 3), cv::NORM_INF) < tolerance && cv::determinant(R) > 0.0;
}

bool is_real_camera(const DistortCamera& cam)
{
    using namespace camera_file;
    if (!is_picture_size(cam.size) || !all_finite({ cam.K, cam.D, cam.RT, cam.RT_inv })) return false;
    if (!is_regular(cam.K) || !is_rotation(cam.R)) return false;
    const cv::Mat_<double> K(cam.normalised_K());
    return K(0, 0) > 0.0 && K(1, 1) > 0.0;
}

/// Camera `name` of a file that must hold its projection.
bool load_camera(const std::string& file, const std::string& name, DistortCamera& cam)
{
    cv::FileStorage fs;
    if (!open_yaml(file, fs)) return false;
    if (!camera_file::has_projection(fs, name)) return false;
    cam.name = name;
    return cam.load(&fs);
}

bool read_exactly(const std::string& file, std::size_t size, std::string& bytes)
{
    return read_file(file, size, bytes) && bytes.size() == size;
}

bool load_projection(const std::string& file, PinHoleCamera& cam)
{
    std::string bytes;
    if (!read_exactly(file, hmat_bytes, bytes)) return false;
    std::istringstream is(bytes);
    return cam.load_hmat(is);
}

/// Length of a bare stream of four float tables: a count and the pixels each, both padded to 8 bytes.
std::size_t tables_bytes(cv::Size size)
{
    const std::size_t pixels = static_cast<std::size_t>(size.area()) * sizeof(float);
    return 4 * (8 + (pixels + 7) / 8 * 8);
}

bool load_tables(const std::string& file, StereoCamera& stereo)
{
    std::string bytes;
    if (!read_exactly(file, tables_bytes(stereo.input_size), bytes)) return false;
    std::istringstream is(bytes);
    for (UndistortCamera* cam : { &stereo.cam0, &stereo.cam1 }) {
        cam->map1.create(cam->size, CV_32FC1);
        cam->map2.create(cam->size, CV_32FC1);
        if (!LoadRectifyTables(cam, is)) return false;
    }
    return true;
}

bool has_full_tables(const UndistortCamera& cam, cv::Size size)
{
    return cam.map1.size() == size && cam.map2.size() == size;
}

DistortCamera camera_from_raw(const char* name, cv::Size size, const double* K, const double* D)
{
    DistortCamera cam(size, name);
    std::copy(K, K + 9, cam.K.begin());
    cam.D.create(1, 5);
    std::copy(D, D + 5, cam.D.begin());
    return cam;
}

} // namespace

StereoCamera* create_StereoCamera_from_pair(const DistortCamera* cams, cv::Size new_size, double alpha, int flags,
    const cv::Scalar& fill0, const cv::Scalar& fill1) noexcept
{
    return null_if_it_throws([&]() -> StereoCamera* {
        const RectifyParam options { alpha, flags, new_size.width, new_size.height };
        if (cams == nullptr || why_invalid(options) != nullptr) return nullptr;
        if (!is_real_camera(cams[0]) || !is_real_camera(cams[1]) || cams[0].size != cams[1].size) return nullptr;
        std::unique_ptr<StereoCamera> stereo(
            new (std::nothrow) StereoCamera(cams, alpha, flags, new_size, fill0, fill1));
        return stereo && stereo->is_usable() ? stereo.release() : nullptr;
    });
}

StereoCamera* create_StereoCamera(const std::vector<std::string>& files, cv::Size new_size, double alpha, int flags,
    const cv::Scalar& fill0, const cv::Scalar& fill1) noexcept
{
    return null_if_it_throws([&]() -> StereoCamera* {
        if (files.empty()) return nullptr;
        const std::string& file1 = files.size() == 1 ? files[0] : files[1];
        DistortCamera cams[2] = { { cv::Size(0, 0), "" }, { cv::Size(0, 0), "" } };
        if (!load_camera(files[0], "cam0", cams[0]) || !load_camera(file1, "cam1", cams[1])) return nullptr;
        return create_StereoCamera_from_pair(cams, new_size, alpha, flags, fill0, fill1);
    });
}

StereoCamera* create_StereoCamera_from_Hmats(const std::string& file0, const std::string& file1,
    const std::string& file2, cv::Size input_size, const cv::Scalar& fill0, const cv::Scalar& fill1) noexcept
{
    return null_if_it_throws([&]() -> StereoCamera* {
        if (!camera_file::is_picture_size(input_size)) return nullptr;
        std::unique_ptr<StereoCamera> stereo(new (std::nothrow) StereoCamera(input_size));
        if (!stereo) return nullptr;
        stereo->cam0.fill = fill0;
        stereo->cam1.fill = fill1;
        if (!load_projection(file0, stereo->cam0) || !load_projection(file1, stereo->cam1)) return nullptr;
        if (!load_tables(file2, *stereo)) return nullptr;
        stereo->recalculationQ();
        return stereo->is_usable() ? stereo.release() : nullptr;
    });
}

StereoCamera* create_StereoCamera_from_raw(const double* K0, const double* D0, const double* K1, const double* D1,
    const double* R, const double* T, const StereoCameraParam* param) noexcept
{
    return null_if_it_throws([&]() -> StereoCamera* {
        for (const double* numbers : { K0, D0, K1, D1, R, T })
            if (numbers == nullptr) return nullptr;
        if (param == nullptr || why_invalid(*param) != nullptr) return nullptr;
        const cv::Size size(param->inp_width, param->inp_height);
        DistortCamera cams[2] = { camera_from_raw("cam0", size, K0, D0), camera_from_raw("cam1", size, K1, D1) };
        std::copy(R, R + 9, cams[1].R.begin());
        std::copy(T, T + 3, cams[1].T.begin());
        for (DistortCamera& cam : cams)
            cam.compose();
        return create_StereoCamera_from_pair(cams, { param->out_width, param->out_height }, param->alpha, param->flags,
            fill_colour(param->fill0), fill_colour(param->fill1));
    });
}

bool store_StereoCamera_to_Hmats(
    const StereoCamera* camera, const std::string& file0, const std::string& file1, const std::string& file2) noexcept
{
    return false_if_it_throws([&] {
        if (camera == nullptr || camera->input_size != camera->output_size || !camera->is_usable()) return false;
        if (same_file(file0, file1) || same_file(file0, file2) || same_file(file1, file2)) return false;
        const cv::Size size = camera->output_size;
        if (!has_full_tables(camera->cam0, size) || !has_full_tables(camera->cam1, size)) return false;

        std::ostringstream tables;
        std::ostringstream projection0;
        std::ostringstream projection1;
        return SaveRectifyTables(&camera->cam0, tables) && SaveRectifyTables(&camera->cam1, tables)
            && camera->cam0.save_hmat(projection0) && camera->cam1.save_hmat(projection1)
            && write_file(file2, tables.str()) && write_file(file0, projection0.str())
            && write_file(file1, projection1.str());
    });
}

} // namespace vexo
