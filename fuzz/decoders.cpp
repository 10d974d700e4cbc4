// Fringe table and decoders on arbitrary frames: the fast form, the form in steps and the plain twin give the same
// bits.

#include "decode/captures.h"
#include "decode/FringePairTable.h"
#include "decode/GrayPhaseDecoder.h"
#include "decode/MultiPhaseDecoder.h"
#include "reference/plain_multi_phase.h"
#include "target.h"

using namespace vexo;

namespace {

template <class Decoder> bool agree(const Decoder& decoder, const plain::Unwrapped& expected)
{
    return captures::same_bits(decoder.unwrapped, expected.map) && captures::same_bits(decoder.vmask, expected.mask);
}

/// Both ways of a decoder against its plain twin. @return whether any pixel has a coordinate
template <class Decoder>
bool compare(Decoder& decoder, const captures::Frames& frames, const plain::Unwrapped& expected)
{
    captures::give_all(decoder, frames);
    decoder.preproc();
    decoder.unwrap();
    must(decoder.valid == expected.valid && agree(decoder, expected), "in steps as in the plain form");
    decoder.decode();
    must(agree(decoder, expected), "in one pass as in the plain form");
    return cv::countNonZero(expected.mask) > 0;
}

captures::Frames frames_of(Input& input, std::size_t count, cv::Size size)
{
    captures::Frames frames(count);
    for (cv::Mat_<uchar>& frame : frames) {
        frame.create(size);
        for (uchar& pixel : frame)
            pixel = input.next();
    }
    return frames;
}

bool gray(Input& input, cv::Size size)
{
    GrayPhaseMatchingParam p;
    p.min_contrast = input.in(0, 100) - 20;
    p.min_white = input.in(0, 255);
    p.max_white = input.in(0, 255) + 1;
    p.anchor_length = input.in(0, 9);
    p.reject_length = input.in(0, 9);
    p.code_spread = input.in(1, 5);
    const captures::Frames frames = frames_of(input, 13, size);
    GrayPhaseDecoder decoder(0, 13, &p);
    return compare(decoder, frames, plain::unwrap(plain::decode(frames, p), p));
}

bool multi(Input& input, cv::Size size)
{
    MultiPhaseMatchingParam p;
    std::vector<int> periods;
    for (int i = 0; i < 3; ++i)
        periods.push_back(p.periods[i] = input.in(9, 16)); // fringe numbers fit into the table's bytes
    p.steps = input.in(3, 4);
    p.min_contrast = -255; // the plain form takes every pixel
    p.min_white = input.in(0, 255);
    const FringePairTable table(periods);
    must(table.ok, "these periods have a table");
    const plain::PairMap pairs(periods);
    const captures::Frames frames = frames_of(input, static_cast<std::size_t>(2 + 3 * p.steps), size);
    const plain::Rows valid = plain::valid_pixels(frames[0], frames[1], -255, 256, p.min_white);
    MultiPhaseDecoder decoder(0, &p, &table, p.steps, 3);
    return compare(decoder, frames,
        plain::unwrap(plain::multi_phases(frames, valid, p.steps, periods), valid,
            [&](const auto& phases) { return pairs.unwrap(phases); }));
}

/// Tables of any periods are built or refused, and asked for any phases.
void wild_table(Input& input)
{
    std::vector<int> periods;
    for (int i = input.in(0, 4); i > 0; --i)
        periods.push_back(input.next() * (input.in(0, 3) == 0 ? 9973 : 1) - 3);
    const FringePairTable table(periods);
    uint32_t bits[3];
    float phases[3];
    for (uint32_t& b : bits)
        b = uint32_t { input.next() } << 24 | uint32_t { input.next() } << 16 | input.next();
    std::memcpy(phases, bits, sizeof phases);
    const float found = table.unwrap(phases);
    must(table.ok || found == static_cast<float>(table.maxp), "no table, no coordinate");
}

} // namespace

std::string good_input()
{
    const cv::Size size(60, 1);
    const auto frames = captures::gray_phase_capture(size, [](int x, int) { return 3.0 + x / 9.0; });
    std::string bytes { '\0', '\x3b', '\x24', '\x0f', '\xff', '\x02', '\x01', '\x02' };
    for (const cv::Mat_<uchar>& frame : frames)
        bytes.append(frame.ptr<char>(), frame.total());
    return bytes;
}

bool fuzz_one(const std::string& bytes)
{
    Input input(bytes);
    const int kind = input.in(0, 2);
    const cv::Size size(input.in(1, 200), kind == 1 ? 2 : 1);
    if (kind == 0) return gray(input, size);
    if (kind == 1) return multi(input, size);
    wild_table(input);
    return true;
}
