#pragma once

#include "support/folder.h"

#include <opencv2/core.hpp>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <jpeglib.h>
#include <png.h>
#include <tiffio.h>

#include <functional>
#include <string>
#include <vector>

/// Picture files of kinds that our own encoders do not write.
namespace vexo {
namespace odd {

using Files = std::vector<std::pair<std::string, std::string>>; ///< what it is, and its bytes

constexpr int width = 37, height = 23;

/// Random bytes over a slope, the same for the same seed: compression finds runs and texture.
inline std::vector<unsigned char> noise(std::size_t bytes, unsigned seed = 1)
{
    std::vector<unsigned char> values(bytes);
    for (std::size_t i = 0; i < bytes; ++i) {
        seed = seed * 1664525U + 1013904223U;
        values[i] = static_cast<unsigned char>((i % 9 < 5 ? seed >> 24 : i / 7) & 255U);
    }
    return values;
}

inline std::string text_of(const std::vector<unsigned char>& bytes)
{
    return { bytes.begin(), bytes.end() };
}

inline std::string little(std::initializer_list<std::pair<unsigned, int>> numbers)
{
    std::string bytes;
    for (auto [value, size] : numbers)
        for (; size > 0; --size, value >>= 8)
            bytes.push_back(static_cast<char>(value & 255U));
    return bytes;
}

/// Exif data that say nothing but the orientation.
inline std::string exif(unsigned orientation)
{
    return "II*" + std::string(1, '\0') + little({ { 8, 4 }, { 1, 2 }, { 0x112, 2 }, { 3, 2 }, { 1, 4 } })
        + little({ { orientation, 4 }, { 0, 4 } });
}

inline std::string png(int colours, int bits, int interlace, bool transparent, unsigned orientation = 0)
{
    std::string file;
    png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
    png_infop info = png_create_info_struct(png);
    png_set_write_fn(
        png, &file,
        [](png_structp p, png_bytep from, png_size_t size) {
            static_cast<std::string*>(png_get_io_ptr(p))->append(reinterpret_cast<char*>(from), size);
        },
        nullptr);
    png_set_IHDR(png, info, width, height, bits, colours, interlace, 0, 0);
    const std::vector<unsigned char> values = noise(8 * width * height), colour_table = noise(3 * 256, 7);
    const std::vector<unsigned char> alphas = noise(256, 9);
    if (colours == PNG_COLOR_TYPE_PALETTE)
        png_set_PLTE(png, info, reinterpret_cast<png_const_colorp>(colour_table.data()), 1 << bits);
    const png_color_16 one { 1, 200, 3, 77, 1 };
    if (transparent) png_set_tRNS(png, info, alphas.data(), 1 << std::min(bits, 8), &one);
    if (orientation > 0) {
        std::string data = exif(orientation);
        png_set_eXIf_1(png, info, static_cast<png_uint_32>(data.size()), reinterpret_cast<png_bytep>(&data[0]));
    }
    std::vector<png_bytep> rows;
    for (std::size_t y = 0; y < height; ++y)
        rows.push_back(const_cast<png_bytep>(&values[y * png_get_rowbytes(png, info)]));
    png_set_rows(png, info, rows.data());
    png_write_png(png, info, 0, nullptr);
    png_destroy_write_struct(&png, &info);
    return file;
}

/// @param finish  changes settings of libjpeg before it begins
inline std::string jpeg(J_COLOR_SPACE space, int channels, const std::function<void(jpeg_compress_struct&)>& finish,
    unsigned orientation = 0)
{
    jpeg_compress_struct jpeg;
    jpeg_error_mgr errors;
    jpeg.err = jpeg_std_error(&errors);
    jpeg_create_compress(&jpeg);
    unsigned char* bytes = nullptr;
    unsigned long size = 0;
    jpeg_mem_dest(&jpeg, &bytes, &size);
    jpeg.image_width = width;
    jpeg.image_height = height;
    jpeg.input_components = channels;
    jpeg.in_color_space = space;
    jpeg_set_defaults(&jpeg);
    finish(jpeg);
    jpeg_start_compress(&jpeg, TRUE);
    const std::string data = std::string("Exif\0\0", 6) + exif(orientation);
    if (orientation > 0)
        jpeg_write_marker(&jpeg, JPEG_APP0 + 1, reinterpret_cast<const JOCTET*>(data.data()), unsigned(data.size()));
    const std::vector<unsigned char> values = noise(std::size_t(4) * width * height);
    for (int y = 0; y < height; ++y) {
        auto* row = const_cast<JSAMPROW>(&values[std::size_t(y * width * channels)]);
        jpeg_write_scanlines(&jpeg, &row, 1);
    }
    jpeg_finish_compress(&jpeg);
    std::string file(reinterpret_cast<char*>(bytes), size);
    jpeg_destroy_compress(&jpeg);
    std::free(bytes);
    return file;
}

struct Tiff {
    int bits, samples, photometric = PHOTOMETRIC_MINISBLACK, format = SAMPLEFORMAT_UINT, compression = COMPRESSION_NONE;
    const char* mode = "wl"; ///< wl little-endian, wb big-endian
    bool tiled = false;
    int planes = PLANARCONFIG_CONTIG, orientation = 1;
};

inline void tiff_tags(TIFF* tiff, const Tiff& t)
{
    TIFFSetField(tiff, TIFFTAG_IMAGEWIDTH, width);
    TIFFSetField(tiff, TIFFTAG_IMAGELENGTH, height);
    TIFFSetField(tiff, TIFFTAG_BITSPERSAMPLE, t.bits);
    TIFFSetField(tiff, TIFFTAG_SAMPLESPERPIXEL, t.samples);
    TIFFSetField(tiff, TIFFTAG_SAMPLEFORMAT, t.format);
    TIFFSetField(tiff, TIFFTAG_PHOTOMETRIC, t.photometric);
    TIFFSetField(tiff, TIFFTAG_COMPRESSION, t.compression);
    TIFFSetField(tiff, TIFFTAG_PLANARCONFIG, t.planes);
    TIFFSetField(tiff, TIFFTAG_ORIENTATION, t.orientation);
    const unsigned short unassociated = EXTRASAMPLE_UNASSALPHA;
    if (t.samples == 4 && t.photometric == PHOTOMETRIC_RGB) TIFFSetField(tiff, TIFFTAG_EXTRASAMPLES, 1, &unassociated);
    if (t.photometric == PHOTOMETRIC_PALETTE) {
        std::vector<unsigned short> curves;
        for (const unsigned char value : noise(3 * 256, 5))
            curves.push_back(static_cast<unsigned short>(value * 257));
        TIFFSetField(tiff, TIFFTAG_COLORMAP, &curves[0], &curves[256], &curves[512]);
    }
    if (t.tiled) {
        TIFFSetField(tiff, TIFFTAG_TILEWIDTH, 16);
        TIFFSetField(tiff, TIFFTAG_TILELENGTH, 32);
    } else {
        TIFFSetField(tiff, TIFFTAG_ROWSPERSTRIP, 5);
    }
}

inline std::string tiff(const Tiff& t)
{
    const Folder folder;
    const std::string path = folder / "odd.tiff";
    TIFF* tiff = TIFFOpen(path.c_str(), t.mode);
    tiff_tags(tiff, t);
    std::vector<unsigned char> values = noise(std::size_t(64) * 64 * 32);
    for (std::size_t i = 0; t.format == SAMPLEFORMAT_IEEEFP && i < values.size() / 8; ++i) {
        const double number = values[i] / 8.0; // no NaN, whose bits a copy need not keep
        const auto single = static_cast<float>(number);
        if (t.bits == 32)
            std::memcpy(&values[4 * i], &single, 4);
        else
            std::memcpy(&values[8 * i], &number, 8);
    }
    const unsigned blocks = t.tiled ? TIFFNumberOfTiles(tiff) : TIFFNumberOfStrips(tiff);
    for (unsigned i = 0; i < blocks; ++i) {
        std::vector<unsigned char> block(values.begin() + i % 5 * 8, values.end()); // libtiff changes what it is given
        if (t.tiled)
            TIFFWriteEncodedTile(tiff, i, block.data(), TIFFTileSize(tiff));
        else
            TIFFWriteEncodedStrip(tiff, i, block.data(), TIFFVStripSize(tiff, i % 5 == 4 ? height % 5 : 5));
    }
    TIFFClose(tiff);
    return content(path);
}

/// A BMP file of 40 bytes of header; a palette of as many colours as the bits name, or grey.
inline std::string bmp(int bits, unsigned packing, bool top_down, bool grey = false, const std::string& data = {})
{
    std::string palette;
    if (bits <= 8)
        for (unsigned i = 0; i < (1U << bits); ++i)
            palette += little({ { grey ? i * 0x10101U : i * 0x3A7B19U & 0xFFFFFFU, 4 } });
    if (packing == 3 && bits == 16) palette = little({ { 0xF800, 4 }, { 0x7E0, 4 }, { 0x1F, 4 } });
    if (packing == 3 && bits == 32) palette = little({ { 0xFF0000, 4 }, { 0xFF00, 4 }, { 0xFF, 4 } });
    const std::size_t row = (std::size_t(width) * std::size_t(bits) + 31) / 32 * 4;
    const unsigned before = unsigned(54 + palette.size()), rows = unsigned(top_down ? -height : height);
    const std::string pixels = data.empty() ? text_of(noise(row * height)) : data;
    return "BM" + little({ { unsigned(before + pixels.size()), 4 }, { 0, 4 }, { before, 4 }, { 40, 4 }, { width, 4 } })
        + little(
            { { rows, 4 }, { 1, 2 }, { unsigned(bits), 2 }, { packing, 4 }, { 0, 4 }, { 0, 8 }, { 0, 4 }, { 0, 4 } })
        + palette + pixels;
}

inline std::string pnm(int kind, int brightest)
{
    const std::size_t samples = std::size_t(width) * height * (kind % 3 == 0 ? 3 : 1);
    std::string file = "P" + std::to_string(kind) + "\n# a comment\n" + std::to_string(width) + " "
        + std::to_string(height) + "\n" + (kind % 3 == 1 ? "" : std::to_string(brightest) + "\n");
    if (kind >= 4)
        return file + text_of(noise(kind == 4 ? (width + 7) / 8 * height : samples * (brightest > 255 ? 2 : 1)));
    const std::vector<unsigned char> values = noise(samples);
    for (std::size_t i = 0; i < samples; ++i)
        file
            += std::to_string(kind == 1 ? values[i] & 1 : values[i] * 3 % (brightest + 1)) + (i % 11 == 0 ? "\n" : " ");
    return file;
}

inline std::string named(const std::string& what, std::initializer_list<int> how)
{
    std::string text = what;
    for (const int number : how)
        text += " " + std::to_string(number);
    return text;
}

inline void add_pngs(Files& files)
{
    for (const int interlace : { PNG_INTERLACE_NONE, PNG_INTERLACE_ADAM7 })
        for (const int colours : { 0, 2, 3, 4, 6 })
            for (const int bits : { 1, 2, 4, 8, 16 })
                for (const bool transparent : { false, true }) {
                    if ((colours == 3 && bits > 8) || ((colours == 2 || colours > 3) && bits < 8)) continue;
                    if (transparent && colours > 3) continue;
                    files.emplace_back(
                        named("png interlace, colours, bits, alpha", { interlace, colours, bits, transparent }),
                        png(colours, bits, interlace, transparent));
                }
    for (unsigned turned = 1; turned <= 9; ++turned)
        files.emplace_back(named("png turned", { int(turned) }), png(0, 8, 0, false, turned));
}

inline void add_jpegs(Files& files)
{
    using Settings = jpeg_compress_struct&;
    const std::function<void(Settings)> usual = [](Settings) {};
    const std::function<void(Settings)> any_space[]
        = { usual, [](Settings j) { jpeg_simple_progression(&j); }, [](Settings j) { j.arith_code = TRUE; },
              [](Settings j) { j.restart_interval = 2, jpeg_set_quality(&j, 30, TRUE); } };
    const std::function<void(Settings)> of_colour[] = { [](Settings j) { j.comp_info[0].h_samp_factor = 1; },
        [](Settings j) { j.comp_info[0].v_samp_factor = 1; }, [](Settings j) { jpeg_set_colorspace(&j, JCS_RGB); } };
    int i = 0;
    for (const auto& settings : any_space) {
        ++i;
        files.emplace_back(named("jpeg colour", { i }), jpeg(JCS_RGB, 3, settings));
        files.emplace_back(named("jpeg grey", { i }), jpeg(JCS_GRAYSCALE, 1, settings));
        files.emplace_back(named("jpeg inks", { i }), jpeg(JCS_CMYK, 4, settings));
    }
    for (const auto& settings : of_colour)
        files.emplace_back(named("jpeg colour", { ++i }), jpeg(JCS_RGB, 3, settings));
    files.emplace_back("jpeg ycck", jpeg(JCS_CMYK, 4, [](Settings j) { jpeg_set_colorspace(&j, JCS_YCCK); }));
    for (unsigned turned = 1; turned <= 9; ++turned)
        files.emplace_back(named("jpeg turned", { int(turned) }), jpeg(JCS_RGB, 3, usual, turned));
}

/// Kinds of samples in a TIFF file.
inline std::vector<Tiff> tiff_kinds()
{
    std::vector<Tiff> kinds { { 16, 1 }, { 16, 2 }, { 1, 1 }, { 2, 1 }, { 4, 1 }, { 8, 1 }, { 10, 1 }, { 12, 1 },
        { 14, 1 } };
    for (const int bits : { 1, 2, 4, 8 })
        kinds.push_back({ bits, 1, PHOTOMETRIC_MINISWHITE });
    for (const int bits : { 8, 16 }) {
        kinds.push_back({ bits, 3, PHOTOMETRIC_RGB });
        kinds.push_back({ bits, 4, PHOTOMETRIC_RGB });
        kinds.push_back({ bits, 4, PHOTOMETRIC_SEPARATED });
        kinds.push_back({ bits, 1, PHOTOMETRIC_MINISBLACK, SAMPLEFORMAT_INT });
    }
    for (const int bits : { 1, 4, 8 })
        kinds.push_back({ bits, 1, PHOTOMETRIC_PALETTE });
    for (const int bits : { 32, 64 })
        for (const int samples : { 1, 3 })
            kinds.push_back(
                { bits, samples, samples == 1 ? PHOTOMETRIC_MINISBLACK : PHOTOMETRIC_RGB, SAMPLEFORMAT_IEEEFP });
    Tiff planes { 8, 3, PHOTOMETRIC_RGB };
    planes.planes = PLANARCONFIG_SEPARATE;
    kinds.push_back(planes);
    return kinds;
}

inline void add_tiffs(Files& files)
{
    for (const char* mode : { "wl", "wb" })
        for (const bool tiled : { false, true })
            for (const int compression : { COMPRESSION_NONE, COMPRESSION_LZW, COMPRESSION_ADOBE_DEFLATE,
                     COMPRESSION_PACKBITS, COMPRESSION_ZSTD })
                for (Tiff t : tiff_kinds()) {
                    t.mode = mode, t.tiled = tiled, t.compression = compression;
                    files.emplace_back(
                        named(
                            std::string("tiff ") + mode + " tiled, compression, bits, samples, colours, format, planes",
                            { tiled, compression, t.bits, t.samples, t.photometric, t.format, t.planes }),
                        tiff(t));
                }
    for (int turned = 1; turned <= 8; ++turned)
        for (const int bits : { 8, 16 })
            for (Tiff t : { Tiff { bits, 1 }, Tiff { bits, 3, PHOTOMETRIC_RGB } }) {
                t.orientation = turned;
                files.emplace_back(named("tiff turned, bits, samples", { turned, bits, t.samples }), tiff(t));
            }
}

inline void add_bmps(Files& files)
{
    const std::string runs_of_8(
        "\x05\x07\0\x03\x01\x02\x03\0\x03\x04\0\0\x02\x09\0\2\3\2\x04\x63\0\0\0\x04\x0A\x0B\x0C\x0D\0\1", 30);
    const std::string runs_of_4("\x05\x71\0\x03\x12\x30\x03\x4A\0\0\x02\x91\x04\x63\0\0\0\x05\xA1\xB2\xC0\0", 22);
    for (const bool top_down : { false, true })
        for (const bool grey : { false, true }) {
            for (const int bits : { 1, 4, 8, 16, 24, 32 })
                files.emplace_back(
                    named("bmp bits, top-down, grey", { bits, top_down, grey }), bmp(bits, 0, top_down, grey));
            for (const int bits : { 16, 32 })
                files.emplace_back(named("bmp masks, top-down", { bits, top_down }), bmp(bits, 3, top_down));
            files.emplace_back(named("bmp runs of 8", { top_down, grey }), bmp(8, 1, top_down, grey, runs_of_8));
            const std::string rows_of_4 = runs_of_4 + std::string(2 * height, '\0'); // OpenCV wants all rows ended
            files.emplace_back(named("bmp runs of 4", { top_down, grey }), bmp(4, 2, top_down, grey, rows_of_4));
        }
}

/// Every kind that is read.
inline Files all_files()
{
    Files files;
    add_pngs(files);
    add_jpegs(files);
    add_tiffs(files);
    add_bmps(files);
    for (const int kind : { 1, 2, 3, 4, 5, 6 })
        for (const int brightest : { 255, 100, 65535, 4095 })
            files.emplace_back(named("pnm kind, brightest", { kind, brightest }), pnm(kind, brightest));
    return files;
}

} // namespace odd
} // namespace vexo
