#include "camera/image_file.h"

#include "base/boundary.h"
#include "base/picture_header.h"
#include "base/whole_file.h"

#include <opencv2/imgcodecs.hpp>

namespace vexo {

cv::Mat read_grey_image(const std::string& path) noexcept
{
    return nothing_if_it_throws([&]() -> cv::Mat {
        std::string bytes;
        if (!read_file(path, picture_file::max_bytes, bytes) || !picture_file::may_be_decoded(bytes)) return {};
        const cv::Mat file(1, static_cast<int>(bytes.size()), CV_8U, &bytes[0]);
        cv::Mat image = cv::imdecode(file, cv::IMREAD_GRAYSCALE);
        const bool good = image.type() == CV_8UC1 && image.total() <= std::size_t { max_picture_area };
        return good ? image : cv::Mat();
    });
}

} // namespace vexo
