// Every loader against damaged files, things that are no regular file, and YAML made to hurt.

#include "support/child.h"
#include "support/loaders.h"
#include "support/mutate.h"

#include <map>

#include <fcntl.h>
#include <sys/stat.h>

using namespace vexo;
using namespace hard;

namespace {

struct Loader {
    const char* file; ///< the one that is attacked
    Outcome (*load)(const Paths&);
};
constexpr Loader loaders[] = { { "cams.yaml", load_pair }, { "stereo.yaml", load_stereo },
    { "rt.yaml", load_transform }, { "p0.hmat", load_hmat_set }, { "p1.hmat", load_hmat_set },
    { "tables.bin", load_hmat_set }, { "map0.bin", load_stereo }, { "map1.bin", load_stereo },
    { "picture.png", load_picture }, { "picture.bmp", load_picture }, { "picture.jpg", load_picture },
    { "picture.pgm", load_picture }, { "picture.tif", load_picture } };
constexpr long loader_count = sizeof loaders / sizeof loaders[0];
constexpr long yaml_loaders = 3; ///< the first ones

/// The good samples, and their bytes.
struct Samples {
    Samples()
    {
        if (in_child([&] { return write_samples(folder) ? 0 : 1; }) != 0) std::abort();
        for (const Loader& loader : loaders)
            good[loader.file] = content(folder / loader.file);
    }
    const char* fault_with(const Loader& loader, const std::string& bytes) const
    {
        const std::string path = folder / ("damaged_" + std::to_string(getpid()) + "_" + loader.file);
        put(path, bytes);
        return loader.load(Paths(folder, loader.file, path)).fault;
    }

    Folder folder;
    std::map<std::string, std::string> good;
};

// --- things that are no regular file -----------------------------------------------------------------------

std::vector<std::string> make_special_files(const Folder& folder)
{
    const std::vector<std::string> things { folder / "directory", folder / "fifo", "/dev/zero", folder / "loop",
        folder / "sparse", folder / "empty", folder / "missing", std::string("nul\0.yaml", 9), "", "/proc/self/mem" };
    const int sparse = open(things[4].c_str(), O_CREAT | O_WRONLY, 0600);
    const bool made = mkdir(things[0].c_str(), 0700) == 0 && mkfifo(things[1].c_str(), 0600) == 0
        && symlink(things[3].c_str(), things[3].c_str()) == 0 && ftruncate(sparse, std::int64_t { 8 } << 30) == 0
        && close(sparse) == 0 && close(open(things[5].c_str(), O_CREAT | O_WRONLY, 0600)) == 0;
    if (!made) std::abort();
    return things;
}

// --- YAML made to hurt -------------------------------------------------------------------------------------

std::string repeated(const std::string& text, std::size_t count)
{
    std::string all;
    for (std::size_t i = 0; i < count; ++i)
        all += text;
    return all;
}

std::string matrix(const std::string& key, const std::string& rows, const std::string& dt, const std::string& data)
{
    return key + ": !!opencv-matrix\n   rows: " + rows + "\n   cols: 3\n   dt: " + dt + "\n   data: [ " + data + " ]\n";
}

std::vector<std::string> hostile_yaml(const std::string& good)
{
    const std::string head = "%YAML:1.0\n---\n";
    std::string bomb = head + "a: &a [ x, x, x, x, x, x, x, x, x ]\n";
    for (char level = 'b'; level <= 'z'; ++level)
        bomb += std::string(1, level) + ": &" + level + " [ "
            + repeated("*" + std::string(1, static_cast<char>(level - 1)) + ", ", 8) + "0 ]\n";
    std::string stairs = head;
    for (std::size_t depth = 0; depth < 1000; ++depth)
        stairs += std::string(depth, ' ') + "a:\n";
    std::vector<std::string> all { bomb, stairs, head + "cam0_K: " + repeated("[", 200000),
        head + "cam0_K: " + repeated("{ a: ", 200000), head + repeated("- ", 200000), head + "a: !!binary |\n",
        head + "cam0_K: !!binary |\n  AAAA", head + "a: " + repeated("x", 10000000) + "\n",
        head + "a: \"" + std::string(900000, 'x') + "\"\n", head + repeated("a: 1\n", 100000),
        head + "a: [ " + repeated("1, ", 300000) + "1 ]\n", "%YAML", "%YAML:1.0", "%YAML:1.0\n---", head + "?\n",
        head + ":\n", head + "cam0_K: *nowhere\n", head + "cam0_K: !!\n", head + "\"cam0_K: 1\n",
        head + "a: \"x\\\" [ \"\nb: '\\'\n", "{\"cam0_K\": [[[", "{" + repeated("\"a\":{", 100000),
        "<?xml version=\"1.0\"?>\n<opencv_storage>\n<cam0_K>",
        "<?xml version=\"1.0\"?><opencv_storage><a type_id=\"opencv-matrix\"><rows>9</rows></a></opencv_storage>",
        "%YAML:1.0\n Y:A\n--\n-", "%YAML:1.0\n  rows--%Y!: A\n----RT: !: A\n   ----c(-", // loop in the parser
        "%YAML:1.   rows: 4\n   cols: 4\n   dt: d     dt: d\ntad-   a: [ 0.,!p1.h, 0.,., 7.l 0. ,  1*0 o\n 517 . ]\n",
        std::string(1000, '\0'), "\xEF\xBB\xBF" + good, good + "...\n" + good, "\n" + good, good + repeated("]", 9),
        head + "StereoName: \"" + repeated("../", 50) + "etc/passwd\"\n", head + "# \xFF\n", "%YAML:1.0 #\n#\n--- #",
        "%YAML:1.0\n#\n---\n#\n---\n#", "%YAML:1.0\n#\n Y:A #\n-- #\n- #", head + "a: #\n  #\n b #\n: # [",
        head + repeated("\t# {\n", 100000), head + repeated("a: '#' #", 90000), head + "a: [ # ]\n# ]\n" };
    for (const char* rows : { "2147483647", "-2147483648", "4294967297", "1e9", "\"3\"", "0" })
        for (const char* dt : { "d", "\"1000d\"", "\"65536d\"", "\"ddd\"", "x", "\"\"", "5" })
            all.push_back(good + matrix("RT", rows, dt, "1., 0., 0.")
                + matrix("cam0_K", rows, dt, "1., 0., 0., 0., 1., 0., 0., 0., 1."));
    return all;
}

// --- trials ------------------------------------------------------------------------------------------------

/// The undamaged ones first: a loader that refuses everything would pass every other trial.
const char* take_good(const Samples& samples, const Loader& loader)
{
    const Outcome outcome = loader.load(Paths(samples.folder, loader.file, samples.folder / loader.file));
    return outcome.fault == nullptr && !outcome.taken ? "a good file is refused" : outcome.fault;
}

const char* refuse_special(const Samples& samples, const Loader& loader, const std::string& thing)
{
    const Outcome outcome = loader.load(Paths(samples.folder, loader.file, thing));
    // A table that cannot be opened is stated to be no failure.
    const bool table = std::strncmp(loader.file, "map", 3) == 0;
    return outcome.taken && !table ? "taken" : outcome.fault;
}

} // namespace

int main(int argc, char** argv)
{
    const Options options(argc, argv);
    const Samples samples;
    long found = run_trials(
        "files: good ones are taken", argv[0], options, loader_count,
        [&](long i) { return take_good(samples, loaders[i]); }, {}, true);
    found += run_trials("files: damaged ones, all formats, all loaders", argv[0], options, 2000, [&](long i) {
        Rng rng = rng_of(options.seed, i);
        const Loader& loader = loaders[i % loader_count];
        return samples.fault_with(loader, mutated(samples.good.at(loader.file), rng));
    });
    const std::vector<std::string> special = make_special_files(samples.folder);
    const auto specials = static_cast<long>(special.size());
    found += run_trials(
        "files: directory, FIFO, device, loop, 8 GB ... x loaders, 2 s", argv[0], options, specials * loader_count,
        [&](long i) {
            return refuse_special(samples, loaders[i / specials], special[static_cast<std::size_t>(i % specials)]);
        },
        { 2.0, std::size_t { 1 } << 30 }, true);
    const std::vector<std::string> hostile = hostile_yaml(samples.good.at("cams.yaml"));
    const auto texts = static_cast<long>(hostile.size());
    found += run_trials(
        "files: hostile YAML x loaders, 2 s, 300 MB", argv[0], options, texts * yaml_loaders,
        [&](long i) { return samples.fault_with(loaders[i / texts], hostile[static_cast<std::size_t>(i % texts)]); },
        { 2.0, std::size_t { 300 } << 20 }, true);
    return found == 0 ? 0 : 1;
}
