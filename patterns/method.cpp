#include "patterns/method.h"

namespace vexo {

namespace {

struct Facts {
    const char* name;
    std::size_t frames;
    std::vector<std::size_t> phase_sets;
    std::vector<int> periods;
};

const Facts& facts_of(Method method)
{
    static const Facts facts[] = { { "sgbm", 1, {}, {} }, { "gray-phase", 13, { 9 }, { 8 } },
        { "multi-phase", 14, { 2, 6, 10 }, { 9, 10, 11 } } };
    return facts[static_cast<std::size_t>(method)];
}

} // namespace

const char* name_of(Method method)
{
    return facts_of(method).name;
}

std::optional<Method> method_named(const std::string& name)
{
    for (const Method method : all_methods)
        if (name == name_of(method)) return method;
    return std::nullopt;
}

std::size_t frame_count(Method method)
{
    return facts_of(method).frames;
}

const std::vector<std::size_t>& phase_sets(Method method)
{
    return facts_of(method).phase_sets;
}

const std::vector<int>& default_periods(Method method)
{
    return facts_of(method).periods;
}

} // namespace vexo
