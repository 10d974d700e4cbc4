// `vexo` on broken input, with output that cannot be written, with nobody who reads it, and ended in the middle:
// every command, every place. Expected is one line on the standard error stream and nothing half-done.

#include "support/child.h"

#include <algorithm>
#include <array>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>

#include <fcntl.h>
#include <linux/capability.h>
#include <sys/prctl.h>
#include <sys/stat.h>

using namespace hard;
namespace fs = std::filesystem;

namespace {

/// A command that works: IN is a folder with copies of all samples, OUT the folder for results.
struct Command {
    const char* line;
    std::vector<const char*> inputs; ///< below IN; each is spoilt in turn
    bool tells_more = false;         ///< a spoilt input may leave whole results: they say what is wrong with it
};

const std::vector<Command>& commands()
{
    static const std::vector<Command> all {
        { "simulate plane --size 320x256 --patterns IN/patterns --out OUT",
            { "patterns", "patterns/patterns.json", "patterns/frame03.png" } },
        { "simulate calibration --views 1 --size 320x256 --board IN/photos/board.yaml --out OUT",
            { "photos/board.yaml" } },
        { "measure IN/scan --out OUT", { "scan", "scan/cam0", "scan/cam1/frame03.png", "scan/cameras.yaml" } },
        { "measure IN/photos --method sgbm --cam0 IN/photos/cam0/view00.png --cam1 IN/photos/cam1/view00.png "
          "--calib IN/calib/hmat0.bin IN/calib/hmat1.bin IN/calib/hmat_tables.bin --out OUT",
            { "photos/cam1/view00.png", "calib/hmat0.bin", "calib/hmat_tables.bin" } },
        { "check IN/scan --out OUT", { "scan", "scan/cam0", "scan/cam1/frame03.png" }, true },
        { "compare OUT IN/scan", { "scan/truth.tiff", "scan/visible1.png", "scan/scene.json", "scan/cameras.yaml" } },
        { "compare IN/result IN/scan", { "result", "result/report.json", "result/cloud.ply" } },
        { "compare IN/result --plane", { "result", "result/report.json", "result/cloud.ply" } },
        { "compare IN/result --reference IN/reference/cloud.ply", { "result/cloud.ply", "reference/cloud.ply" } },
        { "table IN/result", { "result/compare.json" } },
        { "info IN/result/cloud.ply", { "result/cloud.ply" } },
        { "info IN/calib/stereo.yaml", { "calib/stereo.yaml" } },
        { "info IN/calib/map0.bin", { "calib/map0.bin" } },
        { "board --out OUT/board.pdf", {} },
        { "board --out OUT/board.png", {} },
        { "patterns --projector 320x240 --gamma-table IN/check/gamma_table.json --out OUT",
            { "check/gamma_table.json" } },
        { "calibrate IN/photos --board IN/photos/board.yaml --no-hold-out --quiet --out OUT",
            { "photos", "photos/cam0", "photos/cam1/view01.png", "photos/board.yaml" } },
        { "pose IN/photos/cam0/view00.png --calib IN/calib/cameras.yaml --board IN/photos/board.yaml --out OUT",
            { "photos/cam0/view00.png", "calib/cameras.yaml", "photos/board.yaml" } },
    };
    return all;
}

constexpr const char* samples[]
    = { "simulate plane --size 320x256 --period 32 --out IN/scan", "measure IN/scan --out IN/result",
          "measure IN/scan --out IN/reference", "compare IN/result IN/scan", "check IN/scan --out IN/check",
          "patterns --projector 320x240 --period 8 --out IN/patterns", "board --preset coarse --out IN/sheet/board.svg",
          "simulate calibration --views 6 --size 640x512 --board IN/sheet/board.yaml --out IN/photos",
          "calibrate IN/photos --board IN/photos/board.yaml --no-hold-out --out IN/calib" };

void replace_all(std::string& text, const std::string& what, const std::string& by)
{
    for (std::size_t at = 0; (at = text.find(what, at)) != std::string::npos; at += by.size())
        text.replace(at, what.size(), by);
}

/// Bytes of every file below a folder; folders have none.
using Tree = std::map<std::string, std::string>;

Tree tree_of(const std::string& folder)
{
    Tree tree;
    if (!fs::exists(folder)) return tree;
    tree["."] = "";
    for (const auto& entry : fs::recursive_directory_iterator(folder))
        tree[fs::relative(entry.path(), folder).string()] = entry.is_regular_file() ? content(entry.path()) : "";
    return tree;
}

/// Whether two results hold the same files; reports tell times, and a PDF its date.
bool alike(const Tree& a, const Tree& b)
{
    const auto same = [](const auto& left, const auto& right) {
        const std::string end = fs::path(left.first).extension();
        const bool varies = end == ".json" || end == ".html" || end == ".pdf";
        return left.first == right.first && (varies ? left.second.empty() == right.second.empty() : left == right);
    };
    return std::equal(a.begin(), a.end(), b.begin(), b.end(), same);
}

struct Outcome {
    int code; ///< 128 + the signal that ended it
    std::string err;
};

/// One command in a folder of its own.
struct Stage {
    Stage(const std::string& originals, const Command& c)
        : in(folder / "in")
        , out(folder / "parent/out")
        , command(c)
    {
        fs::permissions(folder / "", fs::perms(0755)); // for the trials as another user
        fs::create_directories(folder / "parent");
        fs::create_directories(folder / "tmp");
        fs::permissions(folder / "tmp", fs::perms(0777));
        std::ofstream(folder / "err");
        fs::copy(originals, in, fs::copy_options::recursive | fs::copy_options::create_hard_links);
        if (compares()) fill();
    }
    bool compares() const { return std::string(command.line).rfind("compare OUT", 0) == 0; }
    bool writes() const { return std::string(command.line).find("OUT") != std::string::npos; }
    void fill() const
    {
        fs::create_directories(out);
        for (const char* file : { "report.json", "cloud.ply" })
            fs::copy_file(in + "/result/" + file, out + "/" + file, fs::copy_options::overwrite_existing);
    }

    pid_t start(const std::function<void()>& prepare, const std::string& to, const std::string& more = "") const
    {
        const int err = open((folder / "err").c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC);
        const pid_t child = fork();
        if (child != 0) return close(err), child;
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        setenv("TMPDIR", (folder / "tmp").c_str(), 1);
        if (dup2(open("/dev/null", O_RDWR), 1) < 0 || dup2(err, 2) < 0) _exit(99);
        prepare();
        std::string line = command.line + more;
        replace_all(line, "OUT", to);
        replace_all(line, "IN/", in + "/");
        execl("/bin/sh", "sh", "-c", ("exec " VEXO_PROGRAM " " + line).c_str(), nullptr);
        _exit(98);
    }
    Outcome end(pid_t child) const
    {
        int status = 0;
        waitpid(child, &status, 0);
        return { WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status), content(folder / "err") };
    }
    Outcome run(const std::function<void()>& prepare, const std::string& to, const std::string& more = "") const
    {
        return end(start(prepare, to, more));
    }
    Outcome run() const
    {
        return run([] {}, out);
    }

    Folder folder;
    std::string in, out;
    const Command& command;
};

std::string text_of(const std::string& what, const Stage& stage, const Outcome& outcome)
{
    return what + ": " + stage.command.line + ", code " + std::to_string(outcome.code) + ", \"" + outcome.err + "\"";
}

bool one_line(const std::string& err)
{
    return err.rfind("vexo: ", 0) == 0 && err.find('\n') == err.size() - 1 && err.find("OpenCV") == std::string::npos
        && err.find("what()") == std::string::npos;
}

std::string judge(const std::string& what, const Stage& stage, const Outcome& outcome, const Tree& before)
{
    if ((outcome.code < 1 || outcome.code > 3) && outcome.code != 75)
        return text_of(what + " ended otherwise", stage, outcome);
    if (!one_line(outcome.err)) return text_of(what + " is not told in one line", stage, outcome);
    if (tree_of(stage.out) != before) return text_of(what + " left something", stage, outcome);
    return fs::is_empty(stage.folder / "tmp") ? "" : text_of(what + " left a temporary folder", stage, outcome);
}

// --- input -----------------------------------------------------------------------------------------

constexpr const char* input_faults[]
    = { "missing", "empty", "folder", "fifo", "/dev/zero", "loop", "text", "noise", "huge" };

void spoil(const std::string& path, const std::string& fault)
{
    fs::remove_all(path);
    if (fault == "folder") fs::create_directory(path);
    if (fault == "fifo" && mkfifo(path.c_str(), 0600) != 0) std::abort();
    if (fault == "/dev/zero") fs::create_symlink(fault, path);
    if (fault == "loop") fs::create_symlink(path, path);
    if (fault == "missing" || fs::is_symlink(path) || fs::exists(path)) return;
    std::ofstream file(path, std::ios::binary);
    if (fault == "text") file << "no such thing\n";
    std::mt19937 noise(1);
    for (int i = 0; fault == "noise" && i < 3000; ++i)
        file.put(static_cast<char>(noise()));
    file.close();
    if (fault == "huge") fs::resize_file(path, std::uintmax_t { 8 } << 30);
}

std::string break_input(const std::string& originals, const Command& command, const char* input, const char* fault)
{
    const Stage stage(originals, command);
    spoil(stage.in + "/" + input, fault);
    Tree before = tree_of(stage.out);
    const Outcome outcome = stage.run();
    const Tree after = tree_of(stage.out);
    const bool whole = after.count("check.json") != 0 && after.count(".vexo-tmp") == 0;
    if (command.tells_more && whole) before = after;
    return judge(std::string(input) + " " + fault, stage, outcome, before);
}

// --- output ----------------------------------------------------------------------------------------

/// Root may write everywhere, but not without this. Another user might not even reach the program.
void respect_permissions()
{
    if (geteuid() == 0 && prctl(PR_CAPBSET_DROP, CAP_DAC_OVERRIDE) != 0) _exit(97);
}

void limit_files(rlim_t bytes)
{
    std::signal(SIGXFSZ, SIG_IGN);
    const rlimit size = { bytes, RLIM_INFINITY };
    setrlimit(RLIMIT_FSIZE, &size);
}

std::string impossible_folders(Stage& stage)
{
    std::ofstream(stage.folder / "file") << "no folder";
    for (const std::string& to : { stage.folder / "file", stage.folder / "file/x", std::string("/dev/full"),
             std::string("/proc/x"), stage.folder / std::string(300, 'n') }) {
        const std::string fault = judge(to, stage, stage.run([] {}, to), tree_of(stage.out));
        if (!fault.empty()) return fault;
    }
    return "";
}

std::string forbidden_folder(Stage& stage)
{
    fs::create_directories(stage.out);
    chmod(stage.out.c_str(), 0555);
    return judge("a folder that forbids it", stage, stage.run(respect_permissions, stage.out), tree_of(stage.out));
}

/// New and over an old result; the larger limits let some files through, the smallest the line about it.
std::string full_disk(Stage& stage, bool over_old)
{
    if (over_old && stage.run().code != 0) return "does not work at all";
    for (const rlim_t bytes : { rlim_t { 400 }, rlim_t { 3000 }, rlim_t { 20000 } }) {
        const Tree before = tree_of(stage.folder / "parent");
        const Outcome outcome = stage.run([bytes] { limit_files(bytes); }, stage.out);
        if (outcome.code == 0) return ""; // all files are smaller
        const std::string fault = judge("a full disk", stage, outcome, tree_of(stage.out));
        if (!fault.empty()) return fault;
        if (tree_of(stage.folder / "parent") != before) return text_of("a full disk changed files", stage, outcome);
    }
    return "";
}

/// A folder has the name of the last file: nothing may be put in place before that is seen.
std::string taken_name(Stage& stage)
{
    if (stage.run().code != 0) return "does not work at all";
    const Tree whole = tree_of(stage.out);
    std::string last = "compare_view.png";
    for (const auto& [name, bytes] : whole)
        if (!bytes.empty() && !stage.compares()) last = name;
    spoil(stage.out + "/" + last, "folder");
    return judge(last + " is a folder", stage, stage.run(), tree_of(stage.out));
}

std::string break_output(const std::string& originals, const Command& command, long way)
{
    Stage stage(originals, command);
    const bool cannot = !stage.writes() || (stage.compares() && (way == 0 || way == 2));
    if (cannot) return "";
    if (way == 0) return impossible_folders(stage);
    if (way == 1) return forbidden_folder(stage);
    return way == 4 ? taken_name(stage) : full_disk(stage, way == 3);
}
constexpr long output_ways = 5;

// --- nobody reads ----------------------------------------------------------------------------------

void close_output(long way)
{
    if (way == 0) close(1);
    if (way == 1) dup2(open("/dev/full", O_WRONLY), 1);
    int ends[2];
    if (way != 2 || pipe(ends) != 0) return;
    dup2(ends[1], 1);
    close(ends[0]);
    close(ends[1]);
}

std::string leave_unread(const std::string& originals, const Command& command, long way)
{
    const Stage stage(originals, command);
    const bool quiet = std::string(command.line).find("--quiet") != std::string::npos;
    const Outcome outcome = stage.run([way] { close_output(way); }, stage.out, way % 2 == 1 || quiet ? " --json" : "");
    return judge("closed output", stage, outcome, tree_of(stage.out));
}
constexpr long unread_ways = 3;

// --- ended -----------------------------------------------------------------------------------------

/// A signal at any moment: OUT is as it was or whole.
std::string stop(const std::string& originals, const Command& command, uint64_t seed)
{
    std::mt19937_64 rng(seed);
    const Stage stage(originals, command);
    const Clock clock;
    if (stage.run().code != 0) return "does not work at all";
    const double seconds = clock.seconds();
    const Tree whole = tree_of(stage.out);
    if (rng() % 2 == 0) fs::remove_all(stage.out);
    if (stage.compares()) stage.fill();
    const Tree before = tree_of(stage.out);
    const int signal = std::array<int, 3> { SIGTERM, SIGINT, SIGHUP }[rng() % 3];
    const pid_t child = stage.start([] {}, stage.out);
    usleep(static_cast<useconds_t>(1e6 * seconds * static_cast<double>(rng() % 1000) / 1000.0));
    kill(child, signal);
    const Outcome outcome = stage.end(child);
    const Tree after = tree_of(stage.out);
    if (after != before && !alike(after, whole)) return text_of("a part of the result after a signal", stage, outcome);
    if (!fs::is_empty(stage.folder / "tmp")) return text_of("a temporary folder is left", stage, outcome);
    // Without a line: it came before main(), or after the end of the work.
    if (outcome.code != 0 && outcome.code != 128 + signal) return text_of("ended otherwise", stage, outcome);
    return outcome.err.empty() || one_line(outcome.err) ? "" : text_of("not one line", stage, outcome);
}

bool make_samples(const std::string& in)
{
    for (std::string line : samples) {
        replace_all(line, "IN/", in + "/");
        if (std::system((std::string(VEXO_PROGRAM) + " " + line + " --quiet").c_str()) == 0) continue;
        std::printf("  FOUND samples cannot be made: %s\n", line.c_str());
        return false;
    }
    return true;
}

const char* kept(const std::string& fault)
{
    static std::string text;
    text = fault;
    replace_all(text, "\n", " ");
    return text.empty() ? nullptr : text.c_str();
}

} // namespace

int main(int argc, char** argv)
{
    const Options options(argc, argv);
    const Folder folder;
    const std::string in = folder / "in";
    fs::create_directory(in);
    if (!make_samples(in)) return 1;
    std::vector<std::pair<const Command*, const char*>> places;
    for (const Command& command : commands())
        for (const char* input : command.inputs)
            places.emplace_back(&command, input);
    const auto count = static_cast<long>(commands().size());
    const auto nth = [](long i) -> const Command& { return commands()[static_cast<std::size_t>(i)]; };
    constexpr auto faults = static_cast<long>(std::size(input_faults));
    Limits limits;
    limits.seconds = 60;
    long found = 0;
    // In the quick form every fourth case of each list, in steps that reach every command and every fault.
    const auto run = [&](const char* what, long cases, const std::function<std::string(long)>& trial) {
        const long step = cases % 7 == 0 ? 11 : 7, quick = options.seconds > 0 ? cases : cases / 4;
        found += run_trials(
            what, argv[0], options, quick, [&](long i) { return kept(trial(i * step % cases)); }, limits, true);
    };
    found += run_trials(
        "commands: signals at any moment", argv[0], options, count,
        [&](long i) { return kept(stop(in, nth(i % count), options.seed * 1000003 + static_cast<uint64_t>(i))); },
        limits);
    run("commands: broken input, every place", static_cast<long>(places.size()) * faults, [&](long i) {
        const auto& [command, input] = places[static_cast<std::size_t>(i / faults)];
        return break_input(in, *command, input, input_faults[i % faults]);
    });
    run("commands: output that cannot be written", count * output_ways,
        [&](long i) { return break_output(in, nth(i / output_ways), i % output_ways); });
    run("commands: nobody reads the output", count * unread_ways,
        [&](long i) { return leave_unread(in, nth(i / unread_ways), i % unread_ways); });
    return found == 0 ? 0 : 1;
}
