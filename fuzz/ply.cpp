// The PLY header that `vexo info` and `vexo compare` read.

#include "host/files/ply.h"
#include "base/failure.h"
#include "target.h"

#include <cmath>

#include <unistd.h>

std::string good_input()
{
    const std::vector<unsigned char> bytes
        = vexo::make_ply({ { 1, 2, 3 }, { NAN, NAN, NAN } }, cv::Mat(1, 2, CV_8U, cv::Scalar(7)), "mm");
    return std::string(bytes.begin(), bytes.end());
}

bool fuzz_one(const std::string& bytes)
{
    try {
        const vexo::PlyHeader header = vexo::parse_ply_header(bytes, "input");
        must(header.body <= bytes.size(), "the vertices begin inside the file");
        for (const auto& property : header.properties)
            must(property.offset + property.bytes <= header.stride, "a property inside its vertex");
        const std::string path = "/dev/shm/vexo_fuzz_" + std::to_string(getpid()) + ".ply";
        std::ofstream(path, std::ios::binary) << bytes;
        try {
            must(vexo::read_ply(path).size() == header.vertices, "as many points as promised");
        } catch (const vexo::Failure&) {
            std::remove(path.c_str());
            return false;
        }
        std::remove(path.c_str());
        return true;
    } catch (const vexo::Failure&) {
        return false;
    }
}
