// The files of web/ that pages are made of, embedded in the program.
#pragma once

#include <string_view>

namespace tavrel::report {

std::string_view indexTemplate();
std::string_view scanTemplate();
std::string_view styleSheet();
std::string_view sharedScript();  ///< of both kinds of page
std::string_view plotsScript();   ///< of the index, before its own
std::string_view indexScript();
std::string_view scanScript();

/// The 3-D viewer, compressed by gzip; empty in programs that were built without it.
std::string_view viewerScript();

}  // namespace tavrel::report
