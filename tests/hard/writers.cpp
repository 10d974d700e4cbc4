// Files that are written while the process is killed, the disk is full, the folder forbids it, or through links.

#include "base/plain_yaml.h"
#include "base/whole_file.h"
#include "support/child.h"
#include "support/mutate.h"
#include "support/samples.h"

#include "board/result_picture.h"
#include "camera/stereo_camera.h"

#include <grp.h>
#include <sys/stat.h>

using namespace vexo;
using namespace hard;

namespace {

/// What writes the file, in two versions that can be told apart.
struct Writer {
    const char* file;
    bool (*write)(const std::string& path, int version);
};

bool write_yaml(const std::string& path, int version)
{
    DistortCamera camera({ width, height }, "cam0");
    camera.T(0) = version;
    cv::FileStorage yaml = memory_yaml();
    return camera.save(&yaml) && close_yaml(yaml, path);
}

bool write_tables(const std::string& path, int version)
{
    UndistortCamera camera({ 200, 150 }, "cam0");
    camera.map1 = cv::Mat(150, 200, CV_32F, cv::Scalar(version));
    camera.map2 = camera.map1.clone();
    camera.map_file = path;
    cv::FileStorage yaml = memory_yaml();
    return camera.save(&yaml);
}

bool write_png(const std::string& path, int version)
{
    return write_picture(path, cv::Mat(300, 400, CV_8U, cv::Scalar(version)));
}

constexpr Writer writers[] = { { "a.yaml", write_yaml }, { "a.bin", write_tables }, { "a.png", write_png } };

bool exists(const std::string& path)
{
    return access(path.c_str(), F_OK) == 0;
}

/// One writer in a folder of its own, and the bytes that its two versions give.
struct Stage {
    explicit Stage(const Writer& w)
        : writer(w)
        , path(folder / w.file)
        , temporary(path + ".vexo-tmp")
    {
        for (int v = 0; v < 2; ++v)
            if (writer.write(path, v)) versions[v] = content(path);
    }
    bool ready() const { return !versions[0].empty() && !versions[1].empty() && versions[0] != versions[1]; }
    bool whole() const
    {
        const std::string bytes = content(path);
        return bytes == versions[0] || bytes == versions[1];
    }

    const Writer& writer;
    Folder folder;
    std::string path, temporary, versions[2];
};

const char* kill_while_writing(Rng& rng, Stage& stage)
{
    const pid_t child = fork();
    if (child == 0) {
        for (int v = 0;; v = 1 - v)
            stage.writer.write(stage.path, v);
    }
    usleep(static_cast<useconds_t>(below(rng, 20000)));
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    if (!stage.whole()) return "a torn file after a kill";
    if (!stage.writer.write(stage.path, 0)) return "a killed writer blocks the next";
    if (content(stage.path) != stage.versions[0]) return "another file than written";
    return exists(stage.temporary) ? "a temporary file is left" : nullptr;
}

/// A file may not grow beyond a size: what a full disk looks like to the writer.
const char* fill_disk(Rng& rng, Stage& stage)
{
    const std::string before = content(stage.path);
    const int code = in_child([&] {
        std::signal(SIGXFSZ, SIG_IGN);
        const rlimit size = { below(rng, stage.versions[0].size()), RLIM_INFINITY },
                     all = { RLIM_INFINITY, RLIM_INFINITY };
        setrlimit(RLIMIT_FSIZE, &size);
        const bool written = stage.writer.write(stage.path, 0);
        setrlimit(RLIMIT_FSIZE, &all); // a coverage build writes its counters at the end
        return written ? 1 : 0;
    });
    if (code != 0) return "a full disk was not noticed";
    if (content(stage.path) != before) return "a full disk changed the file";
    return exists(stage.temporary) ? "a temporary file is left" : nullptr;
}

/// As a user who is not root and may not write into the folder; then targets that can be no file.
const char* forbid(Stage& stage)
{
    const std::string folder = stage.folder / "";
    const std::string before = content(stage.path);
    chmod(folder.c_str(), 0555);
    const int code = in_child([&] {
        if (setgroups(0, nullptr) != 0 || setgid(65534) != 0 || setuid(65534) != 0) return geteuid() == 0 ? 2 : 0;
        return stage.writer.write(stage.path, 0) ? 1 : 0;
    });
    chmod(folder.c_str(), 0755);
    if (code == 1) return "a folder that forbids it was written to";
    if (content(stage.path) != before || exists(stage.temporary)) return "a forbidden write left something";

    const std::string extension = std::string(stage.writer.file).substr(1);
    const std::string targets[] = { stage.path + "/under_a_file" + extension, folder, folder + "no/such" + extension,
        folder + std::string(300, 'n') + extension, "/dev/full", std::string("nul\0", 4) + extension };
    for (const std::string& target : targets)
        if (stage.writer.write(target, 0)) return "an impossible target was written to";
    const std::string directory = stage.folder / ("dir" + extension);
    mkdir(directory.c_str(), 0700);
    if (stage.writer.write(directory, 0)) return "a directory was replaced";
    return stage.writer.write(stage.path, 1) && stage.whole() ? nullptr : "writing no longer works";
}

/// A calibration folder whose files are links: what they name is replaced, or made, and they stay links.
const char* follow_links(Stage& stage)
{
    const std::string folder = stage.folder / "", file = stage.writer.file;
    const std::string real = folder + "shelf/" + file, new_file = folder + "shelf/new_" + file;
    const std::string link = folder + "link_" + file, dangling = folder + "dangling_" + file;
    const std::string loop = folder + "loop_" + file, nowhere = folder + "nowhere_" + file;
    const bool made = mkdir((folder + "shelf").c_str(), 0700) == 0 && rename(stage.path.c_str(), real.c_str()) == 0
        && symlink(("shelf/" + file).c_str(), stage.path.c_str()) == 0 && symlink(stage.path.c_str(), link.c_str()) == 0
        && symlink(("shelf/new_" + file).c_str(), dangling.c_str()) == 0 && symlink(loop.c_str(), loop.c_str()) == 0
        && symlink(("no/such/" + file).c_str(), nowhere.c_str()) == 0;
    const auto is_link = [](const std::string& path) {
        struct stat info = {};
        return lstat(path.c_str(), &info) == 0 && S_ISLNK(info.st_mode);
    };
    if (!made || !stage.writer.write(link, 0) || content(real) != stage.versions[0]) return "a link was not followed";
    if (!stage.writer.write(dangling, 1) || content(new_file) != stage.versions[1]) return "a link made no file";
    if (stage.writer.write(loop, 0) || stage.writer.write(nowhere, 0)) return "a link to nowhere was written to";
    for (const std::string& path : { stage.path, link, dangling, loop, nowhere }) {
        if (!is_link(path)) return "a link was replaced";
        if (exists(path + ".vexo-tmp")) return "a temporary file is left";
    }
    return exists(real + ".vexo-tmp") || exists(new_file + ".vexo-tmp") ? "a temporary file is left" : nullptr;
}

/// Several processes write one target: every one of them succeeds, and a reader never sees a part.
const char* compete(Stage& stage)
{
    pid_t children[3];
    for (int c = 0; c < 3; ++c) {
        children[c] = fork();
        if (children[c] != 0) continue;
        int failures = 0;
        for (int i = 0; i < 10; ++i)
            failures += stage.writer.write(stage.path, (c + i) % 2) ? 0 : 1;
        leave(failures);
    }
    bool torn = false;
    for (int i = 0; i < 100; ++i)
        torn = torn || !stage.whole();
    int failures = 0;
    for (const pid_t child : children) {
        int status = 0;
        waitpid(child, &status, 0);
        failures += WEXITSTATUS(status);
    }
    if (torn || !stage.whole()) return "a reader saw a torn file";
    if (exists(stage.temporary)) return "a temporary file is left";
    return failures == 0 ? nullptr : "a writer failed for another's sake";
}

} // namespace

int main(int argc, char** argv)
{
    const Options options(argc, argv);
    const long found
        = run_trials("writers: kill -9, full disk, forbidden folder, links, rivals", argv[0], options, 60, [&](long i) {
              Rng rng = rng_of(options.seed, i);
              Stage stage(writers[i % 3]);
              if (!stage.ready()) return "cannot write at all";
              switch (i / 3 % 8) {
              case 0:
                  return compete(stage);
              case 1:
                  return forbid(stage);
              case 2:
                  return follow_links(stage);
              case 3:
                  return fill_disk(rng, stage);
              default:
                  return kill_while_writing(rng, stage);
              }
          });
    return found == 0 ? 0 : 1;
}
