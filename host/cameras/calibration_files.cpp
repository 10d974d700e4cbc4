#include "host/cameras/calibration_files.h"

#include "base/boundary.h"
#include "base/failure.h"
#include "base/whole_file.h"
#include "host/cameras/opencv_files.h"
#include "host/cameras/stereo_file.h"

#include <cmath>
#include <filesystem>

namespace vexo {

namespace fs = std::filesystem;
using Kind = CalibrationFiles::Kind;

namespace {

/// Those of the names that a folder has, with their paths; nothing unless it has all.
std::vector<std::string> all_in(const fs::path& folder, const std::vector<std::string>& names)
{
    std::vector<std::string> paths;
    std::error_code ignored;
    for (const std::string& name : names)
        if (fs::exists(folder / name, ignored)) paths.push_back((folder / name).string());
    if (paths.size() != names.size()) paths.clear();
    return paths;
}

const std::vector<std::string> hmat_names { "hmat0.bin", "hmat1.bin", "hmat_tables.bin" };

/// Distance of the optical centres of an hmat set; 0 when it is none.
double baseline_of_hmats(const std::vector<std::string>& files)
{
    std::array<cv::Vec3d, 2> centres;
    for (std::size_t i = 0; i < 2; ++i) {
        cv::Matx34d P;
        std::string bytes;
        if (!read_file(files[i], sizeof P.val, bytes) || bytes.size() != sizeof P.val) return 0.0;
        std::copy(bytes.begin(), bytes.end(), reinterpret_cast<char*>(P.val));
        centres[i] = P.get_minor<3, 3>(0, 0).inv() * cv::Vec3d(P(0, 3), P(1, 3), P(2, 3));
    }
    return cv::norm(centres[0] - centres[1]);
}

bool same_pair(double baseline, double other)
{
    return std::abs(baseline - other) <= 1e-6 * baseline; // both were computed from the same doubles
}

CalibrationFiles of_stereo_file(const std::string& file)
{
    const fs::path folder = fs::path(file).parent_path();
    const double baseline = read_stereo_file(file).baseline;
    const auto cameras = all_in(folder, { "cameras.yaml" });
    if (!cameras.empty() && same_pair(baseline, baseline_in(cameras[0]))) return { Kind::cameras, cameras };
    const auto hmats = all_in(folder, hmat_names);
    if (!hmats.empty() && same_pair(baseline, baseline_of_hmats(hmats))) return { Kind::hmat, hmats };
    const auto maps = all_in(folder, { "map0.bin", "map1.bin" });
    if (!maps.empty()) return { Kind::stereo, { file, maps[0], maps[1] } };
    throw Failure(file
        + ": beside it there is no cameras.yaml, hmat set or map0.bin and map1.bin of this pair; copy the "
          "whole folder of the calibration");
}

CalibrationFiles in_folder(const std::string& folder)
{
    if (auto files = all_in(folder, { "cameras.yaml" }); !files.empty()) return { Kind::cameras, files };
    for (const char* extension : { ".yml", ".yaml" })
        if (auto files
            = all_in(folder, { std::string("intrinsics") + extension, std::string("extrinsics") + extension });
            !files.empty())
            return { Kind::opencv, files };
    if (auto files = all_in(folder, hmat_names); !files.empty()) return { Kind::hmat, files };
    if (auto files = all_in(folder, { "stereo.yaml" }); !files.empty()) return of_stereo_file(files[0]);
    throw Failure(folder
        + ": holds no calibration: no cameras.yaml, stereo.yaml, hmat set (hmat0.bin, hmat1.bin, "
          "hmat_tables.bin), or OpenCV's intrinsics.yml with extrinsics.yml");
}

/// Of OpenCV's two files the other one, when one is named.
std::vector<std::string> with_partner(std::vector<std::string> files, const OpenCvKeys& has)
{
    if (files.size() > 1 || (has.intrinsics && has.extrinsics)) return files;
    const fs::path file(files[0]);
    const fs::path other
        = file.parent_path() / ((has.intrinsics ? "extrinsics" : "intrinsics") + file.extension().string());
    std::error_code ignored;
    if (!fs::exists(other, ignored) || same_file(files[0], other.string()))
        throw Failure(files[0]
            + (has.intrinsics ? ": has no R and T; give extrinsics.yml, too"
                              : ": has no M1, D1, M2, D2; give intrinsics.yml, too"));
    files.push_back(other.string());
    return files;
}

} // namespace

double baseline_in(const std::string& cameras_yaml)
{
    return value_if_it_throws(0.0, [&] {
        const auto cameras = read_cameras(std::vector<std::string> { cameras_yaml });
        return cv::norm(cameras[1].T - cameras[1].R * cameras[0].R.t() * cameras[0].T);
    });
}

CalibrationFiles find_calibration(const std::vector<std::string>& named)
{
    std::error_code ignored;
    for (const std::string& name : named)
        if (!fs::exists(name, ignored)) throw Failure(name + ": there is no such file; give the calibration's own");
    if (named.empty()) throw Failure("no calibration is named");
    if (named.size() == 1 && fs::is_directory(named[0], ignored)) return in_folder(named[0]);
    if (named.size() >= 3) return { Kind::hmat, named };
    if (named.size() == 1 && is_stereo_file(named[0])) return of_stereo_file(named[0]);
    OpenCvKeys any;
    for (const std::string& name : named) {
        const OpenCvKeys has = opencv_keys(name);
        any.intrinsics = any.intrinsics || has.intrinsics;
        any.extrinsics = any.extrinsics || has.extrinsics;
    }
    if (any.intrinsics || any.extrinsics) return { Kind::opencv, with_partner(named, any) };
    return { Kind::cameras, named };
}

std::array<CalibratedCamera, 2> read_cameras(const CalibrationFiles& calibration, cv::Size frames)
{
    if (calibration.kind == Kind::cameras) return read_cameras(calibration.files);
    if (calibration.kind == Kind::opencv) return read_opencv_cameras(calibration.files, frames);
    throw Failure(calibration.files[0] + ": says nothing of raw pictures; give the cameras.yaml of the calibration");
}

std::string one_camera_file(const std::vector<std::string>& folders)
{
    constexpr std::size_t largest = std::size_t { 1 } << 24;
    std::string found, text;
    for (const std::string& folder : folders) {
        std::string path = (fs::path(folder) / "cameras.yaml").string(), own;
        if (!read_file(path, largest, own)) continue;
        if (!found.empty() && own != text)
            throw Failure(path + ": is not the calibration in " + found
                + "; exposures of one scene have one pair of cameras: give each folder the file that they were "
                  "recorded "
                  "with, or none and --calib");
        if (!found.empty()) continue;
        found = std::move(path);
        text = std::move(own);
    }
    return found.empty() ? (fs::path(folders.at(0)) / "cameras.yaml").string() : found;
}

} // namespace vexo
