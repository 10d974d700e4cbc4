#pragma once

#include "host/files/json_file.h"
#include "host/verdict/finding.h"

#include <functional>
#include <string>
#include <vector>

/// Pages for people that need no other file and no network: one look for all of them. Whatever comes from files, names
/// or the command line goes through escaped() or script_data(); the other arguments are HTML.
namespace vexo {

/// A text inside an element or a quoted attribute; bytes that are not UTF-8 become U+FFFD.
std::string escaped(const std::string& text);

/// The text as a sentence, in HTML: "rows differ" becomes "Rows differ."; options keep together.
std::string sentence_html(std::string text);

/// An integer in groups that no line ends within: "1 310 720".
std::string grouped_html(long long value);

/// JSON inside a script element, which no text in it can end.
std::string script_data(const Json& json);

/// Source: RFC 4648.
std::string base64(const std::vector<unsigned char>& bytes);

/// A picture that stands in the page itself.
/// @param type         "image/jpeg" or "image/png"
/// @param description  for those who do not see it; a plain text
std::string picture_html(
    const std::vector<unsigned char>& bytes, const std::string& type, const std::string& description);

struct Section {
    std::string title, about, body;
};

std::string section_html(const Section& section);

struct Column {
    std::string name;
    bool figures = false; ///< its cells stand at the right
};

/// Rows of cells.
struct Table {
    std::vector<Column> head; ///< may be empty
    std::vector<std::vector<std::string>> rows;
};

std::string table_html(const Table& table);

/// What was found, with what to do beside it, by weight.
/// @param title_of  what stands above a finding, a plain text
std::string findings_html(
    const std::vector<Finding>& findings, const std::function<std::string(const Finding&)>& title_of);

struct Page {
    std::string kind;                    ///< "Measurement"; a plain text, as the next four
    std::string name;                    ///< what it is of
    Weight weight = Weight::good;        ///< colours the verdict
    std::string verdict;                 ///< in a sentence
    std::string reason;                  ///< a sentence, may be empty
    std::vector<Section> sections;       ///< the first follows the verdict
    std::vector<std::string> scripts {}; ///< that run when all of it was read; empty: none may
};

std::string page_html(const Page& page);

} // namespace vexo
