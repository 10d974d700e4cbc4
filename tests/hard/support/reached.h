#pragma once

#include <cstdio>

#include <sys/mman.h>

/// What a program under tests/hard must have reached: one that reaches nothing would find nothing.
namespace hard {

/// What the calls must have reached at least once, counted over all child processes.
inline const char* const reached_names[] = { "exec of block matching", "exec of gray code", "exec of multi-period",
    "a cloud with points", "remap", "a board", "a calibration", "a calibration of a pair", "a stereo camera" };
enum Reached { executed, points = 3, remapped, recognised, one_calibrated, pair_calibrated, rectified, reached_count };
inline long* reached = nullptr;

/// Counts and hands through.
inline bool note(int what, bool happened)
{
    if (happened) ++reached[what];
    return happened;
}

/// To be called once, before the children are made.
inline void count_over_children()
{
    reached = static_cast<long*>(mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
}

/// Prints and counts what was not reached.
inline long never_reached()
{
    long missed = 0;
    for (int i = 0; i < reached_count; ++i) {
        if (reached[i] > 0) continue;
        ++missed;
        std::printf("  never reached: %s\n", reached_names[i]);
    }
    return missed;
}

} // namespace hard
