#include "assets.h"

// Where the generated assets.S puts each file.
extern "C" {
extern const char asset_index_html[], asset_index_html_end[];
extern const char asset_scan_html[], asset_scan_html_end[];
extern const char asset_style_css[], asset_style_css_end[];
extern const char asset_shared_js[], asset_shared_js_end[];
extern const char asset_plots_js[], asset_plots_js_end[];
extern const char asset_index_js[], asset_index_js_end[];
extern const char asset_scan_js[], asset_scan_js_end[];
extern const char asset_viewer_gz[], asset_viewer_gz_end[];
}

namespace tavrel::report {

std::string_view indexTemplate() { return {asset_index_html, asset_index_html_end}; }
std::string_view scanTemplate() { return {asset_scan_html, asset_scan_html_end}; }
std::string_view styleSheet() { return {asset_style_css, asset_style_css_end}; }
std::string_view sharedScript() { return {asset_shared_js, asset_shared_js_end}; }
std::string_view plotsScript() { return {asset_plots_js, asset_plots_js_end}; }
std::string_view indexScript() { return {asset_index_js, asset_index_js_end}; }
std::string_view scanScript() { return {asset_scan_js, asset_scan_js_end}; }
std::string_view viewerScript() { return {asset_viewer_gz, asset_viewer_gz_end}; }

}  // namespace tavrel::report
