// The files of the page, which the build puts into the program.
#pragma once

#include <span>
#include <string_view>

struct page_file {
    std::string_view name;
    std::string_view tag; // of just this text
    std::string_view text;
};
std::span<const page_file> page_files();
