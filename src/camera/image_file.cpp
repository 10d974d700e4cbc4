#include "camera/image_file.h"

#include "base/boundary.h"
#include "base/picture_header.h"
#include "base/pictures.h"
#include "base/whole_file.h"

namespace vexo {

cv::Mat read_grey_image(const std::string& path) noexcept
{
    return nothing_if_it_throws([&]() -> cv::Mat {
        std::string bytes;
        if (!read_file(path, picture_file::max_bytes, bytes)) return {};
        return decode_picture(bytes, PictureAs::grey);
    });
}

} // namespace vexo
