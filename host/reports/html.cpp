#include "host/reports/html.h"

#include "base/text.h"
#include "host/reports/page/parts.h"

#include <algorithm>
#include <cstring>

namespace vexo {

namespace {

/// The same text with U+FFFD for what is not UTF-8: else a byte could hide the one after it.
std::string as_utf8(const std::string& text)
{
    const std::string quoted = Json(text).dump(-1, ' ', false, Json::error_handler_t::replace);
    return Json::parse(quoted).get<std::string>();
}

/// What a weight is called.
const char* heading_of(Weight weight)
{
    const char* const words[] = { "Good", "Note", "Not known", "Warning", "Spoils" };
    return words[static_cast<std::size_t>(weight)];
}

/// Options of the command line, "--depth", stand on one line.
std::string with_options(const std::string& html)
{
    const char* const letters = "abcdefghijklmnopqrstuvwxyz0123456789-";
    std::string out;
    for (std::size_t at = 0; at < html.size();) {
        const std::size_t begin = std::min(html.find(" --", at), html.size());
        out += html.substr(at, begin - at);
        if (begin == html.size()) break;
        at = std::min(html.find_first_not_of(letters, begin + 1), html.size());
        out += " <span class=\"option\">" + html.substr(begin + 1, at - begin - 1) + "</span>";
    }
    return out;
}

std::string row_html(const Table& table, const std::vector<std::string>& cells)
{
    std::string html = "<tr>";
    for (std::size_t i = 0; i < cells.size(); ++i) {
        const bool figures = i < table.head.size() && table.head[i].figures;
        html += (figures ? "<td class=\"n\">" : "<td>") + cells[i] + "</td>";
    }
    return html + "</tr>\n";
}

} // namespace

std::string escaped(const std::string& text)
{
    std::string out;
    for (const char c : as_utf8(text)) {
        switch (c) {
        case '<':
            out += "&lt;";
            break;
        case '>':
            out += "&gt;";
            break;
        case '&':
            out += "&amp;";
            break;
        case '"':
            out += "&quot;";
            break;
        case '\'':
            out += "&#39;";
            break;
        default:
            out += c == '\0' ? ' ' : c;
        }
    }
    return out;
}

std::string sentence_html(std::string text)
{
    if (text.empty()) return "";
    if (text[0] >= 'a' && text[0] <= 'z') text[0] = static_cast<char>(text[0] - 'a' + 'A');
    if (std::strchr(".?!:", text.back()) == nullptr) text += '.';
    return with_options(escaped(text));
}

std::string script_data(const Json& json)
{
    std::string out;
    for (const char c : json.dump(-1, ' ', true, Json::error_handler_t::replace)) { // ASCII alone
        if (c == '<')
            out += "\\u003c";
        else if (c == '>')
            out += "\\u003e";
        else if (c == '&')
            out += "\\u0026";
        else
            out += c;
    }
    return out;
}

std::string grouped_html(long long value)
{
    std::string out;
    for (const char c : grouped(value))
        out += c == ' ' ? "&nbsp;" : std::string(1, c);
    return out;
}

std::string base64(const std::vector<unsigned char>& bytes)
{
    const char* const letters = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    out.reserve((bytes.size() + 2) / 3 * 4);
    for (std::size_t i = 0; i < bytes.size(); i += 3) {
        const std::size_t n = std::min<std::size_t>(3, bytes.size() - i);
        unsigned value = 0;
        for (std::size_t k = 0; k < 3; ++k)
            value = value << 8 | (k < n ? bytes[i + k] : 0U);
        for (std::size_t k = 0; k < 4; ++k)
            out += k <= n ? letters[value >> (18 - 6 * k) & 63U] : '=';
    }
    return out;
}

std::string picture_html(
    const std::vector<unsigned char>& bytes, const std::string& type, const std::string& description)
{
    return "<img alt=\"" + escaped(description) + "\" src=\"data:" + type + ";base64," + base64(bytes) + "\">";
}

std::string section_html(const Section& section)
{
    return "<section>" + (section.title.empty() ? "" : "<h2>" + section.title + "</h2>")
        + (section.about.empty() ? "" : "<p class=\"about\">" + section.about + "</p>\n") + section.body
        + "</section>\n";
}

std::string table_html(const Table& table)
{
    std::string html = "<div class=\"wide\"><table>";
    if (!table.head.empty()) html += "<tr>";
    for (const Column& column : table.head)
        html += (column.figures ? "<th class=\"n\">" : "<th>") + column.name + "</th>";
    if (!table.head.empty()) html += "</tr>\n";
    for (const std::vector<std::string>& cells : table.rows)
        html += row_html(table, cells);
    return html + "</table></div>\n";
}

std::string findings_html(
    const std::vector<Finding>& findings, const std::function<std::string(const Finding&)>& title_of)
{
    std::vector<Finding> sorted = findings;
    std::stable_sort(
        sorted.begin(), sorted.end(), [](const Finding& a, const Finding& b) { return a.weight > b.weight; });
    std::string html = "<ul class=\"findings\">\n";
    for (const Finding& f : sorted) {
        html += std::string("<li class=\"") + word_of(f.weight) + "\"><span class=\"mark\">" + heading_of(f.weight)
            + "</span><div><h3>" + escaped(title_of(f)) + "</h3><p>" + sentence_html(f.text) + "</p></div>";
        if (!f.advice.empty())
            html += "<div class=\"advice\"><h3>What to do</h3><p>" + sentence_html(f.advice) + "</p></div>";
        html += "</li>\n";
    }
    return html + "</ul>\n";
}

std::string page_html(const Page& page)
{
    const std::string title = escaped(page.kind + ": " + page.name);
    std::string html = "<!doctype html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">\n"
                       "<meta http-equiv=\"Content-Security-Policy\" content=\"default-src 'none'; img-src data:; "
                       "style-src 'unsafe-inline'"
        + std::string(page.scripts.empty() ? "" : "; script-src 'unsafe-inline'")
        + "\">\n<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">\n<title>" + title
        + "</title>\n<style>\n" + std::string(page_style)
        + "</style></head><body><main>\n<header><p class=\"kind\">vexo " + escaped(page.kind) + "</p><h1>"
        + escaped(page.name) + "</h1><div class=\"verdict " + word_of(page.weight) + "\"><strong>"
        + sentence_html(page.verdict) + "</strong>" + (page.reason.empty() ? "" : " " + sentence_html(page.reason))
        + "</div></header>\n";
    for (const Section& section : page.sections)
        html += section_html(section);
    html += "</main>\n";
    for (const std::string& script : page.scripts)
        html += "<script>" + script + "</script>\n";
    return html + "</body></html>\n";
}

} // namespace vexo
