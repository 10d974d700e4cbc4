#include "base/boundary.h"
#include "base/pictures/format.h"

#include <cstdio> // jpeglib.h needs its FILE

#include <jerror.h>
#include <jpeglib.h>

#include <csetjmp>
#include <cstdlib>
#include <cstring>

// libjpeg leaves a step by longjmp when it can do no more. So each step is a function of its own, `noexcept`, without
// any object that has a destructor: those live in the functions that call the steps.
namespace vexo {
namespace picture_file {

namespace {

/// What libjpeg has to say goes here instead of to the standard error stream.
struct Complaints : jpeg_error_mgr {
    std::jmp_buf place;
    bool damaged = false; ///< pixels were invented where data are missing or make no sense
};

[[noreturn]] void leave(j_common_ptr jpeg) noexcept
{
    std::longjmp(static_cast<Complaints*>(jpeg->err)->place, 1);
}

void note(j_common_ptr jpeg, int level) noexcept
{
    if (level >= 0) return; // a trace
    switch (jpeg->err->msg_code) {
    case JWRN_ADOBE_XFORM:
    case JWRN_EXTRANEOUS_DATA:
    case JWRN_JFIF_MAJOR:
    case JWRN_TOO_MUCH_DATA:
        return;
    default:
        static_cast<Complaints*>(jpeg->err)->damaged = true;
    }
}

void say_nothing(j_common_ptr) noexcept { }

void listen(Complaints& complaints) noexcept
{
    jpeg_std_error(&complaints);
    complaints.error_exit = leave;
    complaints.emit_message = note;
    complaints.output_message = say_nothing;
}

/// A JPEG file in memory. Each step answers whether the file has it.
class JpegFile {
public:
    explicit JpegFile(Bytes file) noexcept
        : _file(file)
    {
        listen(_complaints);
        _jpeg.err = &_complaints;
    }
    ~JpegFile() { jpeg_destroy_decompress(&_jpeg); }
    JpegFile(const JpegFile&) = delete;
    JpegFile& operator=(const JpegFile&) = delete;

    bool read_header() noexcept
    {
        constexpr unsigned longest = 0xFFFF;
        if (setjmp(_complaints.place) != 0) return false;
        jpeg_create_decompress(&_jpeg);
        jpeg_mem_src(&_jpeg, _file.first, static_cast<unsigned long>(_file.size));
        jpeg_save_markers(&_jpeg, JPEG_APP0 + 1, longest);
        return jpeg_read_header(&_jpeg, TRUE) == JPEG_HEADER_OK;
    }

    std::int64_t width() const noexcept { return _jpeg.image_width; }
    std::int64_t height() const noexcept { return _jpeg.image_height; }
    int type() const noexcept { return _jpeg.num_components > 1 ? CV_8UC3 : CV_8UC1; }
    bool inks() const noexcept { return _jpeg.num_components == 4; } ///< rows are of CMYK, not of grey or colour
    bool begin(bool grey) noexcept;
    bool read_row(JSAMPROW row) noexcept;
    Bytes exif() const noexcept;

private:
    Bytes _file;
    Complaints _complaints = {};
    jpeg_decompress_struct _jpeg = {};
};

bool JpegFile::begin(bool grey) noexcept
{
    if (setjmp(_complaints.place) != 0) return false;
    _jpeg.out_color_space = inks() ? JCS_CMYK : grey ? JCS_GRAYSCALE : JCS_EXT_BGR;
    return jpeg_start_decompress(&_jpeg) == TRUE;
}

bool JpegFile::read_row(JSAMPROW row) noexcept
{
    if (setjmp(_complaints.place) != 0) return false;
    return jpeg_read_scanlines(&_jpeg, &row, 1) == 1 && !_complaints.damaged;
}

Bytes JpegFile::exif() const noexcept
{
    constexpr char name[] = { 'E', 'x', 'i', 'f', 0, 0 };
    for (jpeg_saved_marker_ptr m = _jpeg.marker_list; m != nullptr; m = m->next) {
        const bool named = m->data_length > sizeof name && std::memcmp(m->data, name, sizeof name) == 0;
        if (m->marker == JPEG_APP0 + 1 && named) return { m->data + sizeof name, m->data_length - sizeof name };
    }
    return {};
}

/// Blue, green and red of inverted inks, as Adobe's programs store them.
void print_row(const std::vector<unsigned char>& cmyk, cv::Mat row) noexcept
{
    for (int x = 0; x < row.cols; ++x) {
        const unsigned char* ink = &cmyk[static_cast<std::size_t>(x) * 4];
        const int black = ink[3];
        const auto lit = [black](int i) { return black - (((255 - i) * black) >> 8); };
        const int red = lit(ink[0]), green = lit(ink[1]), blue = lit(ink[2]);
        if (row.channels() == 1)
            row.at<uchar>(0, x) = static_cast<uchar>(grey_of(blue, green, red));
        else
            row.at<cv::Vec3b>(0, x)
                = cv::Vec3b(static_cast<uchar>(blue), static_cast<uchar>(green), static_cast<uchar>(red));
    }
}

bool read_rows(JpegFile& file, cv::Mat& picture)
{
    std::vector<unsigned char> inks(file.inks() ? static_cast<std::size_t>(picture.cols) * 4 : 0);
    for (int y = 0; y < picture.rows; ++y) {
        if (!file.read_row(file.inks() ? inks.data() : picture.ptr(y))) return false;
        if (file.inks()) print_row(inks, picture.row(y));
    }
    return true;
}

/// A JPEG file that is being made.
class JpegMaker {
public:
    JpegMaker() noexcept
    {
        listen(_complaints);
        _jpeg.err = &_complaints;
    }
    ~JpegMaker()
    {
        jpeg_destroy_compress(&_jpeg);
        std::free(_bytes); // NOLINT: libjpeg's buffer is of malloc
    }
    JpegMaker(const JpegMaker&) = delete;
    JpegMaker& operator=(const JpegMaker&) = delete;

    bool write(const cv::Mat& picture, int quality) noexcept;
    std::vector<unsigned char> bytes() const { return { _bytes, _bytes + _size }; }

private:
    Complaints _complaints = {};
    jpeg_compress_struct _jpeg = {};
    unsigned char* _bytes = nullptr;
    unsigned long _size = 0;
};

bool JpegMaker::write(const cv::Mat& picture, int quality) noexcept
{
    if (setjmp(_complaints.place) != 0) return false;
    jpeg_create_compress(&_jpeg);
    jpeg_mem_dest(&_jpeg, &_bytes, &_size);
    _jpeg.image_width = static_cast<JDIMENSION>(picture.cols);
    _jpeg.image_height = static_cast<JDIMENSION>(picture.rows);
    _jpeg.input_components = picture.channels();
    _jpeg.in_color_space = picture.channels() == 1 ? JCS_GRAYSCALE
        : picture.channels() == 3                  ? JCS_EXT_BGR
                                                   : JCS_EXT_BGRX;
    jpeg_set_defaults(&_jpeg);
    jpeg_set_quality(&_jpeg, quality, TRUE);
    jpeg_start_compress(&_jpeg, TRUE);
    while (_jpeg.next_scanline < _jpeg.image_height) {
        auto* row = const_cast<JSAMPROW>(picture.ptr(static_cast<int>(_jpeg.next_scanline)));
        jpeg_write_scanlines(&_jpeg, &row, 1);
    }
    jpeg_finish_compress(&_jpeg);
    return true;
}

} // namespace

cv::Mat decode_jpeg(Bytes bytes, PictureAs as)
{
    JpegFile file(bytes);
    if (!file.read_header()) return {};
    cv::Mat picture = room_for(file.width(), file.height(), type_as(file.type(), as));
    if (picture.empty() || !file.begin(picture.channels() == 1) || !read_rows(file, picture)) return {};
    if (as != PictureAs::stored) turn_upright(picture, exif_orientation(file.exif()));
    return picture;
}

std::vector<unsigned char> encode_jpeg(const cv::Mat& picture, int quality)
{
    if (picture.depth() != CV_8U || picture.channels() == 2 || picture.channels() > 4) return {};
    JpegMaker jpeg;
    return jpeg.write(picture, quality) ? jpeg.bytes() : std::vector<unsigned char>();
}

} // namespace picture_file
} // namespace vexo
