#pragma once

#include <string_view>

/// What pages are made of besides their contents: the files of this folder, which the build turns into text.
namespace vexo {

extern const std::string_view page_style;  ///< page.css
extern const std::string_view view_script; ///< view.js, which draws the points
/// three.js, by which it draws, with its licence as a comment before it; empty: it was not there when the program was
/// built.
extern const std::string_view three_script;

} // namespace vexo
