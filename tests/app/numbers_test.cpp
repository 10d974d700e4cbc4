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
    const program::Outcome list
        = run("simulate --method multi-phase --periods 09,010,011 plane --size 064x048 --out " + at("list"));
    EXPECT_EQ(list.code, 0) << "a list ends where the scene begins: " << list.err;
    for (const char* foreign : { "0x10", "1e3", "ten", "''" })
        EXPECT_EQ(run(command + at("foreign") + " --seed " + foreign).code, 2) << foreign;
}

} // namespace
