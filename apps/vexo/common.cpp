#include "common.h"

#include "stop.h"

#include "base/whole_file.h"

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>
#include <opencv2/core.hpp>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <exception>
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
    if (threads > 0) {
        omp_set_num_threads(threads);
        cv::setNumThreads(std::min(threads, cv::getNumberOfCPUs())); // its pool complains about more
    }
    // Started now, while the standard error stream is open: where there is no room for a thread the runtime ends the
    // process with a line of its own.
#pragma omp parallel
    omp_get_thread_num();
}

/// The checks of numbers are comparisons, and "nan" passes them all.
std::string why_not_finite(const std::string& text)
{
    double value = 0.0;
    return CLI::detail::lexical_cast(text, value) && !std::isfinite(value) ? text + " is no finite number" : "";
}

} // namespace

void finish_command(CLI::App& command, GlobalOptions& options, const std::string& example, std::function<void()> run)
{
    for (CLI::Option* option : command.get_options())
        if (option->get_type_name().compare(0, 5, "FLOAT") == 0) option->check(why_not_finite);
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

std::string json_text(const nlohmann::ordered_json& json)
{
    return json.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + "\n";
}

void put_json(const GlobalOptions& options, const nlohmann::ordered_json& result)
{
    if (!options.json) return;
    std::cout << json_text(result) << std::flush;
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

void in_parallel(std::size_t count, const std::function<void(std::size_t)>& work)
{
    std::vector<std::exception_ptr> faults(count);
    const auto guarded = [&](std::size_t i) noexcept {
        try {
            work(i);
        } catch (...) {
            faults[i] = std::current_exception();
        }
    };
#pragma omp parallel for schedule(dynamic) // each writes its own entry of `faults`
    for (std::size_t i = 0; i < count; ++i)
        guarded(i);
    for (const std::exception_ptr& fault : faults)
        if (fault) std::rethrow_exception(fault);
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

void OutputFolder::stay_out_of(const std::vector<std::string>& pictures) const
{
    for (const std::string& picture : pictures) {
        std::error_code ignored;
        if (!fs::equivalent(fs::absolute(picture, ignored).parent_path(), _folder, ignored)) continue;
        throw Failure(_folder + ": holds the frames, and would hold the results as more of them; name another folder");
    }
}

void OutputFolder::add(const std::string& name, std::vector<unsigned char> bytes)
{
    _files.emplace_back(name, std::move(bytes));
}

void OutputFolder::add(const std::string& name, const std::string& text)
{
    add(name, std::vector<unsigned char>(text.begin(), text.end()));
}

void OutputFolder::drop(const std::string& name)
{
    _dropped.push_back(name);
}

std::string OutputFolder::_place(const std::string& name) const
{
    return (fs::path(_folder) / name).string();
}

void OutputFolder::_write(const TemporaryFolder& unfinished) const
{
    in_parallel(_files.size(), [&](std::size_t i) {
        if (!write_file(unfinished / std::to_string(i), _files[i].second))
            throw Failure(_place(_files[i].first) + ": cannot be written; is the disk full, or the folder read-only?");
    });
}

/// A second name of each old file is kept until all new ones have their places, so that all can be taken back.
void OutputFolder::_give_names(TemporaryFolder& unfinished) const
{
    const auto old = [&unfinished](std::size_t i) { return unfinished / ("old" + std::to_string(i)); };
    for (std::size_t i = 0; i < _files.size(); ++i) {
        const std::string place = _place(_files[i].first);
        std::error_code error;
        const bool free = !fs::exists(place, error) || fs::is_regular_file(place, error);
        if (free) unfinished.make(fs::path(place).parent_path().string());
        if (free) ::link(place.c_str(), old(i).c_str());
        if (free && ::rename((unfinished / std::to_string(i)).c_str(), place.c_str()) == 0) continue;
        const std::string why = free ? std::strerror(errno) : "something that is not a file has this name";
        for (std::size_t k = i; k-- > 0;)
            if (::rename(old(k).c_str(), _place(_files[k].first).c_str()) != 0)
                fs::remove(_place(_files[k].first), error);
        throw Failure(place + ": cannot be written: " + why);
    }
}

void OutputFolder::commit()
{
    TemporaryFolder unfinished(_folder);
    _write(unfinished);
    const Uninterrupted alone;
    _give_names(unfinished);
    unfinished.keep();
    for (const std::string& name : _dropped) {
        const bool fresh
            = std::any_of(_files.begin(), _files.end(), [&name](const auto& file) { return file.first == name; });
        std::error_code ignored;
        if (!fresh) fs::remove(_place(name), ignored);
    }
}

} // namespace vexo::app
