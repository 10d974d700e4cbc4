#include "options.h"

#include "base/failure.h"

#include <CLI/CLI.hpp>
#include <opencv2/core.hpp>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <locale>
#include <memory>
#include <sstream>

#include <omp.h>

namespace vexo::app {

namespace fs = std::filesystem;

namespace {

constexpr const char* exit_codes
    = "Exit codes: 0 good; 1 done, but below a limit or with a verdict that spoils; 2 wrong usage;\n"
      "3 bad input, trying again does not help; 75 temporary, try again; 130, 143 after signals";

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

/// Whole numbers are decimal, as `seq -w` writes them: 010 is ten. Left to itself the parser reads octal and
/// hexadecimal ones.
std::string make_decimal(std::string& text)
{
    const bool negative = !text.empty() && text[0] == '-';
    const std::string digits = text.substr(negative ? 1 : 0);
    if (digits.empty() || digits.find_first_not_of("0123456789") != std::string::npos)
        return text + " is no whole decimal number";
    text = (negative ? "-" : "") + digits.substr(std::min(digits.find_first_not_of('0'), digits.size() - 1));
    return "";
}

/// Whether an option's values are whole numbers.
bool is_whole(const CLI::Option& option)
{
    const std::string type = option.get_type_name();
    return type.compare(0, 3, "INT") == 0 || type.compare(0, 4, "UINT") == 0;
}

/// Help of at most 100 columns: what is longer goes on below its description.
class NarrowHelp : public CLI::Formatter {
public:
    std::string make_help(const CLI::App* app, std::string name, CLI::AppFormatMode mode) const override
    {
        std::istringstream lines(CLI::Formatter::make_help(app, std::move(name), mode));
        std::string text;
        for (std::string line; std::getline(lines, line); text += line + "\n")
            while (line.size() > widest) {
                const std::size_t indent = line[0] == ' ' ? get_column_width() : 0;
                const std::size_t space = line.rfind(' ', widest);
                if (space == std::string::npos || space <= indent) break;
                text += line.substr(0, space) + "\n";
                line = std::string(indent, ' ') + line.substr(space + 1);
            }
        return text;
    }

private:
    static constexpr std::size_t widest = 100;
};

/// The whole text as a finite number, whatever the locale.
bool read_number(const std::string& text, double& value)
{
    std::istringstream stream(text);
    stream.imbue(std::locale::classic());
    return (stream >> value) && stream.peek() == std::istringstream::traits_type::eof() && std::isfinite(value);
}

} // namespace

void use_narrow_help(CLI::App& app)
{
    app.formatter(std::make_shared<NarrowHelp>());
}

void finish_command(CLI::App& command, GlobalOptions& options, const std::string& example, std::function<void()> run)
{
    command.add_flag("--json", options.json, "print the result as JSON, and nothing else");
    command.add_flag("--quiet", options.quiet, "print nothing but errors");
    command.add_option("--threads", options.threads, "number of threads (default: all cores)")
        ->check(CLI::Range(1, 1024));
    for (CLI::Option* option : command.get_options()) {
        if (option->get_type_name().compare(0, 5, "FLOAT") == 0) option->check(why_not_finite);
        if (is_whole(*option)) option->transform(CLI::Validator(make_decimal, ""));
    }
    command.footer("Example:\n  " + example + "\n\n" + exit_codes);
    command.callback([&options, run = std::move(run)] {
        use_threads(options.threads);
        mute_libraries();
        run();
    });
}

void add_force(CLI::App& command, GlobalOptions& options)
{
    command.add_flag("--force", options.force, "replace files of these names that others wrote or changed");
}

void say_kept(const GlobalOptions& options, const std::vector<std::string>& names)
{
    for (const std::string& name : names)
        say(options, "kept: " + name + " of an earlier run, since it was changed; it says nothing of this one");
}

std::vector<double> parse_numbers(
    const std::string& text, char between, std::size_t count, const std::string& option, const std::string& form)
{
    std::vector<double> numbers;
    std::istringstream parts(text);
    bool all = true;
    for (std::string part; std::getline(parts, part, between);) {
        numbers.push_back(0.0);
        all = all && read_number(part, numbers.back());
    }
    if (all && numbers.size() == count && text.back() != between) return numbers;
    const std::string how_many = count == 2 ? "two" : std::to_string(count);
    throw UsageFailure(option + " " + text + ": write " + how_many + " numbers with " + std::string(1, between)
        + " between them, " + option + " " + form);
}

std::pair<double, double> parse_pair(const std::string& text, char between, const std::string& option)
{
    const auto numbers = parse_numbers(text, between, 2, option, "A" + std::string(1, between) + "B");
    return { numbers[0], numbers[1] };
}

std::pair<double, double> parse_range(const std::string& text, const std::string& option)
{
    const auto range = parse_pair(text, ':', option);
    if (range.first >= range.second)
        throw UsageFailure(option + " " + text + ": the first number must be the smaller one");
    return range;
}

std::pair<double, double> parse_depths(const std::string& text, const std::string& option)
{
    const auto range = parse_range(text, option);
    if (range.first <= 0.0) throw UsageFailure(option + " " + text + ": depths must be positive");
    return range;
}

void add_frame_options(CLI::App& command, FrameOptions& options)
{
    command.add_option("--order", options.order,
        "which recorded frame, counted from 0 by name, is the method's first, second, ...: as in "
        "9,10,11,12,0,1,...; - for one that was not recorded (default: as capture.json says, else by name)");
    command
        .add_option("--bits", options.bits,
            "bits of the grey values in files of 16 (default: as capture.json says, else 10, 12, 14 or 16 by the "
            "largest value)")
        ->check(CLI::Range(8, 16));
}

void complete_frames_of(const FrameOptions& options, CaptureFiles& files)
{
    constexpr std::size_t most_digits = 4;
    files.bits = options.bits;
    if (options.order.empty()) return;
    std::istringstream list(options.order + ",");
    for (std::string entry; std::getline(list, entry, ',');) {
        const bool number = !entry.empty() && entry.size() <= most_digits
            && entry.find_first_not_of("0123456789") == std::string::npos;
        if (!number && entry != "-")
            throw UsageFailure("--order " + options.order + ": write the numbers of frames, or -, with commas between");
        const int frame = number ? std::stoi(entry) : -1;
        if (number && std::count(files.order.begin(), files.order.end(), frame) > 0)
            throw UsageFailure("--order " + options.order + ": frame " + entry + " is named twice");
        files.order.push_back(frame);
    }
}

void reject(const std::vector<CLI::Option*>& options, const std::string& why)
{
    for (const CLI::Option* option : options)
        if (option->count() > 0) throw UsageFailure(option->get_name() + ": " + why);
}

void complete_cameras(const std::string& folder, std::string& cam0, std::string& cam1)
{
    std::error_code ignored;
    if (folder.empty() && (cam0.empty() || cam1.empty()))
        throw UsageFailure("name a folder with cam0/ and cam1/, or give --cam0 and --cam1");
    if (!folder.empty() && !fs::is_directory(folder, ignored)) throw Failure(folder + ": there is no such folder");
    if (cam0.empty()) cam0 = (fs::path(folder) / "cam0").string();
    if (cam1.empty()) cam1 = (fs::path(folder) / "cam1").string();
}

} // namespace vexo::app
