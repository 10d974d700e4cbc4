#include "base/boundary.h"
#include "base/pictures/format.h"
#include "base/pictures/palette.h"
#include "base/pictures/plain_png.h"

#include <png.h>

#include <csetjmp>
#include <cstring>
#include <utility>

// libpng leaves a step by longjmp when the file is damaged. So each step is a function of its own, `noexcept`, without
// any object that has a destructor: those live in the functions that call the steps.
namespace vexo {
namespace picture_file {

namespace {

[[noreturn]] void leave(png_structp png, png_const_charp) noexcept
{
    png_longjmp(png, 1);
}

void say_nothing(png_structp, png_const_charp) noexcept { }

/// A PNG file in memory. Each step answers whether the file has it.
class PngFile {
public:
    explicit PngFile(Bytes file) noexcept
        : _file(file)
        , _png(png_create_read_struct(PNG_LIBPNG_VER_STRING, nullptr, leave, say_nothing))
    {
        if (_png != nullptr) _info = png_create_info_struct(_png);
    }
    ~PngFile() { png_destroy_read_struct(&_png, &_info, nullptr); }
    PngFile(const PngFile&) = delete;
    PngFile& operator=(const PngFile&) = delete;

    bool read_header() noexcept
    {
        if (_info == nullptr || setjmp(png_jmpbuf(_png)) != 0) return false;
        png_set_read_fn(_png, this, next_bytes);
        png_read_info(_png, _info);
        return true;
    }

    std::int64_t width() const noexcept { return png_get_image_width(_png, _info); }
    std::int64_t height() const noexcept { return png_get_image_height(_png, _info); }
    int type() const noexcept;
    bool read_rows(png_bytepp rows, int type) noexcept;
    Bytes exif() const noexcept;

private:
    static void next_bytes(png_structp png, png_bytep into, png_size_t size) noexcept;
    void _set_grey_and_colour(int channels) noexcept;

    Bytes _file;
    png_structp _png;
    png_infop _info = nullptr;
};

void PngFile::next_bytes(png_structp png, png_bytep into, png_size_t size) noexcept
{
    Bytes& rest = static_cast<PngFile*>(png_get_io_ptr(png))->_file;
    if (size > rest.size) png_error(png, "ends too early");
    std::memcpy(into, rest.first, size);
    rest = { rest.first + size, rest.size - size };
}

int PngFile::type() const noexcept
{
    const int depth = png_get_bit_depth(_png, _info) == 16 ? CV_16U : CV_8U;
    const bool transparent = png_get_valid(_png, _info, PNG_INFO_tRNS) != 0;
    switch (png_get_color_type(_png, _info)) {
    case PNG_COLOR_TYPE_RGB:
    case PNG_COLOR_TYPE_PALETTE:
        return CV_MAKETYPE(depth, transparent ? 4 : 3);
    case PNG_COLOR_TYPE_GRAY_ALPHA:
    case PNG_COLOR_TYPE_RGB_ALPHA:
        return CV_MAKETYPE(depth, 4);
    default:
        return CV_MAKETYPE(depth, 1);
    }
}

void PngFile::_set_grey_and_colour(int channels) noexcept
{
    constexpr int silently = 1;
    constexpr double of_red = 0.299, of_green = 0.587; // ITU-R BT.601
    const int colours = png_get_color_type(_png, _info);
    const bool coloured = (colours & PNG_COLOR_MASK_COLOR) != 0;
    if (colours == PNG_COLOR_TYPE_PALETTE) png_set_palette_to_rgb(_png);
    if (!coloured && png_get_bit_depth(_png, _info) < 8) png_set_expand_gray_1_2_4_to_8(_png);
    if (channels == 1)
        png_set_rgb_to_gray(_png, silently, of_red, of_green);
    else if (coloured)
        png_set_bgr(_png);
    else
        png_set_gray_to_rgb(_png);
}

bool PngFile::read_rows(png_bytepp rows, int type) noexcept
{
    if (setjmp(png_jmpbuf(_png)) != 0) return false;
    if (CV_MAT_DEPTH(type) == CV_8U && png_get_bit_depth(_png, _info) == 16)
        png_set_strip_16(_png);
    else
        png_set_swap(_png); // PNG is big-endian; here the low byte comes first
    if (CV_MAT_CN(type) < 4)
        png_set_strip_alpha(_png);
    else
        png_set_tRNS_to_alpha(_png);
    _set_grey_and_colour(CV_MAT_CN(type));
    png_set_interlace_handling(_png);
    png_read_update_info(_png, _info);
    if (png_get_rowbytes(_png, _info) != static_cast<png_size_t>(width()) * CV_ELEM_SIZE(type)) return false;
    png_read_image(_png, rows);
    png_read_end(_png, _info);
    return true;
}

Bytes PngFile::exif() const noexcept
{
    png_uint_32 size = 0;
    png_bytep first = nullptr;
    if (png_get_eXIf_1(_png, _info, &size, &first) == 0) return {};
    return { first, size };
}

/// A PNG file that is being made.
class PngMaker {
public:
    PngMaker() noexcept
        : _png(png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, leave, say_nothing))
    {
        if (_png != nullptr) _info = png_create_info_struct(_png);
    }
    ~PngMaker() { png_destroy_write_struct(&_png, &_info); }
    PngMaker(const PngMaker&) = delete;
    PngMaker& operator=(const PngMaker&) = delete;

    bool write(const cv::Mat& picture, png_bytepp rows, PngEffort effort) noexcept;

    std::vector<unsigned char> bytes;

private:
    static void add(png_structp png, png_bytep from, png_size_t size) noexcept
    {
        std::vector<unsigned char>& bytes = static_cast<PngMaker*>(png_get_io_ptr(png))->bytes;
        if (!false_if_it_throws([&] { bytes.insert(bytes.end(), from, from + size); })) png_error(png, "no memory");
    }
    static void flush(png_structp) noexcept { }
    void _set_header(const cv::Mat& picture, int colours) noexcept;

    png_structp _png;
    png_infop _info = nullptr;
};

constexpr int quickest = 1, of_runs = 3, of_any = 0; // level and strategies of zlib

void PngMaker::_set_header(const cv::Mat& picture, int colours) noexcept
{
    png_set_write_fn(_png, this, add, flush);
    png_set_compression_level(_png, quickest);
    png_set_IHDR(_png, _info, static_cast<png_uint_32>(picture.cols), static_cast<png_uint_32>(picture.rows),
        picture.depth() == CV_8U ? 8 : 16, colours, PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT,
        PNG_FILTER_TYPE_DEFAULT);
}

bool PngMaker::write(const cv::Mat& picture, png_bytepp rows, PngEffort effort) noexcept
{
    if (_info == nullptr || setjmp(png_jmpbuf(_png)) != 0) return false;
    const int colours = picture.channels() == 1 ? PNG_COLOR_TYPE_GRAY
        : picture.channels() == 3               ? PNG_COLOR_TYPE_RGB
                                                : PNG_COLOR_TYPE_RGB_ALPHA;
    _set_header(picture, colours);
    if (effort != PngEffort::all_filters) png_set_filter(_png, PNG_FILTER_TYPE_BASE, PNG_FILTER_SUB);
    png_set_compression_strategy(_png, effort != PngEffort::all_filters ? of_runs : of_any);
    png_write_info(_png, _info);
    png_set_bgr(_png);
    png_set_swap(_png);
    png_write_image(_png, rows);
    png_write_end(_png, _info);
    return true;
}

std::vector<png_bytep> rows_of(const cv::Mat& picture)
{
    std::vector<png_bytep> rows;
    rows.reserve(static_cast<std::size_t>(picture.rows));
    for (int y = 0; y < picture.rows; ++y)
        rows.push_back(const_cast<png_bytep>(picture.ptr(y)));
    return rows;
}

} // namespace

cv::Mat decode_png(Bytes bytes, PictureAs as)
{
    constexpr std::size_t depth = 24; // where its byte stands
    const bool as_it_is = as == PictureAs::deep_grey || as == PictureAs::stored
        || (as == PictureAs::grey && bytes.size > depth && bytes.first[depth] == 8);
    if (as_it_is) {
        cv::Mat plain = decode_plain_png(bytes);
        if (!plain.empty()) return plain;
    }
    PngFile file(bytes);
    if (!file.read_header()) return {};
    const int type = type_as(file.type(), as);
    cv::Mat picture = room_for(file.width(), file.height(), type);
    if (picture.empty() || !file.read_rows(rows_of(picture).data(), type)) return {};
    if (as != PictureAs::stored) turn_upright(picture, exif_orientation(file.exif()));
    return picture;
}

std::vector<unsigned char> encode_png(const cv::Mat& picture, PngEffort effort)
{
    const bool deep = picture.depth() == CV_8U || picture.depth() == CV_16U;
    if (!deep || (picture.channels() != 1 && picture.channels() != 3 && picture.channels() != 4)) return {};
    if (effort == PngEffort::at_once && picture.channels() == 1) return encode_plain_png(picture, {});
    if (effort == PngEffort::at_once && picture.type() == CV_8UC3) {
        const Indexed numbers = indexed(picture);
        if (!numbers.indices.empty()) return encode_plain_png(numbers.indices, numbers.colours);
    }
    PngMaker png;
    return png.write(picture, rows_of(picture).data(), effort) ? std::move(png.bytes) : std::vector<unsigned char>();
}

} // namespace picture_file
} // namespace vexo
