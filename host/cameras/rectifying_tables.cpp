#include "host/cameras/rectifying_tables.h"

#include "base/failure.h"
#include "base/parallel.h"
#include "base/whole_file.h"

#include <opencv2/calib3d.hpp>

#include <cstdint>
#include <cstring>

namespace vexo {

RectifyingTables make_tables(
    const std::array<CalibratedCamera, 2>& cameras, const Rectification& rectification, cv::Size output)
{
    const std::array<cv::Matx33d, 2> rotations { rectification.rotation0, rectification.rotation1 };
    const std::array<cv::Matx34d, 2> projections { rectification.P0, rectification.P1 };
    RectifyingTables tables;
    in_parallel(2, [&](std::size_t i) {
        const cv::Matx33d K = projections[i].get_minor<3, 3>(0, 0);
        cv::initUndistortRectifyMap(
            cameras[i].K, cameras[i].D, rotations[i], K, output, CV_32FC1, tables[i].x, tables[i].y);
    });
    return tables;
}

RectifyingTables read_tables(const std::string& file, cv::Size size)
{
    constexpr std::size_t alignment = 8;
    const std::size_t count = static_cast<std::size_t>(size.area());
    const std::string bytes = read_bytes(file, 16 * count + 8 * alignment);
    RectifyingTables tables;
    std::size_t at = 0;
    const auto pad = [&at] { at = (at + alignment - 1) / alignment * alignment; };
    for (cv::Mat* table : { &tables[0].x, &tables[0].y, &tables[1].x, &tables[1].y }) {
        std::int32_t entries = 0;
        if (at + alignment + count * sizeof(float) > bytes.size())
            throw Failure(file + ": holds no tables for pictures of this size");
        std::memcpy(&entries, bytes.data() + at, sizeof entries);
        if (static_cast<std::size_t>(entries) != count)
            throw Failure(file + ": holds no tables for pictures of this size");
        at += sizeof entries;
        pad();
        table->create(size, CV_32F);
        std::memcpy(table->data, bytes.data() + at, count * sizeof(float));
        at += count * sizeof(float);
        pad();
    }
    return tables;
}

} // namespace vexo
