// What commands may write, replace and remove: only what is known to be their own.

#include "base/failure.h"
#include "host/files/hash.h"
#include "host/files/marker.h"
#include "host/files/output_folder.h"
#include "host/files/temporary_folder.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <string>

#include <atomic>
#include <csignal>
#include <cstdio>

#include <fcntl.h>
#include <omp.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

std::atomic<int> renames_to_go { -1 }; // until the process is killed; below zero: never

} // namespace

/// Stands before the one of the C library.
extern "C" int rename(const char* from, const char* to) noexcept
{
    if (renames_to_go-- == 0) ::kill(::getpid(), SIGKILL);
    return ::renameat(AT_FDCWD, from, AT_FDCWD, to);
}

namespace {

using namespace vexo;
namespace fs = std::filesystem;
using Files = std::map<std::string, std::string>;
using Names = std::vector<std::string>;

const Owner measure { "measure", { "report" }, { "compare" } }, compare { "compare", { "figures" }, {}, true },
    check { "check", { "report" } };

Owner forced(Owner owner)
{
    owner.force = true;
    return owner;
}

/// How a process that does `work` ended, killed after so many renames. Alone: threads of OpenMP do not survive a fork.
template <class Work> int status_of(Work work, int renames)
{
    const pid_t child = ::fork();
    if (child == 0) {
        omp_set_num_threads(1);
        renames_to_go = renames;
        work();
        ::_exit(0);
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    return status;
}

struct OutputFolders : testing::Test {
    TemporaryFolder work;
    const std::string folder = work / "out";

    Names write(const Owner& owner, const Files& files) const
    {
        OutputFolder out(folder, owner);
        for (const auto& [name, text] : files)
            out.add(name, text);
        return out.commit();
    }
    void put(const std::string& name, const std::string& text) const
    {
        fs::create_directories((fs::path(folder) / name).parent_path());
        std::ofstream(folder + "/" + name) << text;
    }
    /// All files but the marker.
    Files found() const
    {
        Files files;
        for (const auto& entry : fs::recursive_directory_iterator(folder)) {
            const std::string name = fs::relative(entry.path(), folder).string();
            std::ifstream file(entry.path());
            if (entry.is_regular_file() && name != marker_name)
                files[name] = { std::istreambuf_iterator<char>(file), {} };
        }
        return files;
    }
    /// The words of the refusal, and that nothing changed.
    std::string refusal(const Owner& owner, const Files& files) const
    {
        const Files before = found();
        std::string words = "nothing was refused";
        EXPECT_THROW(
            {
                try {
                    write(owner, files);
                } catch (const UsageFailure& refused) {
                    words = refused.what();
                    throw;
                }
            },
            UsageFailure);
        EXPECT_EQ(found(), before);
        return words;
    }
};

#define EXPECT_NAMES(words, name) EXPECT_NE((words).find(name), std::string::npos) << (words)

TEST_F(OutputFolders, ReplaceTheirOwnFilesAndRemoveLeftOversOfAnEarlierRun)
{
    write(measure, { { "cloud", "old" }, { "views/a", "old" }, { "report", "old" } });
    put("notes", "the user's");
    write(compare, { { "figures", "of the old cloud" } });
    EXPECT_TRUE(write(measure, { { "cloud", "new" }, { "report", "new" } }).empty());
    EXPECT_EQ(found(), (Files { { "cloud", "new" }, { "report", "new" }, { "notes", "the user's" } }));
    EXPECT_FALSE(fs::exists(fs::path(folder) / "views"));
    const Marker marker = read_marker(folder);
    ASSERT_EQ(marker.size(), 2U);
    EXPECT_EQ(marker.at("cloud").hashes, Names { sha256(std::string("new")) });
}

TEST_F(OutputFolders, KeepWhatSomebodyChangedOrAddedAndNameIt)
{
    write(measure, { { "cloud", "old" }, { "map", "old" }, { "report", "old" } });
    put("map", "edited");
    EXPECT_NAMES(refusal(measure, { { "map", "new" }, { "report", "new" } }), "/map: was changed");
    EXPECT_EQ(write(measure, { { "report", "new" } }), Names { "map" });
    put("cloud", "the user's");
    EXPECT_NAMES(refusal(measure, { { "cloud", "new" } }), "/cloud: stands there");
    EXPECT_EQ(found(), (Files { { "map", "edited" }, { "cloud", "the user's" }, { "report", "new" } }));
}

TEST_F(OutputFolders, RefuseFoldersAndFilesOfOthersUnlessForced)
{
    put("frame00", "captured");
    EXPECT_NAMES(refusal(measure, { { "cloud", "new" } }), "holds frame00");
    EXPECT_NAMES(refusal(compare, { { "frame00", "new" } }), "/frame00: stands there");
    write(compare, { { "figures", "new" } });
    EXPECT_NAMES(refusal(check, { { "report", "new" } }), "vexo compare");
    write(forced(check), { { "frame00", "new" } });
    EXPECT_EQ(found(), (Files { { "frame00", "new" }, { "figures", "new" } }));
    put(marker_name, "{}");
    EXPECT_THROW(write(check, { { "frame00", "newer" } }), Failure) << "with a damaged marker";
}

/// A run is killed before its first rename, its second, ...: what it leaves is never a report beside files of another
/// run, nothing of the user's is touched, and the next run knows all that is its own.
TEST_F(OutputFolders, HoldNoReportOfOtherFilesAndAreStillKnownAfterAKillBeforeAnyRename)
{
    const Files old { { "cloud", "old" }, { "map", "old" }, { "report", "old" } },
        fresh { { "cloud", "new" }, { "map", "new" }, { "report", "new" } };
    bool killed = true;
    int renames = 0;
    for (; killed; ++renames) {
        SCOPED_TRACE(renames);
        ASSERT_LT(renames, 100);
        write(measure, old);
        put("notes", "the user's");
        write(compare, { { "figures", "of the old cloud" } });
        killed = WIFSIGNALED(status_of([&] { write(measure, fresh); }, renames));
        Files left = found();
        for (auto file = left.begin(); file != left.end();)
            file = file->first.rfind(".vexo-tmp", 0) == 0 ? left.erase(file) : std::next(file);
        EXPECT_EQ(left["notes"], "the user's");
        for (const auto& [name, text] : left)
            EXPECT_TRUE(left.count("report") == 0 || fresh.count(name) == 0 || text == left["report"]) << name;
        EXPECT_FALSE(left["cloud"] == "new" && left.count("figures") != 0);
        EXPECT_TRUE(write(measure, { { "cloud", "newest" }, { "report", "newest" } }).empty());
        EXPECT_EQ(found(), (Files { { "cloud", "newest" }, { "report", "newest" }, { "notes", "the user's" } }));
        fs::remove_all(folder);
    }
    EXPECT_GT(renames, 8) << "marker, files and report take their names one by one";
}

TEST_F(OutputFolders, LeaveEverythingAsItWasWhenANameIsTaken)
{
    write(measure, { { "a", "old" }, { "report", "old" } });
    fs::create_directories(folder + "/z");
    const Files before = found();
    const std::string marker = marker_text(read_marker(folder));
    EXPECT_NAMES(refusal(forced(measure), { { "a", "new" }, { "z", "new" }, { "report", "new" } }), "/z");
    EXPECT_EQ(found(), before);
    EXPECT_EQ(marker_text(read_marker(folder)), marker);
}

/// Test vectors of FIPS 180-4; the lengths lie on both sides of where the length needs a block of its own.
TEST(Hash, IsThatOfTheStandard)
{
    EXPECT_EQ(sha256(std::string()), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
    EXPECT_EQ(sha256(std::string("abc")), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
    EXPECT_EQ(sha256(std::string(1000000, 'a')), "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0");
}

} // namespace
