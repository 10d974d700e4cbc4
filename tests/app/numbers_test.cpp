#include "program.h"

namespace {

class Numbers : public program::Suite { };

TEST_F(Numbers, AreDecimalAsCountersWriteThem)
{
    const std::string command = "simulate plane --size 64x48 --quiet --out ";
    ASSERT_EQ(run(command + at("ten") + " --seed 010").code, 0);
    ASSERT_EQ(run(command + at("same") + " --seed 10").code, 0);
    EXPECT_EQ(program::read(at("ten/scene.json")), program::read(at("same/scene.json")));
    EXPECT_EQ(run(command + at("eight") + " --seed 08").code, 0);
    for (const char* foreign : { "0x10", "1e3", "ten", "''" })
        EXPECT_EQ(run(command + at("foreign") + " --seed " + foreign).code, 2) << foreign;
}

} // namespace
