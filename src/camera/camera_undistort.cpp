#include "camera/camera_undistort.h"

#include "base/boundary.h"
#include "base/large_pages.h"
#include "base/whole_file.h"

#include "camera/camera_file.h"

#include <opencv2/calib3d.hpp>
#include <opencv2/imgproc.hpp>

#include <array>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <sstream>
#include <utility>

#include <unistd.h>

namespace vexo {
namespace {

constexpr std::streamoff alignment = 8;

// Whether two pictures share memory: cv::remap guards only against equal first pixels.
bool overlap(const cv::Mat& a, const cv::Mat& b)
{
    const std::less<const uchar*> before;
    return !a.empty() && !b.empty() && before(a.datastart, b.dataend) && before(b.datastart, a.dataend);
}

int remap_method(int interpolation)
{
    constexpr std::array<int, 4> methods { cv::INTER_NEAREST, cv::INTER_LINEAR, cv::INTER_CUBIC, cv::INTER_LANCZOS4 };
    if (interpolation < 0 || interpolation >= static_cast<int>(methods.size())) return cv::INTER_LINEAR;
    return methods[static_cast<std::size_t>(interpolation)];
}

void write_int(std::ostream& os, int value)
{
    const auto fixed = static_cast<std::int32_t>(value);
    os.write(reinterpret_cast<const char*>(&fixed), sizeof fixed);
}

bool read_int(std::istream& is, std::int32_t& value)
{
    return static_cast<bool>(is.read(reinterpret_cast<char*>(&value), sizeof value));
}

std::streamoff padding_at(std::streamoff position)
{
    return position < 0 ? 0 : (alignment - position % alignment) % alignment;
}

// Bytes from the read position to the end; -1 when the stream does not know.
std::streamoff bytes_left(std::istream& is)
{
    const std::istream::pos_type here = is.tellg();
    if (here == std::istream::pos_type(-1)) return -1;
    is.seekg(0, std::ios::end);
    const std::istream::pos_type end = is.tellg();
    is.seekg(here);
    return is.good() ? std::streamoff(end - here) : -1;
}

void write_rows(std::ostream& os, const cv::Mat& m, std::size_t row_bytes)
{
    for (int y = 0; y < m.rows; ++y)
        os.write(m.ptr<char>(y), static_cast<std::streamsize>(row_bytes));
}

bool read_rows(std::istream& is, cv::Mat& m, std::size_t row_bytes)
{
    for (int y = 0; y < m.rows; ++y)
        if (!is.read(m.ptr<char>(y), static_cast<std::streamsize>(row_bytes))) return false;
    return true;
}

// Whether a number is the type of some matrix, as save_map() writes it.
bool is_element_type(int type)
{
    return type >= 0 && type == CV_MAT_TYPE(type);
}

// The pairs that cv::remap accepts: two planes of floats, or fixed-point positions with their fractions.
bool are_table_pair(const cv::Mat& map1, const cv::Mat& map2, cv::Size size)
{
    if (map1.size() != size || map2.size() != size) return false;
    return (map1.type() == CV_32FC1 && map2.type() == CV_32FC1) || (map1.type() == CV_16SC2 && map2.type() == CV_16UC1);
}

// Both tables of a camera from the table file; false when it is damaged or made for another size.
bool read_table_file(const std::string& file, cv::Size size, cv::Mat& map1, cv::Mat& map2)
{
    if (!camera_file::is_picture_size(size)) return false;
    const std::size_t largest = static_cast<std::size_t>(size.area()) * 16 + 64;
    std::string bytes;
    if (!read_file(file, largest, bytes)) return false;
    std::istringstream is(bytes);
    return load_map(is, map1) && load_map(is, map2) && are_table_pair(map1, map2, size);
}

bool write_table_file(const std::string& file, const cv::Mat& map1, const cv::Mat& map2)
{
    std::ostringstream os;
    if (save_map(os, map1)) save_map(os, map2); // an absent table ends the file, which is then not read back
    return write_file(file, os.str());
}

// Whether a file can be opened; a file that can but is none (a directory, a FIFO) counts as damaged later.
bool can_be_opened(const std::string& file)
{
    return !file.empty() && file.find('\0') == std::string::npos && ::access(file.c_str(), R_OK) == 0;
}

} // namespace

UndistortCamera::UndistortCamera(cv::Size image_size, std::string camera_name)
    : PinHoleCamera(image_size, std::move(camera_name))
{
}

UndistortCamera::UndistortCamera(const UndistortCamera& other)
    : PinHoleCamera(other)
    , float_maps(other.float_maps)
    , interpolation(other.interpolation)
    , map1(other.map1.clone())
    , map2(other.map2.clone())
    , roi(other.roi)
    , fill(other.fill)
    , map_file(other.map_file)
{
}

UndistortCamera& UndistortCamera::operator=(const UndistortCamera& other)
{
    *this = UndistortCamera(other);
    return *this;
}

void UndistortCamera::initMap(const DistortCamera& src, const cv::Mat_<double>& rotation)
{
    constexpr int refused_type = 2;
    const int table_type = float_maps != 0 ? CV_32FC1 : refused_type;
    if (float_maps != 0) create_large(size, { { &map1, CV_32FC1 }, { &map2, CV_32FC1 } });
    cv::initUndistortRectifyMap(src.normalised_K(), src.D, rotation, K, size, table_type, map1, map2);
}

bool UndistortCamera::remap(const cv::Mat& src, cv::Mat& dst, const cv::Scalar& colour) const
{
    return false_if_it_throws([&] {
        if (src.empty() || src.dims != 2 || map1.empty() || map2.empty()) return false;
        const cv::Mat source = overlap(src, dst) ? src.clone() : src;
        dst.create(map1.size(), source.type());
        if (_remap_rows(source, dst, colour)) return true;
        dst.setTo(colour);
        cv::remap(source, dst, map1, map2, remap_method(interpolation), cv::BORDER_TRANSPARENT);
        return true;
    });
}

bool UndistortCamera::has_row_form(cv::Size raw) const noexcept
{
    const auto in_range = [](cv::Size size) { return size.width < SHRT_MAX && size.height < SHRT_MAX; };
    return remap_method(interpolation) == cv::INTER_LINEAR && map1.type() == CV_32FC1 && map2.type() == CV_32FC1
        && map1.dims == 2 && map2.dims == 2 && map1.size() == map2.size() && in_range(map1.size()) && in_range(raw);
}

void UndistortCamera::remap_row(int row, cv::Size raw, const RemapImages& images) const noexcept
{
    vexo::remap_row(map1.ptr<float>(row), map2.ptr<float>(row), map1.cols, raw, images);
}

/// remap() by rows; false where only cv::remap can do it.
bool UndistortCamera::_remap_rows(const cv::Mat& src, cv::Mat& dst, const cv::Scalar& colour) const
{
    const bool bytes = src.type() == CV_8UC1;
    if (!has_row_form(src.size()) || !(bytes || src.type() == CV_32FC1)) return false;
    const auto row_of = [&](int r) {
        RemapImages images;
        if (bytes)
            images.bytes = { src.ptr(), src.step[0], dst.ptr(r), cv::saturate_cast<uchar>(colour[0]) };
        else
            images.floats = { src.ptr<float>(), src.step[0], dst.ptr<float>(r), cv::saturate_cast<float>(colour[0]) };
        return images;
    };
    const int rows = map1.rows;
#pragma omp parallel for schedule(dynamic, 32) // each row of `dst` is written by one thread
    for (int r = 0; r < rows; ++r)
        remap_row(r, src.size(), row_of(r));
    return true;
}

bool UndistortCamera::save(cv::FileStorage* fs)
{
    if (!name.empty() && !camera_file::is_key_name(name)) return false;
    const bool nameless = name.empty();
    const bool saved = camera_file::save_yaml(fs, name, [this](cv::FileStorage& storage) {
        if (!map_file.empty() && !write_table_file(map_file, map1, map2)) return false;
        if (!PinHoleCamera::save(&storage)) return false;
        storage.startWriteStruct(name + "_roi", cv::FileNode::SEQ | cv::FileNode::FLOW);
        for (const int value : { roi.x, roi.y, roi.width, roi.height })
            cv::write(storage, cv::String(), value);
        storage.endWriteStruct();
        return true;
    });
    if (!saved && nameless) name.clear(); // the next save goes to the same file
    return saved;
}

bool UndistortCamera::load(cv::FileStorage* fs)
{
    return camera_file::load_yaml(fs, name, [this](cv::FileStorage& storage) {
        PinHoleCamera fresh(*this);
        if (!fresh.load(&storage)) return false;
        int r[4] = { roi.x, roi.y, roi.width, roi.height };
        const cv::FileNode node = camera_file::find(storage, fresh.name + "_roi");
        if (!node.empty() && !camera_file::read_ints(node, 4, r)) return false;

        cv::Mat tables[2] = { map1, map2 };
        if (!can_be_opened(map_file))
            std::fputs("!!Warning!! Rectify map not found. You must do rectify and make map.\n", stderr);
        else if (!read_table_file(map_file, fresh.size, tables[0], tables[1]))
            return false;

        _swap(fresh);
        roi = cv::Rect(r[0], r[1], r[2], r[3]);
        cv::swap(map1, tables[0]);
        cv::swap(map2, tables[1]);
        return true;
    });
}

void alignment_padding_offset(std::ostream& os)
{
    constexpr char zeros[alignment] = {};
    os.write(zeros, padding_at(os.tellp()));
}

void alignment_padding_offset(std::istream& is)
{
    char skipped[alignment];
    is.read(skipped, padding_at(is.tellg())); // read, not ignore: a file that ends inside the padding fails
}

bool save_map(std::ostream& os, const cv::Mat& m)
{
    if (m.empty() || m.dims != 2) return false;
    write_int(os, m.type());
    write_int(os, m.cols);
    write_int(os, m.rows);
    alignment_padding_offset(os);
    write_rows(os, m, static_cast<std::size_t>(m.cols) * m.elemSize());
    alignment_padding_offset(os);
    return os.good();
}

bool load_map(std::istream& is, cv::Mat& m)
{
    return false_if_it_throws([&] {
        std::int32_t type = 0;
        std::int32_t cols = 0;
        std::int32_t rows = 0;
        if (!read_int(is, type) || !read_int(is, cols) || !read_int(is, rows)) return false;
        if (!is_element_type(type) || !camera_file::is_picture_size({ cols, rows })) return false;
        alignment_padding_offset(is);

        const std::size_t row_bytes = static_cast<std::size_t>(cols) * static_cast<std::size_t>(CV_ELEM_SIZE(type));
        if (!is.good() || bytes_left(is) < static_cast<std::streamoff>(row_bytes) * rows) return false;
        cv::Mat read;
        create_large(read, { cols, rows }, type);
        if (!read_rows(is, read, row_bytes)) return false;
        alignment_padding_offset(is);
        if (!is.good()) return false;
        m = read;
        return true;
    });
}

bool _save_rtable(std::ostream& os, const cv::Mat& m)
{
    if (m.empty() || m.dims != 2 || m.elemSize() != sizeof(float)) return false;
    write_int(os, m.rows * m.cols);
    alignment_padding_offset(os);
    write_rows(os, m, static_cast<std::size_t>(m.cols) * sizeof(float));
    alignment_padding_offset(os);
    return os.good();
}

bool _load_rtable(std::istream& is, cv::Mat& m)
{
    return false_if_it_throws([&] {
        std::int32_t count = 0;
        if (!read_int(is, count) || m.empty() || m.dims != 2 || count != m.rows * m.cols) return false;
        if (m.elemSize() != sizeof(float)) return false;
        alignment_padding_offset(is);
        cv::Mat read;
        create_large(read, m.size(), m.type());
        if (!is.good() || !read_rows(is, read, static_cast<std::size_t>(m.cols) * sizeof(float))) return false;
        alignment_padding_offset(is);
        if (!is.good()) return false;
        read.copyTo(m);
        return true;
    });
}

bool SaveRectifyTables(const UndistortCamera* cam, std::ostream& os)
{
    return false_if_it_throws([&] {
        if (cam == nullptr) return false;
        for (const cv::Mat* table : { &cam->map1, &cam->map2 }) {
            cv::Mat floats = *table;
            if (table->type() != CV_32FC1) table->convertTo(floats, CV_32FC1, 1.0, 0.0);
            if (!_save_rtable(os, floats)) return false; // two-channel tables, too: they have no such form
        }
        return true;
    });
}

bool LoadRectifyTables(UndistortCamera* cam, std::istream& is)
{
    return false_if_it_throws([&] {
        if (cam == nullptr) return false;
        cv::Mat map1(cam->map1.size(), CV_32FC1);
        cv::Mat map2(cam->map2.size(), CV_32FC1);
        if (!_load_rtable(is, map1) || !_load_rtable(is, map2)) return false;
        cv::swap(cam->map1, map1);
        cv::swap(cam->map2, map2);
        return true;
    });
}

} // namespace vexo
