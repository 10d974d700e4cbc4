#include "target.h"

#include <iostream>

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    std::cerr.rdbuf(nullptr); // setparams() writes a line
    const std::string good = good_input();
    must(fuzz_one(good), "the good input reaches the code under test");
    if (const char* seed = std::getenv("VEXO_FUZZ_SEED")) { // write it and end
        std::ofstream(seed, std::ios::binary) << good;
        std::exit(0);
    }
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size)
{
    fuzz_one(std::string(reinterpret_cast<const char*>(data), size));
    return 0;
}
