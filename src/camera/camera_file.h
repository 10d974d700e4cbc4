#pragma once

#include "base/boundary.h"
#include "base/plain_yaml.h"
#include "vexo/limits.h"

#include <opencv2/core.hpp>

#include <initializer_list>
#include <string>

/// Checked reading of what camera files hold. Storages come from anywhere: nothing is accepted that has not the
/// stated shape, and nothing is allocated for what a file only announces. An absent node and a root that is no
/// map both give an empty node.
namespace vexo {
namespace camera_file {

/// Whether pictures of this size can be rectified.
inline bool is_picture_size(cv::Size size)
{
    return vexo::is_picture_size(size.width, size.height);
}

/// Whether a name can begin a key: OpenCV accepts letters, digits, '_', '-' and ' ', and no digit or '-' first.
bool is_key_name(const std::string& name);

/// Default file of a camera or a pair.
inline std::string default_file(const std::string& name)
{
    return name + "_param.yaml";
}

/// Node of a key; empty when there is none.
cv::FileNode find(const cv::FileStorage& fs, const std::string& key);

/// Whether a storage holds the pose and projection of a camera: K, R and T, or P.
bool has_projection(const cv::FileStorage& fs, const std::string& name);

/// Sequence of exactly `count` integers; see read_whole().
bool read_ints(const cv::FileNode& node, int count, int* values);

/// Image size: a picture's, or 0 x 0 for a camera without one.
bool read_size(const cv::FileNode& node, cv::Size& size);

/// Matrix node of one channel with finite numbers, as doubles; at most 16 numbers. A node of zero elements
/// gives an empty matrix.
bool read_matrix(const cv::FileNode& node, cv::Mat_<double>& m);

/// Matrix node of rows x cols finite numbers.
bool read_matrix(const cv::FileNode& node, int rows, int cols, cv::Mat_<double>& m);

/// Three finite numbers, as a row or a column; gives 3x1.
bool read_vector3(const cv::FileNode& node, cv::Mat_<double>& m);

/// True when every number is finite.
bool all_finite(std::initializer_list<cv::Mat_<double>> matrices);

/// Whether the left 3x3 block of a projection (or an intrinsic matrix) can be inverted with some digits left.
bool is_regular(const cv::Mat_<double>& m);

/// Opens for writing what save() was given, or a storage in memory when that is null. Runs `write` on it and, when
/// the storage is ours, brings it to the default file of `name` as it was before. Whatever is thrown gives false.
template <class Write> bool save_yaml(cv::FileStorage* given, const std::string& name, Write write)
{
    return false_if_it_throws([&] {
        if (given != nullptr) return given->isOpened() && write(*given);
        const std::string file = default_file(name);
        cv::FileStorage own = memory_yaml();
        return own.isOpened() && write(own) && close_yaml(own, file);
    });
}

/// Runs `read` on what load() was given, or on the default file of `name` when that is null. Whatever is thrown gives
/// false.
template <class Read> bool load_yaml(cv::FileStorage* given, const std::string& name, Read read)
{
    return false_if_it_throws([&] {
        if (given != nullptr) return given->isOpened() && read(*given);
        cv::FileStorage own;
        return open_yaml(default_file(name), own) && read(own);
    });
}

} // namespace camera_file
} // namespace vexo
