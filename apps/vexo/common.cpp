#include "common.h"

#include "vexo/file_io.h"

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>
#include <opencv2/core.hpp>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <iostream>
#include <locale>
#include <sstream>

#include <omp.h>
#include <unistd.h>

namespace vexo::app {

namespace fs = std::filesystem;

namespace {

constexpr double seconds_before_progress = 1.0;

void use_threads(int threads)
{
    if (threads <= 0) return;
    omp_set_num_threads(threads);
    cv::setNumThreads(threads);
}

} // namespace

void finish_command(CLI::App& command, GlobalOptions& options, const std::string& example, std::function<void()> run)
{
    command.add_flag("--json", options.json, "print the result as JSON, and nothing else");
    command.add_flag("--quiet", options.quiet, "print nothing but errors");
    command.add_option("--threads", options.threads, "number of threads (default: all cores)")
        ->check(CLI::Range(1, 1024));
    command.footer("Example:\n  " + example);
    command.callback([&options, run = std::move(run)] {
        use_threads(options.threads);
        run();
    });
}

void say(const GlobalOptions& options, const std::string& line)
{
    if (options.json || options.quiet) return;
    std::cout << line << '\n';
    if (!std::cout) throw Failure("the standard output was closed");
}

void put_json(const GlobalOptions& options, const nlohmann::ordered_json& result)
{
    if (!options.json) return;
    std::cout << result.dump(2) << std::endl;
    if (!std::cout) throw Failure("the standard output was closed");
}

Progress::Progress(const GlobalOptions& options, int total)
    : _silent(options.json || options.quiet)
    , _terminal(::isatty(STDERR_FILENO) == 1)
    , _total(std::max(total, 1))
    , _start(std::chrono::steady_clock::now())
{
}

Progress::~Progress()
{
    finish();
}

void Progress::step(const std::string& what)
{
    const std::chrono::duration<double> passed = std::chrono::steady_clock::now() - _start;
    if (!_silent && passed.count() > seconds_before_progress) {
        _draw(what);
        _drawn = true;
    }
    _done = std::min(_done + 1, _total);
}

void Progress::finish()
{
    if (_drawn && _terminal) std::cerr << "\r\033[K" << std::flush;
    _drawn = false;
}

void Progress::_draw(const std::string& what) const
{
    constexpr int width = 30;
    if (!_terminal) {
        std::cout << "... " << what << " (" << _done + 1 << " of " << _total << ")" << std::endl;
        return;
    }
    const auto filled = static_cast<std::size_t>(width * _done / _total);
    std::cerr << "\r\033[K[" << std::string(filled, '#') << std::string(width - filled, '.') << "] "
              << 100 * _done / _total << " %  " << what << std::flush;
}

std::string number(double value, int decimals)
{
    if (std::isnan(value)) return "nan";
    if (std::isinf(value)) return value > 0 ? "inf" : "-inf";
    std::ostringstream text;
    text.imbue(std::locale::classic());
    text.setf(std::ios::fixed);
    text.precision(decimals);
    text << value;
    return text.str();
}

std::string percent(double part, double whole)
{
    return whole > 0 ? number(100.0 * part / whole, 2) + " %" : "-";
}

std::string grouped(long long value)
{
    std::string digits = std::to_string(value);
    for (std::size_t i = digits.size(); i > 3 + (value < 0 ? 1U : 0U);)
        digits.insert(i -= 3, 1, ' ');
    return digits;
}

std::pair<double, double> parse_range(const std::string& text, const std::string& option)
{
    const std::size_t colon = text.find(':');
    double bounds[2] = {};
    bool good = colon != std::string::npos;
    for (int i = 0; i < 2 && good; ++i) {
        std::istringstream part(i == 0 ? text.substr(0, colon) : text.substr(colon + 1));
        part.imbue(std::locale::classic());
        good = (part >> bounds[i]) && part.peek() == std::istringstream::traits_type::eof() && std::isfinite(bounds[i]);
    }
    if (!good) throw Failure(option + " " + text + ": write two numbers with a colon between them, " + option + " A:B");
    if (bounds[0] >= bounds[1]) throw Failure(option + " " + text + ": the first number must be the smaller one");
    return { bounds[0], bounds[1] };
}

std::string read_bytes(const std::string& path, std::size_t limit)
{
    std::string bytes;
    if (file_io::read_file(path, limit, bytes)) return bytes;
    std::error_code ignored;
    if (!fs::exists(path, ignored)) throw Failure(path + ": there is no such file");
    if (!fs::is_regular_file(path, ignored)) throw Failure(path + ": is not a file");
    const auto size = fs::file_size(path, ignored);
    if (!ignored && size == 0) throw Failure(path + ": the file is empty");
    if (!ignored && size > limit) throw Failure(path + ": the file is larger than " + std::to_string(limit) + " bytes");
    throw Failure(path + ": the file cannot be read; check its permissions");
}

void check_output_folder(const std::string& folder)
{
    std::error_code ignored;
    if (folder.empty()) throw Failure("--out: name a folder");
    fs::path existing = fs::absolute(folder, ignored);
    if (fs::exists(existing, ignored) && !fs::is_directory(existing, ignored))
        throw Failure(folder + ": is a file; name a folder for the results");
    while (!existing.empty() && !fs::exists(existing, ignored) && existing.has_relative_path())
        existing = existing.parent_path();
    if (!fs::is_directory(existing, ignored) || ::access(existing.c_str(), W_OK | X_OK) != 0)
        throw Failure(folder + ": the folder cannot be made or written, because of " + existing.string());
}

OutputFolder::OutputFolder(std::string folder)
    : _folder(std::move(folder))
{
    check_output_folder(_folder);
}

void OutputFolder::add(const std::string& name, std::vector<unsigned char> bytes)
{
    _files.emplace_back(name, std::move(bytes));
}

void OutputFolder::add(const std::string& name, const std::string& text)
{
    add(name, std::vector<unsigned char>(text.begin(), text.end()));
}

void OutputFolder::commit()
{
    std::error_code error;
    const bool made = fs::create_directories(_folder, error);
    if (error) throw Failure(_folder + ": the folder cannot be made: " + error.message());

    for (std::size_t i = 0; i < _files.size(); ++i) {
        const fs::path path = fs::path(_folder) / _files[i].first;
        fs::create_directories(path.parent_path(), error); // for a name with a folder in it
        if (file_io::write_file(path.string(), _files[i].second)) continue;
        for (std::size_t k = 0; k < i; ++k)
            fs::remove(fs::path(_folder) / _files[k].first, error);
        if (made) fs::remove(_folder, error);
        throw Failure(path.string() + ": cannot be written; is the disk full, or the folder read-only?");
    }
}

} // namespace vexo::app
