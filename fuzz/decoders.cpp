// Fringe table and decoders on arbitrary frames: one pass gives the bits of the steps, and unwrapping those of its
// definition.

#include "decode/frames.h"
#include "decode/FringePairTable.h"
#include "decode/GrayPhaseDecoder.h"
#include "decode/MultiPhaseDecoder.h"
#include "reference/plain_gray_phase.h"
#include "target.h"

using namespace vexo;

namespace {

/// Both ways of a decoder. @return whether any pixel has a coordinate
template <class Decoder> bool compare(Decoder& decoder)
{
    decoder.unwrap();
    const cv::Mat map = decoder.unwrapped.clone(), mask = decoder.vmask.clone();
    decoder.decode();
    must(same_bits(decoder.unwrapped, map) && same_bits(decoder.vmask, mask), "in one pass as in steps");
    return cv::countNonZero(mask) > 0;
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
    GrayPhaseDecoder decoder(0, 13, &p);
    captures::give_all(decoder, frames_of(input, 13, size));
    decoder.preproc();
    const plain::Unwrapped expected = plain::unwrap({ decoder.valid, decoder.gray, decoder.phase }, p);
    const bool any = compare(decoder);
    must(same_bits(decoder.unwrapped, expected.map), "unwrapped by definition");
    return any;
}

bool multi(Input& input, cv::Size size)
{
    MultiPhaseMatchingParam p;
    std::vector<int> periods;
    for (int i = 0; i < 3; ++i)
        periods.push_back(p.periods[i] = input.in(9, 16)); // fringe numbers fit into the table's bytes
    p.steps = input.in(3, 4);
    p.min_contrast = -255;
    p.min_white = input.in(0, 255);
    const FringePairTable table(periods);
    must(table.ok, "these periods have a table");
    MultiPhaseDecoder decoder(0, &p, &table, p.steps, 3);
    captures::give_all(decoder, frames_of(input, static_cast<std::size_t>(2 + 3 * p.steps), size));
    decoder.preproc();
    return compare(decoder);
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
