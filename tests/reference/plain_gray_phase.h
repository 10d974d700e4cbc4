#pragma once

#include "vexo/records.h"

#include <cmath>
#include <map>
#include <opencv2/core.hpp>
#include <vector>

/// Unwrapping of gray code + phase from its definition, without haste: what the two ways of src/, which share their
/// sections, are compared with, bit for bit.
namespace plain {

using Rows = std::vector<std::vector<int>>;

struct Decoded {
    Rows valid;
    cv::Mat_<uchar> gray;
    cv::Mat_<float> phase;
};

struct Unwrapped {
    Rows valid;
    cv::Mat_<float> map;
    cv::Mat_<uchar> mask;
};

inline cv::Mat_<uchar> mask_of(const Rows& valid, cv::Size size)
{
    cv::Mat_<uchar> mask(size, uchar { 0 });
    for (size_t y = 0; y < valid.size(); ++y)
        for (int x : valid[y])
            mask(static_cast<int>(y), x) = 255;
    return mask;
}

struct Section {
    int begin, end, length, ncodes, code;
    enum { open, anchor, rejected } state;
};

inline std::vector<Section> sections_of(const std::vector<int>& cols, const float* phase, const uchar* gray)
{
    std::vector<Section> sections;
    const int n = static_cast<int>(cols.size());
    const auto col = [&](int i) { return cols[static_cast<size_t>(i)]; };
    int i = 0;
    while (i < n) {
        int j = i + 1;
        while (j < n && col(j) - col(j - 1) == 1 && phase[col(j)] >= phase[col(j - 1)])
            ++j;
        std::map<int, int> histogram;
        for (int k = i; k < j; ++k)
            ++histogram[gray[col(k)]];
        int code = gray[col(i)];
        for (int k = i; k < j; ++k)
            if (histogram[gray[col(k)]] > histogram[code]) code = gray[col(k)];
        sections.push_back({ i, j, j - i, static_cast<int>(histogram.size()), code, Section::open });
        i = j;
    }
    return sections;
}

inline void choose_anchors(std::vector<Section>& sections, int anchor_length, int code_spread)
{
    std::vector<Section*> c;
    for (Section& s : sections)
        if (s.length > anchor_length && s.ncodes <= code_spread) {
            s.state = Section::anchor;
            c.push_back(&s);
        }
    for (size_t k = 0; k + 1 < c.size(); ++k) {
        const Section a = *c[k];
        const Section b = *c[k + 1];
        if (a.code <= b.code) continue;
        std::vector<Section*> forward, backward;
        for (size_t m = k + 1; m < c.size() && c[m]->code < a.code; ++m)
            forward.push_back(c[m]);
        for (size_t m = k + 1; m-- > 0 && c[m]->code > b.code;)
            backward.push_back(c[m]);
        int forward_weight = 0, backward_weight = 0;
        for (const Section* s : forward)
            forward_weight += s->length;
        for (const Section* s : backward)
            backward_weight += s->length;
        for (Section* s : forward_weight >= backward_weight ? backward : forward)
            s->state = Section::open;
    }
}

/// Phases that no decoder yields: not a number, or a period or more outside 0 to 1.
inline bool wild(float phase)
{
    return !(phase > -1.0F) || !(phase < 2.0F);
}

struct PlainRow {
    const std::vector<int>& cols;
    const float* phase;
    const uchar* gray;
    std::map<int, float> got; ///< coordinate of every position that has one

    float phase_at(int i) const { return phase[cols[static_cast<size_t>(i)]]; }
    int gray_at(int i) const { return gray[cols[static_cast<size_t>(i)]]; }
    float at(int i) const { return got.count(i) != 0 ? got.at(i) : 0.0F; }
    float choose(int i, int code, float target) const
    {
        const float a = static_cast<float>(code) + phase_at(i);
        const float b = phase_at(i) + static_cast<float>(gray_at(i));
        return std::abs(target - a) < std::abs(target - b) ? a : b;
    }
};

inline void fill_between(PlainRow& row, const std::vector<Section>& sections)
{
    float last = 0;
    size_t i = 0;
    while (i < sections.size()) {
        if (sections[i].state == Section::anchor) last = row.at(sections[i].end - 1);
        if (sections[i].state != Section::open) {
            ++i;
            continue;
        }
        size_t j = i + 1;
        while (j < sections.size() && sections[j].state != Section::anchor)
            ++j;
        if (j == sections.size()) break;
        float ref = row.at(sections[j].begin);
        for (size_t k = j - 1; k + 1 > i; --k)
            for (int p = sections[k].end - 1; p >= sections[k].begin; --p) {
                const float choice = row.choose(p, sections[k].code, ref);
                if (sections[k].state == Section::rejected || wild(row.phase_at(p))) continue;
                if (last < choice && choice < ref) row.got[p] = ref = choice;
            }
        i = j;
    }
    for (; i < sections.size(); ++i)
        for (int p = sections[i].begin; p < sections[i].end; ++p) {
            const float choice = row.choose(p, sections[i].code, last);
            if (sections[i].state == Section::rejected || wild(row.phase_at(p))) continue;
            if (choice > last) row.got[p] = last = choice;
        }
}

inline Unwrapped unwrap(const Decoded& d, const vexo::GrayPhaseMatchingParam& p)
{
    Unwrapped u { Rows(d.valid.size()), cv::Mat_<float>(d.phase.size(), 0.0F), {} };
    for (size_t y = 0; y < d.valid.size(); ++y) {
        PlainRow row { d.valid[y], d.phase[static_cast<int>(y)], d.gray[static_cast<int>(y)], {} };
        std::vector<Section> sections = sections_of(row.cols, row.phase, row.gray);
        choose_anchors(sections, p.anchor_length, p.code_spread);
        for (Section& s : sections) {
            for (int i = s.begin; i < s.end && s.state == Section::anchor; ++i)
                if (!wild(row.phase_at(i))) row.got[i] = row.phase_at(i) + static_cast<float>(s.code);
            if (s.length <= p.reject_length) s.state = Section::rejected;
        }
        fill_between(row, sections);
        for (const auto& [position, coordinate] : row.got) {
            const int x = row.cols[static_cast<size_t>(position)];
            u.valid[y].push_back(x);
            u.map(static_cast<int>(y), x) = coordinate;
        }
    }
    u.mask = mask_of(u.valid, d.phase.size());
    return u;
}

} // namespace plain
